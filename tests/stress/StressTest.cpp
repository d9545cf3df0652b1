#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>

#include "ChildProcess.h"
#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyTask.h"
#include "FileNotifyWatchMessage.h"
#include "HeldThread.h"
#include "InotifyTestUtil.h"
#include "LogCapture.h"
#include "MixedTask.h"
#include "RecordingConsumer.h"
#include "TestUtil.h"
#include "framework/TaskRunner.h"

using TestUtil::OpeningChild;
using TestUtil::RecordingConsumer;

namespace {

// Denies the files whose names end in ".key"; allows everything else.
class KeyJudge : public Engine::MixedTask {
public:
    KeyJudge() : Engine::MixedTask("key_judge", "test", Framework::TaskCondition::TASK_TYPE_EVENT, 1 << 14) {}
    int Run() override { return ServeMessages(3000); }
    int FileNotifyMessageAction(Engine::FileNotifyMessage* msg) override {
        const std::string path = msg->GetEventFilePath();
        return path.size() > 4 && path.compare(path.size() - 4, 4, ".key") == 0 ? 2 : 0;
    }

protected:
    ~KeyJudge() override = default;
};

// The module task with its consumers, all running on their own threads. A
// test places its watches on the test thread before it starts the module.
class StressTest : public ::testing::Test {
protected:
    // A running consumer registered with the module.
    RecordingConsumer& AddConsumer(const std::string& name) {
        consumers.emplace_back(new RecordingConsumer(name, 1 << 16));
        runners.push_back(std::make_unique<Framework::TaskRunner>(consumers.back().get()));
        EXPECT_EQ(0, runners.back()->Start());
        EXPECT_EQ(0, task->AddFileNotifyMsgConsumer(consumers.back()->GetTaskId(), consumers.back().get()));
        return *consumers.back();
    }
    // A running judge of the module's permission events, guarding folder.
    KeyJudge& Guard(const std::string& folder) {
        judge = new KeyJudge();
        judgeRunner = std::make_unique<Framework::TaskRunner>(judge.get());
        EXPECT_EQ(0, judgeRunner->Start());
        EXPECT_EQ(0, task->AddFileNotifyMsgConsumer(judge->GetTaskId(), judge.get()));
        Engine::_FileNotifyOpt opt;
        opt.watchChildFolder = true;
        opt.permit = true;
        int wd = 0;
        EXPECT_EQ(0, task->AddPermitWatch(judge->GetTaskId(), folder, FAN_OPEN_PERM, opt, wd));
        return *judge;
    }

