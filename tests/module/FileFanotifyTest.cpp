#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>

#include "ChildProcess.h"
#include "FileFanotify.h"
#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyTask.h"
#include "HeldThread.h"
#include "InotifyTestUtil.h"
#include "LogCapture.h"
#include "RecordingConsumer.h"
#include "TestUtil.h"
#include "framework/TaskRunner.h"
#include "sdk/LoggerUtils.h"

using Engine::FileFanotify;
using Engine::LOG_DEBUG;
using Engine::LOG_ERROR;
using std::chrono::milliseconds;
using TestUtil::OpenFromChild;
using TestUtil::OpeningChild;
using TestUtil::RecordingConsumer;

namespace {

#define REQUIRE_FANOTIFY()                                       \
    do {                                                         \
        const std::string missing = TestUtil::FanotifyMissing(); \
        if (!missing.empty()) GTEST_SKIP() << missing;           \
    } while (0)

Engine::_FileNotifyOpt Options(unsigned int mask, bool children) {
    Engine::_FileNotifyOpt opt;
    opt.watchChildFolder = children;
    opt.eventMasks = {mask};
    opt.combinedMask = mask;
    return opt;
}

bool IsClosed(int fd) {
    return ::fcntl(fd, F_GETFD) < 0 && errno == EBADF;
}

// A record of an unknown version ends the walk, but not before what it and
// the records behind it hold is released: a waiting access goes on. (The
// fuzz target fanotify_records checks the walk on any bytes.)
TEST(FileFanotify, AnUnknownVersionAllowsTheAccessesBehindIt) {
    REQUIRE_FANOTIFY();
    TestUtil::TempDir dir;
    TestUtil::Touch(dir / "file");
    FileFanotify group;
    ASSERT_EQ(0, group.Initialize(true));
    ASSERT_EQ(0, group.AddWatch(dir.path().c_str(), FAN_OPEN_PERM, Options(FAN_OPEN_PERM, true)));
    OpeningChild child(dir / "file");
    std::vector<char> queued(4096);
    ssize_t length = -1;
    ASSERT_TRUE(
        TestUtil::WaitUntil([&] { return (length = ::read(group.GetFd(), queued.data(), queued.size())) > 0; }));
    fanotify_event_metadata unknown{};
    unknown.event_len = unknown.metadata_len = sizeof unknown;
    unknown.vers = 1;
    unknown.mask = FAN_OPEN;
    unknown.fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    std::vector<char> bytes(sizeof unknown);
    std::memcpy(bytes.data(), &unknown, sizeof unknown);
    bytes.insert(bytes.end(), queued.begin(), queued.begin() + length);
    int calls = 0;
    const auto count = [](int, bool, fanotify_event_metadata*, void* n) { return ++*static_cast<int*>(n); };
    group.DoWithEvents(bytes.data(), static_cast<long>(bytes.size()), count, &calls);
    EXPECT_EQ(0, calls);
    EXPECT_TRUE(IsClosed(unknown.fd));
    ASSERT_TRUE(child.Wait(milliseconds(5000))) << "the access behind the record still waits";
    EXPECT_EQ(0, child.result());
}

// The module task with consumers, driven as the agent would drive it.
class FanotifyTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string missing = TestUtil::FanotifyMissing();
        if (!missing.empty()) GTEST_SKIP() << missing;
    }
    // Reachable from now on, also a consumer that is never started.
    void Register(RecordingConsumer& consumer) {
        consumer.Publish();
        ASSERT_EQ(0, task->AddFileNotifyMsgConsumer(consumer.GetTaskId(), &consumer));
    }
    // A permission watch on the files of folder, answered by taskId.
    void Guard(int taskId, const std::string& folder, unsigned int mask = FAN_OPEN_PERM) {
        int wd = 0;
        ASSERT_EQ(0, task->AddPermitWatch(taskId, folder, mask, Options(mask, true), wd));
    }
    // A file in the folder guarded for judge, which denies; both tasks run.
    void GuardFileDenied() {
        TestUtil::Touch(dir / "file");
        Register(*judge);
        Guard(judge->GetTaskId(), dir.path());
        judge->verdict = 2;
        ASSERT_EQ(0, judgeRunner.Start());
        ASSERT_EQ(0, taskRunner.Start());
    }

    TestUtil::TempDir dir;
    Poco::AutoPtr<Engine::FileNotifyTask> task{new Engine::FileNotifyTask()};
    Poco::AutoPtr<RecordingConsumer> judge{new RecordingConsumer("judge")};
    Framework::TaskRunner judgeRunner{judge.get()};
    Framework::TaskRunner taskRunner{task.get()};  // declared last: stops first
};

