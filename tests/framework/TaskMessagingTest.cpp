#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/Message.h>

#include "FrameworkTestUtil.h"
#include "LogCapture.h"
#include "TestUtil.h"
#include "framework/TaskRunner.h"
#include "sdk/LoggerUtils.h"

using namespace FrameworkTest;
using Framework::TaskRunner;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(TaskQueue, ManyProducersEveryMessageHandledOnce) {
    Probe probe;
    auto task = MakeServeTask("many_producers", 1 << 16);
    TaskRunner runner(task.get());
    ASSERT_EQ(0, runner.Start());
    constexpr int kThreads = 4, kEach = 5000;
    std::vector<std::thread> producers;
    std::atomic<int> refused{0};
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&] {
            for (int i = 0; i < kEach; ++i)
                if (task->EnqueueMsg(new ProbeMessage(probe)) != 0) ++refused;
        });
    }
    for (auto& p : producers)
        p.join();
    EXPECT_EQ(0, refused.load());
    EXPECT_TRUE(TestUtil::WaitUntil([&] { return probe.handled.load() == kThreads * kEach; }))
        << "handled " << probe.handled.load();
    runner.Stop();
    EXPECT_EQ(kThreads * kEach, probe.handled.load());
    EXPECT_EQ(kThreads * kEach, probe.destroyed.load());
    EXPECT_EQ(task->GetTaskId(), probe.lastHandlerTask.load());
}

TEST(TaskLifecycle, CancelEndsALongWaitPromptlyEvenBeforeTheThreadRuns) {
    for (bool early : {false, true}) {
        auto task = MakeServeTask("cancel", 64, 60000);
        if (early) task->cancel();  // POCO marks the task running after this: must not be lost
        TaskRunner runner(task.get());
        ASSERT_EQ(0, runner.Start());
        if (!early) {
            ASSERT_TRUE(TestUtil::WaitUntil([&] { return task->state() == Poco::Task::TASK_RUNNING; }));
        }
        const auto start = steady_clock::now();
        runner.Stop();
        EXPECT_LT(steady_clock::now() - start, milliseconds(2000)) << "early=" << early;
        EXPECT_EQ(Poco::Task::TASK_FINISHED, task->state());
    }
}

TEST(TaskSend, DeliversToRegisteredConsumerOnly) {
    Probe probe;
    auto sender = MakeServeTask("sender");
    auto consumer = MakeServeTask("consumer");
    EXPECT_EQ(Framework::MSG_ERR_UNKNOWN_TASK, sender->SendMsg(consumer->GetTaskId(), "f", new ProbeMessage(probe)));
    EXPECT_EQ(1, probe.destroyed.load());

    ASSERT_EQ(0, sender->AddConsumer(consumer->GetTaskId(), "f", consumer.get()));
    EXPECT_EQ(0, sender->AddConsumer(consumer->GetTaskId(), "f", consumer.get()));  // again: same receiver
    EXPECT_EQ(0, sender->SendMsg(consumer->GetTaskId(), "f", new ProbeMessage(probe)));
    EXPECT_EQ(Framework::MSG_ERR_UNKNOWN_TASK,
              sender->SendMsg(consumer->GetTaskId(), "other_type", new ProbeMessage(probe)));
    EXPECT_EQ(1u, consumer->GetQueuedMsgCount());
    EXPECT_EQ(1, consumer->BulkConsumeMsg(128));
    EXPECT_EQ(1, probe.handled.load());
    EXPECT_EQ(3, probe.destroyed.load());
}

TEST(TaskSend, ConsumerThatIsGoneFailsCleanly) {
    Probe probe;
    auto sender = MakeServeTask("sender_gone");
    int goneId = 0;
    {
        auto consumer = MakeServeTask("consumer_gone");
        goneId = consumer->GetTaskId();
        ASSERT_EQ(0, sender->AddConsumer(goneId, "f", consumer.get()));
    }
    EXPECT_EQ(Framework::MSG_ERR_UNKNOWN_TASK, sender->SendMsg(goneId, "f", new ProbeMessage(probe)));
    std::string reply;
    EXPECT_EQ(Framework::MSG_ERR_UNKNOWN_TASK,
              sender->SyncSendMsg(goneId, "f", new ProbeMessage(probe), reply, 100, 1));
    EXPECT_EQ(2, probe.destroyed.load());
}

