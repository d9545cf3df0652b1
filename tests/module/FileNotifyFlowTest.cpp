#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/Event.h>

#include "ChildProcess.h"
#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyTask.h"
#include "FileNotifyWatchMessage.h"
#include "LogCapture.h"
#include "RecordingConsumer.h"
#include "TestUtil.h"
#include "framework/TaskRunner.h"

using std::chrono::milliseconds;
using TestUtil::RecordingConsumer;

namespace {

constexpr unsigned int kOverflow = Engine::FileNotifyMessage::kOverflowMask;

// The module's task with consumers that can pause, on a tmpfs folder.
class FlowTest : public ::testing::Test {
protected:
    // Starts the task; its instances get a kernel queue of `queued` events
    // (the limit is read when an instance is made).
    void StartModule(int queued, const char* setting = "/proc/sys/fs/inotify/max_queued_events") {
        {
            TestUtil::ScopedSysctl limit(setting, queued);
            if (!limit.ok()) GTEST_SKIP() << limit.reason();
            task = new Engine::FileNotifyTask();
        }
        moduleRunner = std::make_unique<Framework::TaskRunner>(task.get());
        ASSERT_EQ(0, moduleRunner->Start());
    }
    void TearDown() override {
        gate.set();  // a paused consumer must be able to stop
        if (moduleRunner) moduleRunner->Stop();
    }
    Poco::AutoPtr<RecordingConsumer> Consumer(const std::string& name, int capacity, bool start = true) {
        Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer(name, capacity));
        consumer->Publish();  // reachable also while not started
        consumer->AddConsumer(task->GetTaskId(), "f", task.get());
        runners.push_back(std::make_unique<Framework::TaskRunner>(consumer.get()));
        if (start) runners.back()->Start();
        return consumer;
    }
    // A consumer whose handler waits at the gate: it stops taking from its queue.
    void Pause(RecordingConsumer& consumer) {
        consumer.onEvent = [this](const Engine::FileNotifyMessage&) { gate.wait(); };
    }
    int Watch(RecordingConsumer& consumer, const std::string& path, unsigned int mask, bool recursive = false,
              bool inotifyOnly = true) {
        Engine::_FileNotifyOpt opt;
        opt.watchChildFolder = recursive;
        opt.inotifyOnly = inotifyOnly;
        opt.simulateCreate = false;
        std::string reply;
        // Sent from this thread: a paused consumer's own thread is busy.
        return consumer.SyncSendMsg(task->GetTaskId(), "f",
                                    new Engine::FileNotifyWatchMessage(&consumer, path, {mask}, opt), reply, 10000, 1);
    }
    // Makes files until the paused consumer's queue is congested (it takes
    // up to 64 at once before it handles the first), then `more` files that
    // overflow the kernel's queue, then the folder `lost` when asked.
    void FillThenOverflow(RecordingConsumer& consumer, int more, bool folder = false) {
        int made = 0;
        ASSERT_TRUE(TestUtil::WaitUntil([&] {
            if (made < 1000) std::ofstream(dir / ("before" + std::to_string(made++))) << "x";
            return consumer.GetQueuedMsgCount() >= 12;
        }));
        for (int i = 0; i < more; ++i)
            std::ofstream(dir / ("during" + std::to_string(i))) << "x";
        if (folder) TestUtil::MakeDir(dir / "lost");
    }
    bool WaitForOverflow(RecordingConsumer& consumer, int notifyType) {
        return consumer.WaitForEvent(
            [&](const auto& e) { return e.mask == kOverflow && e.lost == 0 && e.notifyType == notifyType; });
    }
    static std::vector<std::string> Names(RecordingConsumer& consumer, const std::string& folder) {
        std::vector<std::string> names;
        for (const auto& e : consumer.Events())
            names.push_back((e.mask & kOverflow) != 0 ? "(lost " + std::to_string(e.lost) + ")"
                                                      : e.path.substr(folder.size()) + " " + std::to_string(e.mask));
        return names;
    }

    TestUtil::LogCapture log{Engine::GetLoggerPtr()};
    TestUtil::TempDir dir{"/dev/shm"};
    Poco::AutoPtr<Engine::FileNotifyTask> task;
    std::unique_ptr<Framework::TaskRunner> moduleRunner;
    std::vector<std::unique_ptr<Framework::TaskRunner>> runners;
    Poco::Event gate{false};
};

TEST_F(FlowTest, APausedConsumerGetsEveryEventInOrderAndRequestsAreStillAnswered) {
    constexpr int kFiles = 100000;  // a create and a delete each
    StartModule(3 * kFiles);
    auto a = Consumer("flow_paused", 4096);
    auto b = Consumer("flow_other", 64);
    Pause(*a);
    ASSERT_EQ(0, Watch(*a, dir.path(), IN_CREATE | IN_DELETE));
    std::vector<std::string> expected;
    for (int i = 0; i < kFiles; ++i) {
        const std::string name = "f" + std::to_string(i);
        TestUtil::Touch(dir / name);
        ASSERT_EQ(0, ::unlink((dir / name).c_str()));
        expected.push_back(name + " " + std::to_string(IN_CREATE));
        expected.push_back(name + " " + std::to_string(IN_DELETE));
    }
    // Far more than the paused queue holds: the rest waits in the kernel,
    // and the module goes on serving requests meanwhile.
    EXPECT_EQ(0, Watch(*b, dir / "", IN_ATTRIB));
    gate.set();
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return a->Count() >= expected.size(); }, milliseconds(60000))) << a->Count();
    EXPECT_TRUE(Names(*a, dir.path()) == expected) << "not every event, or not in order";
    EXPECT_EQ(0u, a->GetDroppedMsgCount());
}