TEST_F(FanotifyTaskTest, VerdictOfTheConsumerDecides) {
    auto throwOnce = std::make_shared<std::atomic<bool>>(false);
    judge->onEvent = [throwOnce](const Engine::FileNotifyMessage&) {
        if (throwOnce->exchange(false)) throw std::runtime_error("judge failed");
    };
    ASSERT_NO_FATAL_FAILURE(GuardFileDenied());
    OpeningChild child(dir / "file");
    ASSERT_TRUE(child.Wait(milliseconds(5000)));
    EXPECT_EQ(EPERM, child.result());
    ASSERT_EQ(1u, judge->Count());
    const auto asked = judge->Events()[0];
    EXPECT_EQ(2, asked.notifyType);
    EXPECT_EQ(dir / "file", asked.path);
    EXPECT_EQ(static_cast<unsigned int>(child.pid()), asked.pid);
    EXPECT_FALSE(asked.exe.empty());
    EXPECT_EQ(static_cast<unsigned int>(FAN_OPEN_PERM), asked.mask);
    EXPECT_EQ(Engine::FileFanotifyWatch::kFirstWatchId, asked.watchId);

    for (int verdict : {0, 1, 3}) {
        judge->verdict = verdict;
        EXPECT_EQ(0, OpenFromChild(dir / "file")) << "verdict " << verdict;
    }
    // A judge that throws gives no verdict: allowed, and everything goes on.
    judge->verdict = 2;
    throwOnce->store(true);
    EXPECT_EQ(0, OpenFromChild(dir / "file"));
    EXPECT_EQ(EPERM, OpenFromChild(dir / "file"));
}

// The permission reader asks the consumer itself, so a verdict does not wait
// for a busy module thread; at debug priority the module thread asks, to log
// each step, and a busy one lets the deadline allow the access.
TEST_F(FanotifyTaskTest, VerdictsNeedNoModuleThreadUnlessItLogsEachStep) {
    ASSERT_NO_FATAL_FAILURE(GuardFileDenied());
    TestUtil::HeldThread busy(*task);
    ASSERT_TRUE(busy.held);

    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    Engine::GetLoggerPtr()->setLevel(Poco::Message::PRIO_INFORMATION);
    EXPECT_EQ(EPERM, OpenFromChild(dir / "file"));
    EXPECT_EQ(1u, judge->Count());

    Engine::GetLoggerPtr()->setLevel(Poco::Message::PRIO_DEBUG);
    OpeningChild late(dir / "file");
    ASSERT_TRUE(late.Wait(milliseconds(5000)));
    EXPECT_EQ(0, late.result());
    busy.Release();
    const std::string allowed =
        "no time left to ask about the access of pid=" + std::to_string(late.pid()) + ": allowed";
    EXPECT_TRUE(TestUtil::WaitUntil([&] { return log.Has(LOG_DEBUG, allowed); })) << log.Dump();
    EXPECT_EQ(1u, judge->Count());
}

