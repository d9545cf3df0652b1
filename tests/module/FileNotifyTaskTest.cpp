#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>

#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyTask.h"
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