    TestUtil::TempDir dir;
    Poco::AutoPtr<Engine::FileNotifyTask> task{new Engine::FileNotifyTask()};
    std::vector<Poco::AutoPtr<RecordingConsumer>> consumers;
    std::vector<std::unique_ptr<Framework::TaskRunner>> runners;  // stop before the consumers go
    Poco::AutoPtr<KeyJudge> judge;
    std::unique_ptr<Framework::TaskRunner> judgeRunner;
    Framework::TaskRunner taskRunner{task.get()};  // declared last: stops first
};

// Ten consumers with their own masks on one tree while files are made,
// written, renamed and deleted in four folders: each gets exactly the events
// its mask asks for, no more, no fewer, and nothing is lost.
TEST_F(StressTest, TenConsumersOnOneTreeEachGetExactlyTheirEvents) {
    constexpr int kFolders = 4;
    constexpr int kFiles = 500;  // per folder
    const std::array<unsigned int, 10> masks = {
        IN_CREATE,
        IN_DELETE,
        IN_MOVED_FROM | IN_MOVED_TO,
        IN_CREATE | IN_DELETE,
        IN_CLOSE_WRITE,
        IN_ALL_EVENTS,
        IN_ATTRIB,
        IN_DELETE | IN_CLOSE_WRITE,
        IN_MODIFY,
        IN_OPEN | IN_MOVED_TO,
    };
    for (int f = 0; f < kFolders; ++f)
        TestUtil::MakeDir(dir / ("d" + std::to_string(f)));
    for (std::size_t i = 0; i < masks.size(); ++i) {
        RecordingConsumer& consumer = AddConsumer("consumer" + std::to_string(i));
        int id = 0;
        ASSERT_EQ(0, task->AddInotifyWatch(consumer.GetTaskId(), dir.path(), masks[i],
                                           TestUtil::InotifyOptions(masks[i], true), id));
    }
    ASSERT_EQ(0, taskRunner.Start());
    for (int n = 0; n < kFiles; ++n) {
        for (int f = 0; f < kFolders; ++f) {
            const std::string file = dir / ("d" + std::to_string(f) + "/f" + std::to_string(n));
            std::ofstream(file) << "x";
            TestUtil::Rename(file, file + ".r");
            ASSERT_EQ(0, ::unlink((file + ".r").c_str()));
        }
    }
    // Every mask sees some step of this after all of the above.
    const std::string sentinel = dir / "d0/sentinel";
    std::ofstream(sentinel) << "x";
    ASSERT_EQ(0, ::chmod(sentinel.c_str(), 0600));
    TestUtil::Rename(sentinel, sentinel + ".r");
    ASSERT_EQ(0, ::unlink((sentinel + ".r").c_str()));
    // One of each per file; a rename arrives as one merged event.
    const std::map<unsigned int, int> perFile = {{IN_CREATE, 1},      {IN_OPEN, 1}, {IN_MODIFY, 1},
                                                 {IN_CLOSE_WRITE, 1}, {IN_MOVE, 1}, {IN_DELETE, 1}};
    for (std::size_t i = 0; i < masks.size(); ++i) {
        RecordingConsumer& consumer = *consumers[i];
        ASSERT_TRUE(consumer.WaitForEvent([](const auto& e) { return e.path.find("sentinel") != std::string::npos; },
                                          std::chrono::milliseconds(30000)))
            << "consumer " << i;
        int expected = 0;
        for (const auto& [bits, count] : perFile)
            expected += (bits & masks[i]) != 0 ? count * kFolders * kFiles : 0;
        int got = 0;
        for (const auto& e : consumer.Events()) {
            if (e.path.find("sentinel") != std::string::npos) continue;
            EXPECT_NE(0U, e.mask & masks[i] & IN_ALL_EVENTS) << "consumer " << i << " got " << std::hex << e.mask;
            EXPECT_EQ(0ULL, e.lost) << "consumer " << i;
            ++got;
        }
        EXPECT_EQ(expected, got) << "consumer " << i << " mask " << std::hex << masks[i];
    }
}

// What one opening child saw, written to its pipe.
struct OpenerReport {
    int wrong = 0;  // opens allowed that should be denied, or the other way round
    std::chrono::steady_clock::duration slowest{};
};

// The number the next descriptor would get: the limit is checked against it.
int LowestFreeDescriptor() {
    const int fd = ::dup(0);
    if (fd >= 0) ::close(fd);
    return fd;
}

// Asks the module, as consumer would, to watch tree recursively; the reply
// (the watch id, "-1" when refused), or "none" when nothing came back.
std::string WatchTree(Framework::Task& consumer, const std::string& tree) {
    std::string reply = "none";
    consumer.SyncSendMsg(
        static_cast<unsigned long>(Framework::Task::FindTaskIdByName("filenotify_task")), "f",
        new Engine::FileNotifyWatchMessage(&consumer, tree, {IN_CREATE}, TestUtil::InotifyOptions(IN_CREATE, true)),
        reply, 5000, 1);
    return reply;
}

// Eight processes open guarded files 2,000 times each, half of them denied:
// every access is answered, rightly, and none waits past its deadline.
TEST_F(StressTest, EightProcessesOpeningGuardedFilesGetTheirVerdictsInTime) {
    const std::string missing = TestUtil::FanotifyMissing();
    if (!missing.empty()) GTEST_SKIP() << missing;
    constexpr int kChildren = 8;
    constexpr int kOpens = 2000;
    const std::string ok = dir / "a.ok";
    const std::string key = dir / "s.key";
    TestUtil::Touch(ok);
    TestUtil::Touch(key);
    Guard(dir.path());
    ASSERT_EQ(0, taskRunner.Start());
    std::vector<std::pair<pid_t, int>> children;
    for (int c = 0; c < kChildren; ++c) {
        int out[2];
        ASSERT_EQ(0, ::pipe2(out, O_CLOEXEC));
        const pid_t pid = ::fork();
        if (pid == 0) {
            OpenerReport report;
            for (int i = 0; i < kOpens; ++i) {
                const bool denied = i % 2 == 1;
                const auto start = std::chrono::steady_clock::now();
                const int fd = ::open(denied ? key.c_str() : ok.c_str(), O_RDONLY | O_CLOEXEC);
                report.slowest = std::max(report.slowest, std::chrono::steady_clock::now() - start);
                report.wrong += (denied ? fd >= 0 || errno != EPERM : fd < 0) ? 1 : 0;
                if (fd >= 0) ::close(fd);
            }
            ::_exit(::write(out[1], &report, sizeof report) == sizeof report ? 0 : 1);
        }
        ::close(out[1]);
        ASSERT_GT(pid, 0);
        children.emplace_back(pid, out[0]);
    }
    for (const auto& [pid, result] : children) {
        OpenerReport report;
        // Blocks until the child has written or died: each open is answered
        // within its deadline, so this ends.
        const bool read = ::read(result, &report, sizeof report) == sizeof report;
        ::close(result);
        int status = 0;
        ::waitpid(pid, &status, 0);
        ASSERT_TRUE(read) << "child " << pid << " reported nothing";
        EXPECT_EQ(0, report.wrong) << "child " << pid;
        // The deadline is a second from when the access is read.
        EXPECT_LT(report.slowest, std::chrono::milliseconds(1200)) << "child " << pid;
    }
}

// The root moved away, deleted and made again 100 times while its tree
// changes, with nothing else to turn the module's loop: watched again every
// time within about a second (the simulated creation says so), and the
// process's descriptors, threads and kernel watches are back where they were.
TEST_F(StressTest, ARootMadeAgainAHundredTimesLeavesNothingBehind) {
    const std::string root = dir / "r/";
    const std::string rootName = dir / "r";
    TestUtil::MakeDir(root);
    RecordingConsumer& consumer = AddConsumer("root_watcher");
    const unsigned int mask = IN_CREATE | IN_MOVE_SELF;
    Engine::_FileNotifyOpt opt = TestUtil::InotifyOptions(mask, true);
    opt.simulateCreate = true;
    int id = 0;
    ASSERT_EQ(0, task->AddInotifyWatch(consumer.GetTaskId(), root, mask, opt, id));
    ASSERT_EQ(0, taskRunner.Start());
    const auto seen = [&](unsigned int bits, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
        return consumer.WaitForEvent([&](const auto& e) { return e.path == rootName && e.mask == (bits | IN_ISDIR); },
                                     timeout);
    };
    ASSERT_TRUE(seen(IN_CREATE));
    const long descriptors = TestUtil::CountEntries("/proc/self/fd");
    const long threads = TestUtil::CountEntries("/proc/self/task");
    {
        TestUtil::Churn churn(root);  // its thread counts while it runs
        for (int round = 0; round < 100; ++round) {
            consumer.Clear();
            // Moved away first: the churn would refill it during a removal in place.
            const std::string gone = dir / ("gone" + std::to_string(round));
            TestUtil::Rename(root, gone);
            // A churn step that looked its path up before the move may still
            // remove an entry under the removal's feet: try again then.
            std::error_code raced;
            for (int attempt = 0; attempt < 10 && std::filesystem::exists(gone); ++attempt)
                std::filesystem::remove_all(gone, raced);
            ASSERT_FALSE(std::filesystem::exists(gone)) << raced.message();
            ASSERT_TRUE(seen(IN_MOVE_SELF)) << "round " << round;
            TestUtil::MakeDir(root);
            ASSERT_TRUE(seen(IN_CREATE, std::chrono::milliseconds(3000))) << "round " << round;
        }
    }
    // Every event of the churn read: a file made now arrives after them.
    TestUtil::Touch(root + "settled");
    ASSERT_TRUE(consumer.WaitForPath(root + "settled"));
    EXPECT_EQ(TestUtil::CountFolders(root), TestUtil::KernelInotifyWatches());
    EXPECT_EQ(descriptors, TestUtil::CountEntries("/proc/self/fd"));
    EXPECT_EQ(threads, TestUtil::CountEntries("/proc/self/task"));
}

// Out of descriptors while a guard and a tree watch run: every held access
// is answered (the kernel denies what the reader cannot take), a request
// fails with its reason in the log, nothing crashes, and all works again
// once descriptors are free.
TEST_F(StressTest, OutOfDescriptorsEveryAccessIsAnsweredAndAllRecovers) {
    const std::string missing = TestUtil::FanotifyMissing();
    if (!missing.empty()) GTEST_SKIP() << missing;
    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    const std::string guarded = dir / "g/";
    const std::string tree = dir / "t/";
    TestUtil::MakeDir(guarded);
    TestUtil::Touch(guarded + "a.ok");
    TestUtil::MakeDir(tree);
    for (int i = 0; i < 20; ++i)
        TestUtil::MakeDir(tree + "s" + std::to_string(i));
    Guard(guarded).AddConsumer(task->GetTaskId(), "f", task.get());
    ASSERT_EQ(0, taskRunner.Start());

    // The children open before the limit is lowered: only this process runs short.
    rlimit saved{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &saved));
    std::vector<std::unique_ptr<OpeningChild>> children;
    {
        rlimit tight = saved;
        tight.rlim_cur = static_cast<rlim_t>(LowestFreeDescriptor()) + 2;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &tight));
        TestUtil::AtScopeEnd restore([&] { ::setrlimit(RLIMIT_NOFILE, &saved); });
        // Each access is answered: allowed, or denied by the kernel when the
        // reader could not take its descriptor.
        for (int i = 0; i < 8; ++i)
            children.push_back(std::make_unique<OpeningChild>(guarded + "a.ok"));
        for (auto& child : children) {
            ASSERT_TRUE(child->Wait(std::chrono::milliseconds(5000))) << "an access was never answered";
            EXPECT_TRUE(child->result() == 0 || child->result() == EPERM) << child->result();
        }
        // Not one descriptor left: the walk cannot open the tree.
        tight.rlim_cur = static_cast<rlim_t>(LowestFreeDescriptor());
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &tight));
        EXPECT_EQ("-1", WatchTree(*judge, tree));
        const std::string said = "opendir " + tree + " failed, errno=" + std::to_string(EMFILE);
        EXPECT_TRUE(log.Has(Engine::LOG_DEBUG, said)) << log.Dump();
    }
    EXPECT_EQ(0, TestUtil::OpenFromChild(guarded + "a.ok"));
    EXPECT_NE("-1", WatchTree(*judge, tree)) << log.Dump();
}

