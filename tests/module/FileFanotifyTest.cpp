#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
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
#include "LogCapture.h"
#include "RecordingConsumer.h"
#include "TestUtil.h"
#include "framework/TaskRunner.h"
#include "sdk/LoggerUtils.h"

using Engine::FileFanotify;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using TestUtil::OpenFromChild;
using TestUtil::OpeningChild;
using TestUtil::RecordingConsumer;

namespace {

Engine::_FileNotifyOpt Options(unsigned int mask) {
    Engine::_FileNotifyOpt opt;
    opt.watchChildFolder = true;
    opt.eventMasks = {mask};
    opt.combinedMask = mask;
    return opt;
}

// A record of an unknown version ends the walk, but not before what it and
// the records behind it hold is released: a waiting access goes on. (The
// fuzz target fanotify_records checks the walk on any bytes.)
TEST(FileFanotify, AnUnknownVersionAllowsTheAccessesBehindIt) {
    if (!TestUtil::FanotifyMissing().empty()) GTEST_SKIP() << TestUtil::FanotifyMissing();
    TestUtil::TempDir dir;
    TestUtil::Touch(dir / "file");
    FileFanotify group;
    ASSERT_EQ(0, group.Initialize(true));
    ASSERT_EQ(0, group.AddWatch(dir.path().c_str(), FAN_OPEN_PERM, Options(FAN_OPEN_PERM)));
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
    EXPECT_TRUE(::fcntl(unknown.fd, F_GETFD) < 0 && errno == EBADF) << "the unknown record's descriptor is open";
    ASSERT_TRUE(child.Wait(milliseconds(5000))) << "the access behind the record still waits";
    EXPECT_EQ(0, child.result());
}

// The module task with consumers, driven as the agent would drive it.
class FanotifyTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!TestUtil::FanotifyMissing().empty()) GTEST_SKIP() << TestUtil::FanotifyMissing();
    }
    // Reachable from now on, also a consumer that is never started.
    void Register(RecordingConsumer& consumer) {
        consumer.Publish();
        ASSERT_EQ(0, task->AddFileNotifyMsgConsumer(consumer.GetTaskId(), &consumer));
    }
    // A permission watch on the files of folder, answered by taskId.
    void Guard(int taskId, const std::string& folder, unsigned int mask = FAN_OPEN_PERM) {
        int wd = 0;
        ASSERT_EQ(0, task->AddPermitWatch(taskId, folder, mask, Options(mask), wd));
    }
    // The judge denies the files of folder; both tasks run.
    void GuardDenied(const std::string& folder) {
        judge->verdict = 2;
        Register(*judge);
        Guard(judge->GetTaskId(), folder);
        ASSERT_EQ(0, judgeRunner.Start());
        ASSERT_EQ(0, taskRunner.Start());
    }

    TestUtil::TempDir dir;
    Poco::AutoPtr<Engine::FileNotifyTask> task{new Engine::FileNotifyTask()};
    Poco::AutoPtr<RecordingConsumer> judge{new RecordingConsumer("judge")};
    Framework::TaskRunner judgeRunner{judge.get()};
    Framework::TaskRunner taskRunner{task.get()};  // declared last: stops first
};

// The consumer's verdict decides; one that throws gives none, and the
// access goes on. The permission reader asks the consumer itself, so a
// verdict does not wait for a busy module thread; at debug priority the
// module thread asks, to log each step, and a busy one lets the deadline
// allow the access.
TEST_F(FanotifyTaskTest, VerdictOfTheConsumerDecidesAndNeedsNoModuleThreadUnlessItLogsEachStep) {
    auto throwOnce = std::make_shared<std::atomic<bool>>(false);
    judge->onEvent = [throwOnce](const Engine::FileNotifyMessage&) {
        if (throwOnce->exchange(false)) throw std::runtime_error("judge failed");
    };
    TestUtil::Touch(dir / "file");
    ASSERT_NO_FATAL_FAILURE(GuardDenied(dir.path()));
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
    judge->verdict = 2;
    throwOnce->store(true);
    EXPECT_EQ(0, OpenFromChild(dir / "file"));
    EXPECT_EQ(EPERM, OpenFromChild(dir / "file"));

    TestUtil::HeldThread busy(*task);
    ASSERT_TRUE(busy.held);
    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    Engine::GetLoggerPtr()->setLevel(Poco::Message::PRIO_INFORMATION);
    EXPECT_EQ(EPERM, OpenFromChild(dir / "file"));
    const std::size_t judged = judge->Count();
    Engine::GetLoggerPtr()->setLevel(Poco::Message::PRIO_DEBUG);
    OpeningChild late(dir / "file");
    ASSERT_TRUE(late.Wait(milliseconds(5000)));
    EXPECT_EQ(0, late.result());
    busy.Release();
    const std::string allowed =
        "no time left to ask about the access of pid=" + std::to_string(late.pid()) + ": allowed";
    EXPECT_TRUE(TestUtil::WaitUntil([&] { return log.Has(Engine::LOG_DEBUG, allowed); })) << log.Dump();
    EXPECT_EQ(judged, judge->Count());
}

