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

namespace {

struct Pipe {
    Framework::UniqueFd read, write;
    Pipe() {
        int fds[2];
        EXPECT_EQ(0, ::pipe2(fds, O_CLOEXEC | O_NONBLOCK));
        read.reset(fds[0]);
        write.reset(fds[1]);
    }
    void Fill() const { EXPECT_EQ(1, ::write(write.get(), "x", 1)); }
};

// Records each callback; drains the ready pipe, or destroys the other event.
struct Recorder {
    std::vector<int> fds;
    std::unique_ptr<Event>* victims[2] = {nullptr, nullptr};
    int OnReady(int fd, unsigned int events, void*) {
        EXPECT_TRUE(events & EPOLLIN);
        fds.push_back(fd);
        char buf[16];
        while (::read(fd, buf, sizeof buf) > 0) {
        }
        for (auto* victim : victims)
            if (victim != nullptr && *victim && (*victim)->GetFd() != fd) victim->reset();
        return 0;
    }
    std::unique_ptr<Event> Watch(EventWaiter& waiter, int fd) {
        auto ev = std::make_unique<Event>(new EventCallback<Recorder>(this, &Recorder::OnReady), nullptr, fd);
        EXPECT_EQ(0, waiter.AddEvent(ev.get()));
        return ev;
    }
};

}  // namespace

TEST(EventWaiter, ReadyDescriptorsCallTheirCallbacksUpToMaxEvents) {
    EventWaiter waiter;
    ASSERT_TRUE(waiter.IsValid());
    EXPECT_LT(waiter.WaitAndHandleEvent(0, 8), 0);  // time-out
    Recorder rec;
    std::array<Pipe, 3> pipes;
    std::vector<std::unique_ptr<Event>> events;
    for (auto& p : pipes) {
        events.push_back(rec.Watch(waiter, p.read.get()));
        p.Fill();
    }
    EXPECT_EQ(EEXIST, waiter.AddEvent(events.front().get()));
    EXPECT_EQ(EINVAL, waiter.AddEvent(nullptr));

    EXPECT_EQ(2, waiter.WaitAndHandleEvent(1000, 2));
    EXPECT_EQ(1, waiter.WaitAndHandleEvent(1000, 2));  // level-triggered: the third is still ready
    EXPECT_LT(waiter.WaitAndHandleEvent(0, 2), 0);
    std::vector<int> expected{pipes[0].read.get(), pipes[1].read.get(), pipes[2].read.get()};
    std::sort(expected.begin(), expected.end());
    std::sort(rec.fds.begin(), rec.fds.end());
    EXPECT_EQ(expected, rec.fds);

    // A wake-up (two Notify calls coalesce) with a ready descriptor: both
    // handled, and the result says "drain the queue".
    pipes[0].Fill();
    waiter.Notify();
    waiter.Notify();
    EXPECT_LT(waiter.WaitAndHandleEvent(1000, 8), 0);
    EXPECT_EQ(4u, rec.fds.size());
    EXPECT_LT(waiter.WaitAndHandleEvent(0, 8), 0);  // wake-up consumed: a time-out again
}

TEST(EventWaiter, EventDestroyedByAnotherCallbackInTheSameBatchIsSkipped) {
    EventWaiter waiter;
    Recorder rec;
    Pipe a, b;
    std::unique_ptr<Event> evA = rec.Watch(waiter, a.read.get());
    std::unique_ptr<Event> evB = rec.Watch(waiter, b.read.get());
    rec.victims[0] = &evA;
    rec.victims[1] = &evB;
    a.Fill();
    b.Fill();
    EXPECT_EQ(1, waiter.WaitAndHandleEvent(1000, 8));
    EXPECT_EQ(1u, rec.fds.size());
    EXPECT_EQ(1u, waiter.EventCount());
}

TEST(EventWaiter, EventWhoseDescriptorClosedFirstStillLeavesCleanly) {
    EventWaiter waiter;
    Recorder rec;
    auto p = std::make_unique<Pipe>();
    auto ev = rec.Watch(waiter, p->read.get());
    p.reset();  // the owner closes the descriptor before the event goes
    ev.reset();
    EXPECT_EQ(0u, waiter.EventCount());
    EXPECT_LT(waiter.WaitAndHandleEvent(0, 8), 0);
}
