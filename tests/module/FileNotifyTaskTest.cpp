#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>

#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyTask.h"
#include "InotifyTestUtil.h"
#include "LogCapture.h"
#include "RecordingConsumer.h"
#include "TestUtil.h"
#include "framework/TaskRunner.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

using TestUtil::RecordingConsumer;

TEST(FileNotifyTask, StopsPromptlyDuringItsLongWait) {
    Poco::AutoPtr<Engine::FileNotifyTask> task(new Engine::FileNotifyTask());
    Framework::TaskRunner runner(task.get());
    ASSERT_EQ(0, runner.Start());
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return task->state() == Poco::Task::TASK_RUNNING; }));
    // Run sleeps in 3000 ms waits; the cancel must end it well before that.
    const auto start = steady_clock::now();
    runner.Stop();
    EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
    EXPECT_EQ(Poco::Task::TASK_FINISHED, task->state());
}

// A watched root deleted and made again while its tree changes, with
// nothing else to turn the task's loop: watched again every time within
// about a second (the simulated creation says so), and no kernel watch of
// the old roots stays behind.
TEST(FileNotifyTask, ARootMadeAgainIsWatchedAgainSoonAndLeavesNothingBehind) {
    TestUtil::TempDir dir;
    const std::string root = dir / "r/";
    const std::string rootName = dir / "r";
    TestUtil::MakeDir(root);
    Poco::AutoPtr<Engine::FileNotifyTask> task(new Engine::FileNotifyTask());
    Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer());
    Framework::TaskRunner consumerRunner(consumer.get());
    Framework::TaskRunner taskRunner(task.get());
    ASSERT_EQ(0, consumerRunner.Start());
    ASSERT_EQ(0, task->AddFileNotifyMsgConsumer(consumer->GetTaskId(), consumer.get()));
    const unsigned int mask = IN_CREATE | IN_DELETE_SELF;
    Engine::_FileNotifyOpt opt;
    opt.watchChildFolder = true;
    opt.eventMasks = {mask};
    opt.combinedMask = mask;
    opt.inotifyOnly = true;
    opt.simulateCreate = true;
    int id = 0;
    ASSERT_EQ(0, task->AddInotifyWatch(consumer->GetTaskId(), root, mask, opt, id));
    ASSERT_EQ(0, taskRunner.Start());
    const auto seen = [&](unsigned int bits) {
        const auto events = consumer->Events();
        return std::any_of(events.begin(), events.end(),
                           [&](const auto& e) { return e.path == rootName && e.mask == (bits | IN_ISDIR); });
    };
    TestUtil::Churn churn(root);
    for (int round = 0; round < 10; ++round) {
        consumer->Clear();
        // The churn may refill it between the steps of one removal.
        ASSERT_TRUE(TestUtil::WaitUntil([&] {
            std::error_code ignored;
            std::filesystem::remove_all(root, ignored);
            return !std::filesystem::exists(root);
        }));
        ASSERT_TRUE(TestUtil::WaitUntil([&] { return seen(IN_DELETE_SELF); })) << "round " << round;
        TestUtil::MakeDir(root);
        ASSERT_TRUE(TestUtil::WaitUntil([&] { return seen(IN_CREATE); }, std::chrono::milliseconds(3000)))
            << "round " << round;
    }
    churn.Stop();
    // Every event of the churn read: a file made now arrives after them.
    TestUtil::Touch(root + "settled");
    ASSERT_TRUE(TestUtil::WaitUntil([&] {
        const auto events = consumer->Events();
        return std::any_of(events.begin(), events.end(), [&](const auto& e) { return e.path == root + "settled"; });
    }));
    EXPECT_EQ(TestUtil::CountFolders(root), TestUtil::KernelInotifyWatches());
}