// The guard follows its folder through a rename; when the folder is deleted
// and made again at the path it was guarded by, it is guarded again, and the
// consumer is told both.
TEST_F(FanotifyTaskTest, GuardFollowsItsFolderAndComesBackWithItsPath) {
    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    const std::string guarded = dir / "G/";
    const std::string moved = dir / "H/";
    TestUtil::MakeDir(guarded);
    TestUtil::Touch(guarded + "s.key");
    ASSERT_NO_FATAL_FAILURE(GuardDenied(guarded));
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
    // Gone (FAN_DELETE_SELF), then guarded again (FAN_CREATE).
    const std::string report = "2 " + dir / "G " + guarded + " ";
    const std::vector<std::string> expected = {report + "1024", report + "256"};
    std::vector<std::string> reports;
    EXPECT_TRUE(TestUtil::WaitUntil([&] {
        reports.clear();
        for (const auto& e : judge->Events())
            if ((e.mask & Engine::kFanPermissionBits) == 0)
                reports.push_back(std::to_string(e.notifyType) + " " + e.path + " " + e.watchFile + " " +
                                  std::to_string(e.mask));
        return reports == expected;
    })) << ::testing::PrintToString(reports);
    // Every event found its record, and the deleted folder's mark was removed.
    EXPECT_EQ(0, log.Count(Engine::LOG_ERROR)) << log.Dump();
}

// Consumers that are unknown, never serve their queue, have a full one or
// answer late: each access is let through at its own deadline (eight held
// by the late one together take one deadline, not eight), the module's
// thread goes on, and a stop releases every access still waiting at once.
TEST_F(FanotifyTaskTest, SilentConsumersLetAccessesThroughEachAtItsDeadlineAndAStopAtOnce) {
    Poco::AutoPtr<RecordingConsumer> idle(new RecordingConsumer("idle"));     // never serves its queue
    Poco::AutoPtr<RecordingConsumer> full(new RecordingConsumer("full", 1));  // queue full, never served
    Poco::AutoPtr<RecordingConsumer> late(new RecordingConsumer("late"));     // answers after the time-out
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    late->verdict = 2;
    late->onEvent = [released](const Engine::FileNotifyMessage&) { released.wait(); };
    Framework::TaskRunner lateRunner(late.get());
    ASSERT_EQ(0, lateRunner.Start());
    for (auto* consumer : {idle.get(), full.get(), late.get(), judge.get()})
        Register(*consumer);
    const std::pair<const char*, int> guards[] = {{"unknown", 424242},
                                                  {"idle", idle->GetTaskId()},
                                                  {"full", full->GetTaskId()},
                                                  {"late", late->GetTaskId()},
                                                  {"judged", judge->GetTaskId()}};
    for (const auto& [name, taskId] : guards) {
        TestUtil::MakeDir(dir / name);
        TestUtil::Touch(dir / name + "/file");
        Guard(taskId, dir / name + "/");
    }
    ASSERT_EQ(0, task->SendMsg(full->GetTaskId(), "f", new Engine::FileNotifyMessage(0, "/filler", 0)));
    ASSERT_EQ(0, judgeRunner.Start());
    ASSERT_EQ(0, taskRunner.Start());
    for (const char* name : {"unknown", "idle", "full"})
        EXPECT_EQ(0, OpenFromChild(dir / name + "/file")) << name;
    // Eight accesses at once, each answered and allowed.
    std::vector<std::unique_ptr<OpeningChild>> children;
    const auto openAll = [&](const std::string& path) {
        children.clear();
        for (int i = 0; i < 8; ++i)
            children.push_back(std::make_unique<OpeningChild>(path));
    };
    const auto allAllowed = [&] {
        for (auto& child : children) {
            ASSERT_TRUE(child->Wait(milliseconds(5000)));
            EXPECT_EQ(0, child->result());
        }
    };
    auto start = steady_clock::now();
    openAll(dir / "late/file");
    allAllowed();
    EXPECT_LT(steady_clock::now() - start, milliseconds(3000));
    release.set_value();
    judge->verdict = 2;
    EXPECT_EQ(EPERM, OpenFromChild(dir / "judged/file"));

    const std::size_t queued = idle->GetQueuedMsgCount();
    openAll(dir / "idle/file");
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return idle->GetQueuedMsgCount() > queued; }));
    start = steady_clock::now();
    taskRunner.Stop();
    allAllowed();
    EXPECT_LT(steady_clock::now() - start, milliseconds(500));
}

