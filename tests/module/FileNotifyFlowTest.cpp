#include <fcntl.h>
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
    // A consumer that watches path for mask; a paused one waits at the gate
    // in its handler, so it stops taking from its queue.
    Poco::AutoPtr<RecordingConsumer> Consumer(const std::string& path, unsigned int mask, int capacity,
                                              bool paused = false, bool recursive = false, bool inotifyOnly = true) {
        Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer("flow", capacity));
        if (paused) consumer->onEvent = [this](const Engine::FileNotifyMessage&) { gate.wait(); };
        consumer->Publish();  // reachable also while not started
        consumer->AddConsumer(task->GetTaskId(), "f", task.get());
        runners.push_back(std::make_unique<Framework::TaskRunner>(consumer.get()));
        EXPECT_EQ(0, runners.back()->Start());
        Engine::_FileNotifyOpt opt;
        opt.watchChildFolder = recursive;
        opt.inotifyOnly = inotifyOnly;
        opt.simulateCreate = false;
        std::string reply;
        // Sent from this thread: a paused consumer's own thread is busy.
        EXPECT_EQ(0, consumer->SyncSendMsg(task->GetTaskId(), "f",
                                           new Engine::FileNotifyWatchMessage(consumer.get(), path, {mask}, opt), reply,
                                           10000, 1));
        return consumer;
    }
    // Makes files until the paused consumer's queue is congested (it takes
    // up to 64 at once before it handles the first), then `more` files that
    // overflow the kernel's queue; opens the gate, and waits for the report.
    bool Overflow(RecordingConsumer& consumer, int more, int notifyType, const char* logged) {
        int made = 0;
        EXPECT_TRUE(TestUtil::WaitUntil([&] {
            if (made < 1000) std::ofstream(dir / ("before" + std::to_string(made++))) << "x";
            return consumer.GetQueuedMsgCount() >= 12;
        }));
        for (int i = 0; i < more; ++i)
            std::ofstream(dir / ("during" + std::to_string(i))) << "x";
        if (notifyType == 0) TestUtil::MakeDir(dir / "lost");
        gate.set();
        const bool told = consumer.WaitForEvent(
            [&](const auto& e) { return e.mask == kOverflow && e.lost == 0 && e.notifyType == notifyType; });
        EXPECT_TRUE(log.Has(Engine::LOG_ERROR, logged)) << log.Dump();
        return told;
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
    auto a = Consumer(dir.path(), IN_CREATE | IN_DELETE, 4096, true);
    std::vector<std::string> expected;
    for (int i = 0; i < kFiles; ++i) {
        const std::string name = "f" + std::to_string(i);
        TestUtil::Touch(dir / name);
        ASSERT_EQ(0, ::unlink((dir / name).c_str()));
        expected.push_back(dir / name + " 0x100");
        expected.push_back(dir / name + " 0x200");
    }
    // Far more than the paused queue holds: the rest waits in the kernel,
    // and the module goes on serving requests meanwhile.
    Consumer(dir / "", IN_ATTRIB, 64);
    gate.set();
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return a->Count() >= expected.size(); }, milliseconds(60000))) << a->Count();
    EXPECT_TRUE(a->Summary() == expected) << "not every event, or not in order";
    EXPECT_EQ(0u, a->GetDroppedMsgCount());
}

TEST_F(FlowTest, AConsumerThatNeverReadsDoesNotHoldTheOthersBackAndLearnsWhatItLost) {
    constexpr int kFiles = 3000;
    StartModule(16384);
    auto a = Consumer(dir.path(), IN_CREATE, 4096);
    auto stalled = Consumer(dir.path(), IN_CREATE, 64, true);
    for (int i = 0; i < kFiles; ++i)
        TestUtil::Touch(dir / std::to_string(i));
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return a->Count() >= kFiles; }, milliseconds(30000))) << a->Count();
    EXPECT_EQ(static_cast<std::size_t>(kFiles), a->Count());
    EXPECT_TRUE(log.Has(Engine::LOG_WARNING, "consumer task " + std::to_string(stalled->GetTaskId()) +
                                                 " has taken nothing from its queue for 2000 ms: its events are "
                                                 "dropped until it reads again"))
        << log.Dump();
    gate.set();
    ASSERT_TRUE(TestUtil::WaitUntil([&] {
        const auto events = stalled->Events();
        return !events.empty() && (events.back().mask & kOverflow) != 0;
    })) << ::testing::PrintToString(stalled->Summary());
    const auto events = stalled->Events();
    EXPECT_EQ(static_cast<unsigned long long>(kFiles), events.size() - 1 + events.back().lost)
        << "events received and lost must add up";
    EXPECT_GT(events.back().lost, 0u);
}

// A paused consumer fills its queue, the module stops reading, and the
// kernel's small queue overflows; a folder made meanwhile is found by
// walking the tree again.
TEST_F(FlowTest, KernelOverflowReachesTheConsumerAndTheTreeIsWalkedAgain) {
    StartModule(64);
    auto a = Consumer(dir.path(), IN_CREATE, 16, true, true);
    ASSERT_TRUE(Overflow(*a, 100, 0, "IN_Q_OVERFLOW inotify queue overflow")) << ::testing::PrintToString(a->Summary());
    // The walk that follows the report watches the folder made meanwhile:
    // files are made there until one is told.
    int made = 0;
    EXPECT_TRUE(TestUtil::WaitUntil([&] {
        if (made < 1000) TestUtil::Touch(dir / ("lost/after" + std::to_string(made++)));
        return a->WaitForEvent([&](const auto& e) { return e.path.rfind(dir / "lost/after", 0) == 0; },
                               milliseconds(0));
    })) << ::testing::PrintToString(a->Summary());
}

TEST_F(FlowTest, FanotifyOverflowReachesTheConsumer) {
    if (!TestUtil::FanotifyMissing().empty()) GTEST_SKIP() << TestUtil::FanotifyMissing();
    StartModule(64, "/proc/sys/fs/fanotify/max_queued_events");
    auto a = Consumer(dir.path(), FAN_CLOSE_WRITE, 16, true, true, false);
    EXPECT_TRUE(Overflow(*a, 200, 1, "fanotify queue overflow")) << ::testing::PrintToString(a->Summary());
}

// Written, then renamed: the module is often woken by the write and reads
// while the rename happens, so its halves can fall into two reads; under a
// flood of creations they can fall at the end of a full read.
TEST_F(FlowTest, EveryRenameIsOneEventAlsoUnderAFlood) {
    constexpr int kRenames = 10000;
    StartModule(1 << 20);
    auto a = Consumer(dir.path(), IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO, 4096);
    for (bool flood : {false, true}) {
        const pid_t flooder = flood ? ::fork() : -1;
        if (flooder == 0) {
            for (int i = 0; i < 4 * kRenames; ++i)
                ::close(::open((dir / ("flood" + std::to_string(i))).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
            ::_exit(0);
        }
        for (int i = 0; i < kRenames; ++i) {
            const std::string from = dir / ((flood ? "b" : "a") + std::to_string(i));
            // Without the flood, the rename waits until the write has reached
            // the consumer: the module is idle, the rename wakes it.
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
        if ((e.mask & (IN_MOVED_FROM | IN_MOVED_TO)) != 0) ++(e.movetoFile.empty() ? split : renames);
    }
    EXPECT_EQ(0, split) << "halves of renames delivered alone";
    EXPECT_EQ(2 * kRenames + 1, renames);
}

}  // namespace
