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

TEST(FileNotifyTask, RegisteredConsumerReceivesFileEvents) {
    Poco::AutoPtr<Engine::FileNotifyTask> task(new Engine::FileNotifyTask());
    Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer());
    Framework::TaskRunner consumerRunner(consumer.get());
    ASSERT_EQ(0, consumerRunner.Start());

    TestUtil::LogCapture log(Engine::FileNotifyUtils::GetLoggerPtr());
    EXPECT_EQ(0, task->AddFileNotifyMsgConsumer(consumer->GetTaskId(), nullptr));
    EXPECT_TRUE(log.Has(Engine::LOG_ERROR, "watcher is NULL taskId=" + std::to_string(consumer->GetTaskId())))
        << log.Dump();
    EXPECT_EQ(Framework::MSG_ERR_UNKNOWN_TASK,
              task->SendMsg(consumer->GetTaskId(), "f", new Engine::FileNotifyMessage(0, "/tmp/x/", 0x100)));

    ASSERT_EQ(0, task->AddFileNotifyMsgConsumer(consumer->GetTaskId(), consumer.get()));
    EXPECT_TRUE(log.Has(Engine::LOG_DEBUG,
                        "AddFileNotifyMsgConsumer AddConsumer taskId=" + std::to_string(consumer->GetTaskId())));
    EXPECT_EQ(0,
              task->AddFileNotifyMsgConsumer(consumer->GetTaskId(), consumer.get()));  // every request registers again
    ASSERT_EQ(0, task->SendMsg(consumer->GetTaskId(), "f", new Engine::FileNotifyMessage(0, "/tmp/x/", 0x100)));
    ASSERT_EQ(0, task->SendMsg(consumer->GetTaskId(), "f", new Engine::FileNotifyMessage(1, "/tmp/y", 0x2)));
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return consumer->Count() == 2; }));
    EXPECT_EQ((std::vector<std::string>{"/tmp/x 0x100", "/tmp/y 0x2"}), consumer->Summary());
}