// The agent's log rotates into one guarded folder and its configuration lies
// in another; the judge denies everything and first opens the file it
// judges. The module logs every event, so it writes there too.
TEST_F(FanotifyTaskTest, AgentNeverWaitsOnItsOwnMarks) {
    const std::string logs = dir / "logs/";
    const std::string conf = dir / "conf/";
    TestUtil::MakeDir(logs);
    TestUtil::MakeDir(conf);
    std::ofstream(conf + "resource.conf") << "inotify = 30\n";
    auto* logger = SDK::LoggerUtils::GetInstance();
    const int level = logger->GetLevel();
    const TestUtil::AtScopeEnd restore([&] {
        logger->UseConsole();
        logger->SetLevel(level);
    });
    logger->SetLevel(Poco::Message::PRIO_DEBUG);
    ASSERT_TRUE(logger->UseRotatingFile(logs + "agent.log", 4096, 2));
    judge->verdict = 2;
    judge->onEvent = [](const Engine::FileNotifyMessage& msg) {
        std::string line;
        std::getline(std::ifstream(msg.GetEventFilePath()), line);
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

// One path, one mark: a second consumer shares it, a repeated or covered
// path is refused, and the kernel merges events on one file that wait in
// the queue together; each consumer is told of what it asked for. (The
// acting process: FanotifyEndToEnd.)
TEST_F(FanotifyTaskTest, ConsumersShareOneMarkEachWithItsOwnEvents) {
    Poco::AutoPtr<RecordingConsumer> other(new RecordingConsumer("other"));
    Register(*judge);
    Register(*other);
    Framework::TaskRunner otherRunner(other.get());
    ASSERT_EQ(0, judgeRunner.Start());
    ASSERT_EQ(0, otherRunner.Start());
    ASSERT_EQ(0, task->Init());
    const unsigned int mask = FAN_MODIFY | FAN_CLOSE_WRITE;
    Engine::_FileNotifyOpt opt = Options(mask);
    opt.fillStat = true;
    int wd = 0;
    ASSERT_EQ(0, task->AddNotifyWatch(judge->GetTaskId(), dir.path(), mask, opt, wd));
    int otherWd = 0;
    ASSERT_EQ(0, task->AddNotifyWatch(other->GetTaskId(), dir.path(), FAN_OPEN, Options(FAN_OPEN), otherWd));
    EXPECT_EQ(wd, otherWd);
    EXPECT_EQ(1, task->AddNotifyWatch(judge->GetTaskId(), dir.path(), mask, opt, wd));
    TestUtil::MakeDir(dir / "sub");
    EXPECT_EQ(1, task->AddNotifyWatch(other->GetTaskId(), dir / "sub/", mask, opt, otherWd));

    std::ofstream(dir / "file") << "x";
    while (task->GetEventWaiter().WaitAndHandleEvent(0, 128) > 0) {
    }
    const auto seen = [](RecordingConsumer& consumer) {
        unsigned int all = 0;
        for (const auto& e : consumer.Events())
            all |= e.mask;
        return all;
    };
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return (seen(*judge) & mask) == mask && (seen(*other) & FAN_OPEN) != 0; }))
        << seen(*judge) << " " << seen(*other);
    for (const auto& e : judge->Events()) {
        EXPECT_EQ(dir / "file", e.path);
        EXPECT_TRUE(e.statValid);
        EXPECT_EQ(wd, e.watchId);
    }
    task->UnInit();
}

}  // namespace