// The guard follows its folder through a rename; when the folder is
// deleted and made again at its path, it is guarded again, and the consumer
// is told both.
TEST_F(FanotifyTaskTest, GuardFollowsItsFolderAndComesBackWithItsPath) {
    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    const std::string guarded = dir / "G/";
    const std::string moved = dir / "H/";
    TestUtil::MakeDir(guarded);
    TestUtil::Touch(guarded + "s.key");
    judge->verdict = 2;
    Register(*judge);
    Guard(judge->GetTaskId(), guarded);
    ASSERT_EQ(0, judgeRunner.Start());
    ASSERT_EQ(0, taskRunner.Start());

    TestUtil::Rename(guarded, moved);
    // The time-based check has seen the move, and kept the guard.
    ASSERT_TRUE(TestUtil::WaitUntil([&] {
        return log.Has(Engine::LOG_WARNING, "guarded " + guarded + " has moved to " + moved +
                                                ": the guard stays with it, the old path is not guarded");
    })) << log.Dump();
    EXPECT_EQ(EPERM, OpenFromChild(moved + "s.key"));
    ASSERT_TRUE(judge->WaitFor(1));
    EXPECT_EQ(moved + "s.key", judge->Events()[0].path);

    ASSERT_EQ(0, ::unlink((moved + "s.key").c_str()));
    ASSERT_EQ(0, ::rmdir(moved.c_str()));
    TestUtil::MakeDir(guarded);
    TestUtil::Touch(guarded + "s.key");
    EXPECT_TRUE(TestUtil::WaitUntil([&] { return OpenFromChild(guarded + "s.key") == EPERM; }));
    const auto reports = [&] {
        std::vector<std::string> out;
        for (const auto& e : judge->Events()) {
            if ((e.mask & Engine::kFanPermissionBits) != 0) continue;
            out.push_back(std::to_string(e.notifyType) + " " + e.path + " " + e.watchFile + " " +
                          std::to_string(e.mask));
        }
        return out;
    };
    const std::vector<std::string> expected = {"2 " + dir / "G " + guarded + " 1024",
                                               "2 " + dir / "G " + guarded + " 256"};
    EXPECT_TRUE(TestUtil::WaitUntil([&] { return reports() == expected; })) << ::testing::PrintToString(reports());
    // Every event found its record, and the deleted folder's mark was removed.
    EXPECT_EQ(0, log.Count(LOG_ERROR)) << log.Dump();
}

TEST_F(FanotifyTaskTest, SilentConsumersLetTheAccessThroughAfterTheTimeout) {
    Poco::AutoPtr<RecordingConsumer> idle(new RecordingConsumer("idle"));     // never serves its queue
    Poco::AutoPtr<RecordingConsumer> full(new RecordingConsumer("full", 1));  // queue full, never served
    Poco::AutoPtr<RecordingConsumer> late(new RecordingConsumer("late"));     // answers after the time-out
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    late->verdict = 2;
    late->onEvent = [released](const Engine::FileNotifyMessage&) { released.wait(); };
    Framework::TaskRunner lateRunner(late.get());
    ASSERT_EQ(0, lateRunner.Start());

    struct Case {
        const char* name;
        int taskId;
    } cases[] = {
        {"unknown", 424242}, {"idle", idle->GetTaskId()}, {"full", full->GetTaskId()}, {"late", late->GetTaskId()}};
    for (auto* consumer : {idle.get(), full.get(), late.get(), judge.get()})
        Register(*consumer);
    for (const auto& c : cases) {
        TestUtil::MakeDir(dir / c.name);
        TestUtil::Touch(dir / c.name + "/file");
        Guard(c.taskId, dir / c.name + "/");
    }
    TestUtil::MakeDir(dir / "judged");
    TestUtil::Touch(dir / "judged/file");
    Guard(judge->GetTaskId(), dir / "judged/");
    ASSERT_EQ(0, task->SendMsg(full->GetTaskId(), "f", new Engine::FileNotifyMessage(0, "/filler", 0)));
    ASSERT_EQ(0, judgeRunner.Start());
    ASSERT_EQ(0, taskRunner.Start());

    for (const auto& c : cases)
        EXPECT_EQ(0, OpenFromChild(dir / c.name + "/file")) << c.name;
    release.set_value();
    // The module's thread went on: a verdict is still heard.
    judge->verdict = 2;
    EXPECT_EQ(EPERM, OpenFromChild(dir / "judged/file"));
}

