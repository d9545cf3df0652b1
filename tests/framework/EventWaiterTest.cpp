#include <sys/eventfd.h>

#include <array>
#include <memory>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "framework/Event.h"
#include "framework/EventWaiter.h"
#include "framework/UniqueFd.h"

using Framework::Event;
using Framework::UniqueFd;

namespace {

// Records each callback and reads the ready descriptor; with destroyOthers
// set, a callback also destroys every other event, as a handler that closes
// a connection would.
struct Recorder {
    std::vector<int> fds;
    std::vector<std::unique_ptr<Event>> events;
    bool destroyOthers = false;
    int OnReady(int fd, unsigned int ready, void*) {
        EXPECT_TRUE(ready & EPOLLIN);
        fds.push_back(fd);
        eventfd_t value;
        ::eventfd_read(fd, &value);
        for (auto& ev : events)
            if (destroyOthers && ev && ev->GetFd() != fd) ev.reset();
        return 0;
    }
    void Watch(Framework::EventWaiter& waiter, const UniqueFd& fd) {
        events.push_back(std::make_unique<Event>(new Framework::EventCallback<Recorder>(this, &Recorder::OnReady),
                                                 nullptr, fd.get()));
        EXPECT_EQ(0, waiter.AddEvent(events.back().get()));
    }
};

}  // namespace

TEST(EventWaiter, HandlesReadyDescriptorsAndWakeUpsAndSurvivesEventsThatGo) {
    Framework::EventWaiter waiter;
    ASSERT_TRUE(waiter.IsValid());
    std::array<UniqueFd, 3> fds;
    Recorder rec;
    for (auto& fd : fds) {
        fd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        rec.Watch(waiter, fd);
        ::eventfd_write(fd.get(), 1);
    }
    EXPECT_EQ(EEXIST, waiter.AddEvent(rec.events.front().get()));
    EXPECT_EQ(2, waiter.WaitAndHandleEvent(1000, 2));
    EXPECT_EQ(1, waiter.WaitAndHandleEvent(1000, 2));  // level-triggered: the third is still ready
    EXPECT_EQ(3u, std::set<int>(rec.fds.begin(), rec.fds.end()).size());

    // A wake-up with a ready descriptor: both handled, and the result says "drain the queue".
    ::eventfd_write(fds[0].get(), 1);
    waiter.Notify();
    EXPECT_LT(waiter.WaitAndHandleEvent(1000, 8), 0);
    EXPECT_EQ(4u, rec.fds.size());
    EXPECT_LT(waiter.WaitAndHandleEvent(0, 8), 0);  // wake-up consumed: a time-out again
    EXPECT_EQ(4u, rec.fds.size());

    // The owner may close the descriptor before its event goes.
    UniqueFd closed(::eventfd(0, EFD_CLOEXEC));
    rec.Watch(waiter, closed);
    closed.reset();
    rec.events.back().reset();
    EXPECT_EQ(3u, waiter.EventCount());

    // Two ready in one batch, and the first callback destroys the other event: it is skipped.
    rec.destroyOthers = true;
    ::eventfd_write(fds[1].get(), 1);
    ::eventfd_write(fds[2].get(), 1);
    EXPECT_EQ(1, waiter.WaitAndHandleEvent(1000, 8));
    EXPECT_EQ(5u, rec.fds.size());
    EXPECT_EQ(1u, waiter.EventCount());
}