TEST_F(FlowTest, AConsumerThatNeverReadsDoesNotHoldTheOthersBackAndLearnsWhatItLost) {
    constexpr int kFiles = 3000;
    StartModule(16384);
    auto a = Consumer("flow_reader", 4096);
    auto stalled = Consumer("flow_never", 64, false);
    ASSERT_EQ(0, Watch(*a, dir.path(), IN_CREATE));
    ASSERT_EQ(0, Watch(*stalled, dir.path(), IN_CREATE));
    for (int i = 0; i < kFiles; ++i)
        TestUtil::Touch(dir / std::to_string(i));
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return a->Count() >= kFiles; }, milliseconds(30000))) << a->Count();
    EXPECT_EQ(static_cast<std::size_t>(kFiles), a->Count());
    EXPECT_TRUE(log.Has(Engine::LOG_WARNING, "consumer task " + std::to_string(stalled->GetTaskId()) +
                                                 " has taken nothing from its queue for 2000 ms: its events are "
                                                 "dropped until it reads again"))
        << log.Dump();

    ASSERT_EQ(0, runners.back()->Start());
    ASSERT_TRUE(TestUtil::WaitUntil([&] {
        const auto events = stalled->Events();
        return !events.empty() && (events.back().mask & kOverflow) != 0;
    })) << ::testing::PrintToString(Names(*stalled, dir.path()));
    const auto events = stalled->Events();
    EXPECT_EQ(static_cast<unsigned long long>(kFiles), events.size() - 1 + events.back().lost)
        << "events received and lost must add up";
    EXPECT_GT(events.back().lost, 0u);
}

TEST_F(FlowTest, KernelOverflowReachesTheConsumerAndTheTreeIsWalkedAgain) {
    StartModule(64);
    auto a = Consumer("flow_overflow", 16);
    Pause(*a);
    ASSERT_EQ(0, Watch(*a, dir.path(), IN_CREATE, true));
    // The paused consumer fills its queue, the module stops reading, and
    // the kernel's small queue overflows while a folder comes and fills.
    FillThenOverflow(*a, 100, true);
    gate.set();
    ASSERT_TRUE(WaitForOverflow(*a, 0)) << ::testing::PrintToString(Names(*a, dir.path()));
    EXPECT_TRUE(log.Has(Engine::LOG_ERROR, "IN_Q_OVERFLOW inotify queue overflow"));
    // The folder made in the lost window is watched now.
    TestUtil::Touch(dir / "lost/after");
    EXPECT_TRUE(a->WaitForEvent([&](const auto& e) { return e.path == dir / "lost/after" && e.mask == IN_CREATE; }))
        << ::testing::PrintToString(Names(*a, dir.path()));
}

TEST_F(FlowTest, FanotifyOverflowReachesTheConsumer) {
    if (!TestUtil::FanotifyMissing().empty()) GTEST_SKIP() << TestUtil::FanotifyMissing();
    StartModule(64, "/proc/sys/fs/fanotify/max_queued_events");
    auto a = Consumer("flow_fanotify_overflow", 16);
    Pause(*a);
    ASSERT_EQ(0, Watch(*a, dir.path(), FAN_CLOSE_WRITE, true, false));
    FillThenOverflow(*a, 200);
    gate.set();
    ASSERT_TRUE(WaitForOverflow(*a, 1)) << ::testing::PrintToString(Names(*a, dir.path()));
    EXPECT_TRUE(log.Has(Engine::LOG_ERROR, "fanotify queue overflow"));
}

TEST_F(FlowTest, EveryRenameIsOneEventAlsoUnderAFlood) {
    constexpr int kRenames = 10000;
    StartModule(1 << 20);
    auto a = Consumer("flow_renames", 4096);
    ASSERT_EQ(0, Watch(*a, dir.path(), IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO));
    for (bool flood : {false, true}) {
        pid_t flooder = -1;
        if (flood) {
            flooder = ::fork();
            if (flooder == 0) {
                for (int i = 0; i < 4 * kRenames; ++i) {
                    const std::string path = dir / ("flood" + std::to_string(i));
                    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
                    if (fd >= 0) ::close(fd);
                }
                ::_exit(0);
            }
        }
        // Written, then renamed: the module is often woken by the write and
        // reads while the rename happens, so its halves can fall into two reads.
        const std::string tag = flood ? "b" : "a";
        for (int i = 0; i < kRenames; ++i) {
            const std::string from = dir / (tag + std::to_string(i));
            // Without the flood, each rename waits until the write has
            // reached the consumer: the module is idle, the rename wakes it.
            const std::size_t before = a->Count();
            std::ofstream(from) << "x";
            while (!flood && a->Count() == before)
                std::this_thread::yield();
            TestUtil::Rename(from, from + ".renamed");
        }
        if (flooder > 0) ::waitpid(flooder, nullptr, 0);
    }
    // One more rename marks the end: nothing may follow the ones counted.
    TestUtil::Rename(dir / "a0.renamed", dir / "last");
    ASSERT_TRUE(TestUtil::WaitUntil([&] {
        const auto events = a->Events();
        return !events.empty() && events.back().movetoFile == dir / "last";
    }));
    int renames = 0;
    int split = 0;
    for (const auto& e : a->Events()) {
        if ((e.mask & (IN_MOVED_FROM | IN_MOVED_TO)) == 0) continue;
        ++(e.movetoFile.empty() ? split : renames);
    }
    EXPECT_EQ(0, split) << "halves of renames delivered alone";
    EXPECT_EQ(2 * kRenames + 1, renames);
}

}  // namespace