TEST_F(FanotifyTaskTest, EveryAccessIsAnsweredByItsOwnDeadlineAndTheRecordTellsWhatTheKernelGot) {
    // A judge that denies: the first access at once, every later one only
    // after its process has been let through (by the deadline, as nothing
    // else answers it). Deadlines that waited for the judge's earlier
    // answers would add up to seconds; the answers say what the kernel got.
    TestUtil::Touch(dir / "file");
    std::mutex mutex;
    std::map<unsigned int, std::shared_ptr<Engine::FileNotifyPermitAnswer>> answers;  // by pid
    judge->verdict = 2;
    judge->onEvent = [&](const Engine::FileNotifyMessage& message) {
        const auto pid = static_cast<pid_t>(message.GetEventProcessId());
        {
            std::lock_guard<std::mutex> lock(mutex);
            answers[static_cast<unsigned int>(pid)] = message.GetPermitAnswer();
            if (answers.size() == 1) return;
        }
        // Until the child has exited (seen, not reaped: its test still waits on it).
        TestUtil::WaitUntil([pid] {
            siginfo_t info{};
            return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
                   info.si_pid == pid;
        });
    };
    // The judge's handler uses this test's locals: no event may reach it later.
    const TestUtil::AtScopeEnd stopFirst([this] {
        taskRunner.Stop();
        judgeRunner.Stop();
    });
    Register(*judge);
    Guard(judge->GetTaskId(), dir.path());
    ASSERT_EQ(0, judgeRunner.Start());
    ASSERT_EQ(0, taskRunner.Start());

    const auto start = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<OpeningChild>> children;
    for (int i = 0; i < 8; ++i)
        children.push_back(std::make_unique<OpeningChild>(dir / "file"));
    int denied = 0;
    for (auto& child : children) {
        ASSERT_TRUE(child->Wait(milliseconds(5000)));
        denied += child->result() == EPERM ? 1 : 0;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(3000));
    EXPECT_EQ(1, denied);
    ASSERT_TRUE(TestUtil::WaitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return judge->Count() == answers.size() && answers.size() == children.size();
    }));
    taskRunner.Stop();
    judgeRunner.Stop();
    std::lock_guard<std::mutex> lock(mutex);
    for (auto& child : children) {
        const auto state = answers.at(static_cast<unsigned int>(child->pid()))->GetState();
        EXPECT_EQ(child->result() == EPERM, state == Engine::FileNotifyPermitAnswer::State::Denied);
        EXPECT_EQ(child->result() == 0, state == Engine::FileNotifyPermitAnswer::State::AllowedByTimeout);
    }
}

// The module waits on a consumer that never serves its queue; the other
// accesses wait behind it. A stop releases them all at once, not at their
// deadlines (the slow judge above shows each has its own).
TEST_F(FanotifyTaskTest, AStopReleasesEveryWaitingAccessAtOnce) {
    TestUtil::Touch(dir / "file");
    Poco::AutoPtr<RecordingConsumer> idle(new RecordingConsumer("idle"));  // never serves its queue
    Register(*idle);
    Guard(idle->GetTaskId(), dir.path());
    ASSERT_EQ(0, taskRunner.Start());
    std::vector<std::unique_ptr<OpeningChild>> children;
    for (int i = 0; i < 8; ++i)
        children.push_back(std::make_unique<OpeningChild>(dir / "file"));
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return idle->GetQueuedMsgCount() > 0; }));
    const auto start = std::chrono::steady_clock::now();
    taskRunner.Stop();
    for (auto& child : children) {
        ASSERT_TRUE(child->Wait(milliseconds(5000)));
        EXPECT_EQ(0, child->result());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(500));
}