class SyncSend : public ::testing::Test {
protected:
    void SetUp() override {
        sender = MakeServeTask("sync_sender");
        consumer = MakeServeTask("sync_consumer", 2);
        ASSERT_EQ(0, sender->AddConsumer(consumer->GetTaskId(), "f", consumer.get()));
    }
    Probe probe;
    Poco::AutoPtr<ServeTask> sender, consumer;
};

TEST_F(SyncSend, TimesOutWithinBoundAndLateHandlingIsSafe) {
    // Nobody drains the consumer's queue during the send.
    std::string reply = "stale";
    const auto start = steady_clock::now();
    EXPECT_EQ(Framework::MSG_ERR_TIMEOUT,
              sender->SyncSendMsg(consumer->GetTaskId(), "f", new ProbeMessage(probe, 2, "late"), reply, 100, 2));
    const auto waited = steady_clock::now() - start;
    EXPECT_GE(waited, milliseconds(100));
    EXPECT_LT(waited, milliseconds(2000));
    EXPECT_EQ("", reply);
    // The sender has given up; handling now must neither leak nor touch it.
    EXPECT_EQ(1, consumer->BulkConsumeMsg(16));
    EXPECT_EQ(1, probe.handled.load());
    EXPECT_EQ(1, probe.destroyed.load());
}

TEST_F(SyncSend, FullQueueIsRetriedWithinTheTimeout) {
    ASSERT_EQ(0, consumer->EnqueueMsg(new ProbeMessage(probe)));
    ASSERT_EQ(0, consumer->EnqueueMsg(new ProbeMessage(probe)));
    std::string reply;
    const auto start = steady_clock::now();
    EXPECT_EQ(Framework::MSG_ERR_QUEUE_FULL,
              sender->SyncSendMsg(consumer->GetTaskId(), "f", new ProbeMessage(probe), reply, 200, 3));
    EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
    EXPECT_EQ(1, probe.destroyed.load());
    EXPECT_EQ(1u, consumer->GetDroppedMsgCount());

    // A queue that drains while the sender tries gets the message through.
    std::thread drainer([&] {
        TaskRunner runner(consumer.get());
        runner.Start();
        TestUtil::WaitUntil([&] { return probe.handled.load() == 3; });
    });
    EXPECT_EQ(5, sender->SyncSendMsg(consumer->GetTaskId(), "f", new ProbeMessage(probe, 5, "ok"), reply, 3000, 4));
    EXPECT_EQ("ok", reply);
    drainer.join();
}

TEST_F(SyncSend, DroppedUnhandledReleasesTheSenderEarly) {
    auto doomed = MakeServeTask("sync_doomed", 4);
    const int id = doomed->GetTaskId();
    ASSERT_EQ(0, sender->AddConsumer(id, "g", doomed.get()));
    // The receiver is destroyed with the message still in its queue.
    std::thread destroyer([d = doomed]() mutable {
        TestUtil::WaitUntil([&] { return d->GetQueuedMsgCount() == 1; });
        d = nullptr;
    });
    doomed = nullptr;
    std::string reply;
    const auto start = steady_clock::now();
    EXPECT_EQ(Framework::MSG_ERR_NOT_HANDLED, sender->SyncSendMsg(id, "g", new ProbeMessage(probe), reply, 20000, 1));
    EXPECT_LT(steady_clock::now() - start, milliseconds(10000));
    destroyer.join();
    EXPECT_EQ(1, probe.destroyed.load());
    EXPECT_EQ(0, probe.handled.load());
}

TEST_F(SyncSend, ToItselfFailsAtOnce) {
    ASSERT_EQ(0, sender->AddConsumer(sender->GetTaskId(), "f", sender.get()));
    std::string reply;
    const auto start = steady_clock::now();
    EXPECT_EQ(Framework::MSG_ERR_SELF,
              sender->SyncSendMsg(sender->GetTaskId(), "f", new ProbeMessage(probe), reply, 5000, 1));
    EXPECT_LT(steady_clock::now() - start, milliseconds(1000));
    EXPECT_EQ(1, probe.destroyed.load());
}

