#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/Message.h>

#include "FrameworkTestUtil.h"
#include "LogCapture.h"
#include "TestUtil.h"
#include "framework/TaskRunner.h"
#include "sdk/LoggerUtils.h"

using namespace FrameworkTest;
using namespace Framework;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(TaskQueue, ManyProducersEveryMessageHandledOnce) {
    Probe probe;
    auto task = MakeServeTask("many_producers", 1 << 16);
    TaskRunner runner(task.get());
    ASSERT_EQ(0, runner.Start());
    constexpr int kThreads = 4, kEach = 5000;
    std::vector<std::thread> producers;
    producers.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&] {
            for (int i = 0; i < kEach; ++i)
                task->EnqueueMsg(new ProbeMessage(probe));
        });
    }
    for (auto& p : producers)
        p.join();
    EXPECT_TRUE(TestUtil::WaitUntil([&] { return probe.handled.load() == kThreads * kEach; })) << probe.handled;
    runner.Stop();
    EXPECT_EQ(kThreads * kEach, probe.destroyed.load());
}

TEST(TaskQueue, DropWarningsAreRateLimitedAndExactAtStop) {
    TestUtil::LogCapture log(SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false));
    Probe probe;
    auto task = MakeServeTask("flood", 1);
    for (int i = 0; i <= 2000; ++i)  // one fits
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

// POCO marks a task running when its thread starts, over a cancel that came before.
TEST(TaskLifecycle, ACancelBeforeTheThreadRunsIsNotLost) {
    auto task = MakeServeTask("cancel");
    task->cancel();
    TaskRunner runner(task.get());
    ASSERT_EQ(0, runner.Start());
    const auto start = steady_clock::now();
    runner.Stop();
    EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
}

TEST(SyncSend, AnswersOrFailsWithinItsTimeOut) {
    Probe probe;
    auto sender = MakeServeTask("sync_sender");
    auto consumer = MakeServeTask("sync_consumer", 2);  // nobody serves it until the end
    const int id = consumer->GetTaskId();
    ASSERT_EQ(0, sender->AddConsumer(id, "f", consumer.get()));
    ASSERT_EQ(0, sender->AddConsumer(sender->GetTaskId(), "f", sender.get()));
    std::string reply;
    steady_clock::duration took{};
    const auto send = [&](int to, Message* msg, long timeoutMs, int attempts) {
        reply = "stale";
        const auto start = steady_clock::now();
        const int result = sender->SyncSendMsg(to, "f", msg, reply, timeoutMs, attempts);
        took = steady_clock::now() - start;
        return result;
    };
    EXPECT_EQ(MSG_ERR_SELF, send(sender->GetTaskId(), new ProbeMessage(probe), 5000, 1));
    EXPECT_EQ(1, probe.destroyed.load());

    EXPECT_EQ(MSG_ERR_TIMEOUT, send(id, new ProbeMessage(probe, 2, "late"), 100, 2));
    EXPECT_GE(took, milliseconds(100));
    EXPECT_LT(took, milliseconds(2000));
    EXPECT_EQ("", reply);
    // The sender has given up; handling now must neither leak nor touch it.
    EXPECT_EQ(1, consumer->BulkConsumeMsg(16));
    EXPECT_EQ(1, probe.handled.load());
    EXPECT_EQ(2, probe.destroyed.load());

    ASSERT_EQ(0, consumer->EnqueueMsg(new ProbeMessage(probe)));
    ASSERT_EQ(0, consumer->EnqueueMsg(new ProbeMessage(probe)));
    const auto dropped = consumer->GetDroppedMsgCount();
    EXPECT_EQ(MSG_ERR_QUEUE_FULL, send(id, new ProbeMessage(probe), 200, 3));
    EXPECT_LT(took, milliseconds(2000));
    EXPECT_EQ(dropped + 1, consumer->GetDroppedMsgCount());  // whether time or attempts ran out first
    EXPECT_EQ(3, probe.destroyed.load());

    // A receiver destroyed with the message in its queue releases the sender at once.
    auto doomed = MakeServeTask("sync_doomed", 4);
    const int doomedId = doomed->GetTaskId();
    ASSERT_EQ(0, sender->AddConsumer(doomedId, "f", doomed.get()));
    std::thread destroyer([d = doomed]() mutable {
        TestUtil::WaitUntil([&] { return d->GetQueuedMsgCount() == 1; });
        d = nullptr;
    });
    doomed = nullptr;
    EXPECT_EQ(MSG_ERR_NOT_HANDLED, send(doomedId, new ProbeMessage(probe), 20000, 1));
    destroyer.join();
    EXPECT_EQ(4, probe.destroyed.load());
    EXPECT_EQ(1, probe.handled.load());

    // A queue that drains while the sender retries gets the message through.
    TaskRunner runner(consumer.get());
    std::thread starter([&] { runner.Start(); });
    EXPECT_EQ(5, send(id, new ProbeMessage(probe, 5, "ok"), 3000, 4));
    EXPECT_EQ("ok", reply);
    EXPECT_EQ(4, probe.handled.load());
    starter.join();
}

