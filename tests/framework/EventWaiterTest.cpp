#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "framework/Event.h"
#include "framework/EventWaiter.h"
#include "framework/UniqueFd.h"

using Framework::Event;
using Framework::EventCallback;
using Framework::EventWaiter;
using Framework::UniqueFd;

namespace {

struct Pipe {
    UniqueFd read, write;
    Pipe() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
            read.reset(fds[0]);
            write.reset(fds[1]);
        }
    }
    void Fill() const { EXPECT_EQ(1, ::write(write.get(), "x", 1)); }
    void Drain() const {
        char buf[16];
        while (::read(read.get(), buf, sizeof buf) > 0) {
        }
    }
};

// Records every callback and drains the ready pipe.
struct Recorder {
    std::vector<int> fds;
    std::vector<Pipe*> pipes;
    int OnReady(int fd, unsigned int events, void*) {
        EXPECT_TRUE(events & EPOLLIN);
        fds.push_back(fd);
        for (auto* p : pipes)
            if (p->read.get() == fd) p->Drain();
        return 0;
    }
};

std::unique_ptr<Event> MakeEvent(Recorder& rec, int fd) {
    return std::make_unique<Event>(new EventCallback<Recorder>(&rec, &Recorder::OnReady), nullptr, fd);
}

}  // namespace

TEST(EventWaiter, TimeoutAndNotifyReturnNegative) {
    EventWaiter waiter;
    ASSERT_TRUE(waiter.IsValid());
    EXPECT_LT(waiter.WaitAndHandleEvent(0, 8), 0);

    waiter.Notify();
    waiter.Notify();  // coalesced with the first
    EXPECT_LT(waiter.WaitAndHandleEvent(5000, 8), 0);
    // The wake-up was consumed: the next wait only times out.
    EXPECT_LT(waiter.WaitAndHandleEvent(0, 8), 0);
}

TEST(EventWaiter, ReadyDescriptorsCallTheirCallbacksUpToMaxEvents) {
    EventWaiter waiter;
    Recorder rec;
    std::array<Pipe, 3> pipes;
    std::vector<std::unique_ptr<Event>> events;
    for (auto& p : pipes) {
        rec.pipes.push_back(&p);
        events.push_back(MakeEvent(rec, p.read.get()));
        ASSERT_EQ(0, waiter.AddEvent(events.back().get()));
        p.Fill();
    }
    EXPECT_EQ(EEXIST, waiter.AddEvent(events.front().get()));
    EXPECT_EQ(EINVAL, waiter.AddEvent(nullptr));

    EXPECT_EQ(2, waiter.WaitAndHandleEvent(1000, 2));
    EXPECT_EQ(1, waiter.WaitAndHandleEvent(1000, 2));  // level-triggered: the third is still ready
    EXPECT_LT(waiter.WaitAndHandleEvent(0, 2), 0);     // all drained
    std::sort(rec.fds.begin(), rec.fds.end());
    std::vector<int> expected{pipes[0].read.get(), pipes[1].read.get(), pipes[2].read.get()};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, rec.fds);
}

TEST(EventWaiter, NotifyWithReadyDescriptorHandlesBothAndSignalsMessages) {
    EventWaiter waiter;
    Recorder rec;
    Pipe p;
    rec.pipes.push_back(&p);
    auto ev = MakeEvent(rec, p.read.get());
    ASSERT_EQ(0, waiter.AddEvent(ev.get()));
    p.Fill();
    waiter.Notify();
    EXPECT_LT(waiter.WaitAndHandleEvent(1000, 8), 0);
    EXPECT_EQ(1u, rec.fds.size());
}

// A callback that destroys the other event: the other one is ready in the
// same batch, and must be skipped rather than called through a freed object.
struct CrossKiller {
    std::unique_ptr<Event>* events[2];
    int fdA = -1;
    int calls = 0;
    int OnReady(int fd, unsigned int, void*) {
        ++calls;
        events[fd == fdA ? 1 : 0]->reset();
        return 0;
    }
};

TEST(EventWaiter, DestroyedEventLeavesTheSetEvenWhenReadyInTheSameBatch) {
    EventWaiter waiter;
    Pipe a, b;
    std::unique_ptr<Event> evA, evB;
    CrossKiller killer{{&evA, &evB}, a.read.get()};
    evA.reset(new Event(new EventCallback<CrossKiller>(&killer, &CrossKiller::OnReady), nullptr, a.read.get()));
    evB.reset(new Event(new EventCallback<CrossKiller>(&killer, &CrossKiller::OnReady), nullptr, b.read.get()));
    ASSERT_EQ(0, waiter.AddEvent(evA.get()));
    ASSERT_EQ(0, waiter.AddEvent(evB.get()));
    a.Fill();
    b.Fill();
    EXPECT_EQ(1, waiter.WaitAndHandleEvent(1000, 8));
    EXPECT_EQ(1, killer.calls);
    EXPECT_EQ(1u, waiter.EventCount());
}

TEST(EventWaiter, EventWhoseDescriptorClosedFirstStillLeavesCleanly) {
    EventWaiter waiter;
    Recorder rec;
    auto p = std::make_unique<Pipe>();
    auto ev = MakeEvent(rec, p->read.get());
    ASSERT_EQ(0, waiter.AddEvent(ev.get()));
    p.reset();  // the owner closes the descriptor before the event goes
    ev.reset();
    EXPECT_EQ(0u, waiter.EventCount());
    EXPECT_LT(waiter.WaitAndHandleEvent(0, 8), 0);
}