// The inotify watches of all processes of the machine: the per-user limit
// must stay above what the others (the parallel tests) hold.
int AllInotifyWatches() {
    int count = 0;
    for (const auto& process : std::filesystem::directory_iterator("/proc"))
        count += process.path().filename().string().find_first_not_of("0123456789") == std::string::npos
                     ? TestUtil::KernelInotifyWatches(process.path())
                     : 0;
    return count;
}

// In a child of its own user, whose watches count apart from root's: a
// module watching a tree that grows past the watch limit. 0 when the
// consumer was told and an old watch still reports; else what went wrong.
int GrowPastTheLimit(const std::string& root, int folders) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 10;
    Poco::AutoPtr<Engine::FileNotifyTask> task(new Engine::FileNotifyTask());
    Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer("limited", 1 << 16));
    Framework::TaskRunner consumerRunner(consumer.get());
    if (consumerRunner.Start() != 0) return 11;
    task->AddFileNotifyMsgConsumer(consumer->GetTaskId(), consumer.get());
    int id = 0;
    if (task->AddInotifyWatch(consumer->GetTaskId(), root, IN_CREATE, TestUtil::InotifyOptions(IN_CREATE, true), id) !=
        0)
        return 12;
    Framework::TaskRunner taskRunner(task.get());
    if (taskRunner.Start() != 0) return 13;
    for (int i = 0; i < folders; ++i) {
        if (::mkdir((root + "grown" + std::to_string(i)).c_str(), 0755) != 0) return 14;
    }
    const auto has = [&](const std::function<bool(const RecordingConsumer::Event&)>& test) {
        return consumer->WaitForEvent(test, std::chrono::milliseconds(30000));
    };
    if (!has([](const auto& e) { return (e.mask & Engine::FileNotifyMessage::kWatchFailedMask) != 0; })) return 15;
    // A folder made while the kernel's queue is still full of the growth is
    // lost with the overflow: another is made until one is told.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (int n = 0; std::chrono::steady_clock::now() < deadline; ++n) {
        const std::string late = root + "old/late" + std::to_string(n);
        if (::mkdir(late.c_str(), 0755) != 0) return 16;
        if (consumer->WaitForEvent([&](const auto& e) { return e.path == late; }, std::chrono::seconds(2))) return 0;
    }
    return 17;
}

// The inotify watch limit reached at run time: the consumer is told, and
// the watches it has go on working.
TEST(StressLimits, TheWatchLimitReachedWhileATreeGrowsIsToldAndOldWatchesWork) {
    TestUtil::TempDir dir;
    TestUtil::MakeDir(dir / "old");
    ASSERT_EQ(0, ::chmod(dir.path().c_str(), 0777));
    ASSERT_EQ(0, ::chmod((dir / "old").c_str(), 0777));
    const int limit = AllInotifyWatches() + 2000;
    TestUtil::ScopedSysctl lowered("/proc/sys/fs/inotify/max_user_watches", limit);
    if (!lowered.ok()) GTEST_SKIP() << lowered.reason();
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(GrowPastTheLimit(dir.path(), limit + 500));
    ASSERT_GT(pid, 0);
    int status = -1;
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; },
                                    std::chrono::milliseconds(120000)));
    ASSERT_TRUE(WIFEXITED(status));
    // 15: nobody was told; 17: the old watch went quiet.
    EXPECT_EQ(0, WEXITSTATUS(status));
}

}  // namespace