// capacity 8: congested from 6 queued, drained at 2.
TEST(TaskSend, OnlyToARegisteredConsumerAndWhatDoesNotFitStaysWithTheSender) {
    Probe probe;
    auto sender = MakeServeTask("flow_sender");
    auto consumer = MakeServeTask("flow_consumer", 8);
    const int id = consumer->GetTaskId();
    EXPECT_EQ(MSG_ERR_UNKNOWN_TASK, sender->SendMsg(id, "f", new ProbeMessage(probe)));
    ASSERT_EQ(0, sender->AddConsumer(id, "f", consumer.get()));
    EXPECT_EQ(MSG_ERR_UNKNOWN_TASK, sender->SendMsg(id, "other_type", new ProbeMessage(probe)));
    EXPECT_EQ(2, probe.destroyed.load());
    EXPECT_EQ(MSG_OK, sender->SendMsg(id, "f", new ProbeMessage(probe)));
    std::vector<int> results;
    std::unique_ptr<Message> message;
    for (int i = 0; i < 8; ++i) {
        message = std::make_unique<ProbeMessage>(probe);
        results.push_back(sender->TrySendMsg(id, "f", message));
    }
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0, 1, 1, 1, MSG_ERR_QUEUE_FULL}), results);
    ASSERT_NE(nullptr, message);
    EXPECT_EQ(0u, consumer->GetDroppedMsgCount());
    EXPECT_EQ(2, probe.destroyed.load());
    EXPECT_EQ(5, consumer->BulkConsumeMsg(5));  // 3 left: above the low-water mark
    EXPECT_FALSE(sender->TakeDrainSignal());

    // The consumer's own thread drains the rest and wakes the sender's wait.
    {
        TaskRunner runner(consumer.get());
        ASSERT_EQ(0, runner.Start());
        const auto start = steady_clock::now();
        EXPECT_EQ(-1, sender->GetEventWaiter().WaitAndHandleEvent(20000, 1));
        EXPECT_LT(steady_clock::now() - start, milliseconds(10000));
        EXPECT_TRUE(sender->TakeDrainSignal());
        EXPECT_EQ(MSG_OK, sender->TrySendMsg(id, "f", message));
        EXPECT_EQ(nullptr, message);
        EXPECT_TRUE(TestUtil::WaitUntil([&] { return probe.handled.load() == 9; }));
    }

    // Refilled to its high-water mark, then destroyed: what it held is freed,
    // and the sender is signalled; sends to it fail from then on.
    for (int i = 0; i < 6; ++i)
        ASSERT_EQ(0, consumer->EnqueueMsg(new ProbeMessage(probe)));
    consumer->Publish();
    message = std::make_unique<ProbeMessage>(probe);
    EXPECT_EQ(MSG_OK_HIGH_WATER, sender->TrySendMsg(id, "f", message));
    consumer = nullptr;
    EXPECT_TRUE(sender->TakeDrainSignal());
    EXPECT_EQ(18, probe.destroyed.load());
    message = std::make_unique<ProbeMessage>(probe);
    EXPECT_EQ(MSG_ERR_UNKNOWN_TASK, sender->TrySendMsg(id, "f", message));
    EXPECT_EQ(nullptr, message);
    std::string reply;
    EXPECT_EQ(MSG_ERR_UNKNOWN_TASK, sender->SyncSendMsg(id, "f", new ProbeMessage(probe), reply, 100, 1));
    EXPECT_EQ(20, probe.destroyed.load());
}