TEST(TaskQueue, DropWarningsAreRateLimitedAndExactAtStop) {
    TestUtil::LogCapture log(SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false));
    Probe probe;
    auto task = MakeServeTask("flood", 1);
    task->EnqueueMsg(new ProbeMessage(probe));
    for (int i = 0; i < 2000; ++i)
        task->EnqueueMsg(new ProbeMessage(probe));
    EXPECT_EQ(2000u, task->GetDroppedMsgCount());
    EXPECT_EQ(2000, probe.destroyed.load());                             // refused messages are freed at once
    EXPECT_LE(log.Count(Poco::Message::PRIO_WARNING), 3) << log.Dump();  // one a second at most
    {
        TaskRunner runner(task.get());  // the end of the burst is reported when the task stops
        ASSERT_EQ(0, runner.Start());
        EXPECT_TRUE(TestUtil::WaitUntil([&] { return probe.handled.load() == 1; }));
    }
    unsigned long long sum = 0, recent = 0, total = 0;
    for (const std::string& text : log.Texts(Poco::Message::PRIO_WARNING)) {
        ASSERT_EQ(2, std::sscanf(text.c_str(),
                                 "task flood (id %*d): queue full at 1 messages, %llu dropped since the "
                                 "last report, %llu in all",
                                 &recent, &total))
            << text;
        sum += recent;
    }
    EXPECT_EQ(2000u, sum) << log.Dump();
    EXPECT_EQ(2000u, total) << log.Dump();
}

TEST(TaskFlow, TrySendKeepsWhatDoesNotFitAndTheReceiverSignalsWhenDrained) {
    Probe probe;
    auto sender = MakeServeTask("flow_sender");
    auto consumer = MakeServeTask("flow_consumer", 8);  // congested from 6, drained at 2
    ASSERT_EQ(0, sender->AddConsumer(consumer->GetTaskId(), "f", consumer.get()));
    std::vector<int> results;
    std::unique_ptr<Framework::Message> message;
    for (int i = 0; i < 9; ++i) {
        message = std::make_unique<ProbeMessage>(probe);
        results.push_back(sender->TrySendMsg(consumer->GetTaskId(), "f", message));
    }
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0, 0, 1, 1, 1, Framework::MSG_ERR_QUEUE_FULL}), results);
    ASSERT_NE(nullptr, message) << "a message that did not fit stays with the sender";
    EXPECT_EQ(0u, consumer->GetDroppedMsgCount());
    EXPECT_EQ(0, probe.destroyed.load());

    EXPECT_EQ(5, consumer->BulkConsumeMsg(5));  // 3 left: above the low-water mark
    EXPECT_FALSE(sender->TakeDrainSignal());
    Framework::Task::QueueState state;
    ASSERT_TRUE(sender->GetConsumerQueue(consumer->GetTaskId(), "f", state));
    EXPECT_EQ(3u, state.queued);
    EXPECT_EQ(5u, state.taken);
    EXPECT_EQ(2u, state.lowWater);

    // The consumer's own thread drains the rest and wakes the sender's wait.
    TaskRunner runner(consumer.get());
    ASSERT_EQ(0, runner.Start());
    const auto start = steady_clock::now();
    EXPECT_EQ(-1, sender->GetEventWaiter().WaitAndHandleEvent(20000, 1));
    EXPECT_LT(steady_clock::now() - start, milliseconds(10000));
    EXPECT_TRUE(sender->TakeDrainSignal());
    EXPECT_FALSE(sender->TakeDrainSignal());
    EXPECT_EQ(Framework::MSG_OK, sender->TrySendMsg(consumer->GetTaskId(), "f", message));
    EXPECT_EQ(nullptr, message);
    EXPECT_TRUE(TestUtil::WaitUntil([&] { return probe.handled.load() == 9; }));

    message = std::make_unique<ProbeMessage>(probe);
    EXPECT_EQ(Framework::MSG_ERR_UNKNOWN_TASK, sender->TrySendMsg(12345678, "f", message));
    EXPECT_EQ(nullptr, message);
    EXPECT_FALSE(sender->GetConsumerQueue(12345678, "f", state));
}

TEST(TaskFlow, AReceiverThatGoesAwaySignalsItsWaitingSenders) {
    Probe probe;
    auto sender = MakeServeTask("flow_sender_gone");
    auto consumer = MakeServeTask("flow_consumer_gone", 1);
    ASSERT_EQ(0, sender->AddConsumer(consumer->GetTaskId(), "f", consumer.get()));
    auto message = std::unique_ptr<Framework::Message>(new ProbeMessage(probe));
    ASSERT_EQ(Framework::MSG_OK_HIGH_WATER, sender->TrySendMsg(consumer->GetTaskId(), "f", message));
    EXPECT_FALSE(sender->TakeDrainSignal());
    consumer = nullptr;
    EXPECT_TRUE(sender->TakeDrainSignal());
    EXPECT_EQ(1, probe.destroyed.load());
}