TEST_F(FanotifyTaskTest, AgentNeverWaitsOnItsOwnMarks) {
    // The agent's log rotates into one guarded folder and its configuration
    // lies in another; the judge denies everything and first opens the file
    // it judges. The module logs every event, so it writes there too.
    const std::string logs = dir / "logs/";
    const std::string conf = dir / "conf/";
    TestUtil::MakeDir(logs);
    TestUtil::MakeDir(conf);
    std::ofstream(conf + "resource.conf") << "inotify = 30\n";
    struct LogToFolder {
        explicit LogToFolder(const std::string& file) {
            SDK::LoggerUtils::GetInstance()->SetLevel(Poco::Message::PRIO_DEBUG);
            ok = SDK::LoggerUtils::GetInstance()->UseRotatingFile(file, 4096, 2);
        }
        ~LogToFolder() {
            SDK::LoggerUtils::GetInstance()->UseConsole();
            SDK::LoggerUtils::GetInstance()->SetLevel(level);
        }
        int level = SDK::LoggerUtils::GetInstance()->GetLevel();
        bool ok;
    } logToFolder(logs + "agent.log");
    ASSERT_TRUE(logToFolder.ok);
    judge->verdict = 2;
    judge->onEvent = [](const Engine::FileNotifyMessage& msg) {
        std::ifstream judged(msg.GetEventFilePath());
        std::string line;
        std::getline(judged, line);
    };
    Register(*judge);
    Guard(judge->GetTaskId(), logs, FAN_OPEN_PERM | FAN_ACCESS_PERM);
    Guard(judge->GetTaskId(), conf, FAN_OPEN_PERM | FAN_ACCESS_PERM);
    ASSERT_EQ(0, judgeRunner.Start());
    ASSERT_EQ(0, taskRunner.Start());

    for (int round = 0; round < 40; ++round) {
        std::ofstream(logs + "own.txt", std::ios::app) << "round " << round << "\n";
        std::ifstream in(conf + "resource.conf");
        std::string line;
        ASSERT_TRUE(std::getline(in, line));
        EXPECT_EQ(EPERM, OpenFromChild(conf + "resource.conf")) << "round " << round;
    }
    EXPECT_GT(TestUtil::CountEntries(logs.c_str()), 2) << "the log never rotated";
    EXPECT_EQ(40u, judge->Count());  // only the children's accesses were put to the judge
}

TEST_F(FanotifyTaskTest, NotifyEventsCarryTheActingProcess) {
    Poco::AutoPtr<RecordingConsumer> other(new RecordingConsumer("other"));
    Register(*judge);
    Register(*other);
    Framework::TaskRunner otherRunner(other.get());
    ASSERT_EQ(0, judgeRunner.Start());
    ASSERT_EQ(0, otherRunner.Start());
    ASSERT_EQ(0, task->Init());
    const unsigned int mask = FAN_MODIFY | FAN_CLOSE_WRITE;
    Engine::_FileNotifyOpt opt = Options(mask, true);
    opt.fillStat = true;
    int wd = 0;
    ASSERT_EQ(0, task->AddNotifyWatch(judge->GetTaskId(), dir.path(), mask, opt, wd));
    EXPECT_EQ(Engine::FileFanotifyWatch::kFirstWatchId, wd);
    int otherWd = 0;
    ASSERT_EQ(0, task->AddNotifyWatch(other->GetTaskId(), dir.path(), FAN_OPEN, Options(FAN_OPEN, true), otherWd));
    EXPECT_EQ(wd, otherWd);  // one path, one watch
    EXPECT_EQ(1, task->AddNotifyWatch(judge->GetTaskId(), dir.path(), mask, opt, wd));
    TestUtil::MakeDir(dir / "sub");
    EXPECT_EQ(1, task->AddNotifyWatch(other->GetTaskId(), dir / "sub/", mask, opt, otherWd));

    std::ofstream(dir / "file") << "x";
    while (task->GetEventWaiter().WaitAndHandleEvent(0, 128) > 0) {
    }
    // The kernel merges events on one file that wait in the queue together;
    // both consumers of the one mark are told, each of what it asked for.
    const auto seen = [](RecordingConsumer& consumer) {
        unsigned int all = 0;
        for (const auto& e : consumer.Events())
            all |= e.mask;
        return all;
    };
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return (seen(*judge) & mask) == mask && (seen(*other) & FAN_OPEN) != 0; }))
        << seen(*judge) << " " << seen(*other);
    char exe[4096] = {};
    ASSERT_GT(::readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
    for (const auto& e : judge->Events()) {
        EXPECT_EQ(1, e.notifyType);
        EXPECT_EQ(dir / "file", e.path);
        EXPECT_EQ(static_cast<unsigned int>(::getpid()), e.pid);
        EXPECT_EQ(std::string(exe), e.exe);
        EXPECT_TRUE(e.statValid);
        EXPECT_EQ(wd, e.watchId);
    }
    task->UnInit();
}

}  // namespace
