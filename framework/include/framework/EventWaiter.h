#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <unordered_map>
#include <vector>

#include "framework/Export.h"
#include "framework/UniqueFd.h"

namespace Framework {

class Event;

// One epoll set with the descriptors of one task, plus an eventfd through
// which other threads wake the task (a message was queued, or a stop was
// asked). Everything but Notify runs on the owning task's thread.
class FRAMEWORK_API EventWaiter {
public:
    EventWaiter();
    ~EventWaiter();
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    // False when epoll or the eventfd could not be created; every wait then
    // only reports a time-out after sleeping for it.
    bool IsValid() const { return _epoll.valid() && _wake.valid(); }

    // Watches event's descriptor for readability. The waiter does not own the
    // Event. Returns 0, or the errno of epoll_ctl (EEXIST for a descriptor
    // already registered, EINVAL for a null event or an invalid waiter).
    int AddEvent(Event* event);
    // Stops watching; 0, or ENOENT when the event is not registered here.
    // The descriptor may already be closed.
    int RemoveEvent(Event* event);
    std::size_t EventCount() const { return _events.size(); }
    // A registered descriptor that is not enabled stays in the set but is not
    // reported, however much it has to read (a reader held back until its
    // consumers catch up). 0, ENOENT when not registered, or epoll's errno.
    int SetEnabled(Event* event, bool enabled);

    // Waits up to timeoutMs (-1: no limit) for the registered descriptors and
    // calls the callbacks of at most maxEvents ready ones. Returns the number
    // of callbacks run, or -1 when the wait was woken by Notify (messages are
    // waiting: drain the queue now) or timed out.
    int WaitAndHandleEvent(int timeoutMs, int maxEvents);

    // Any thread: makes the current or the next wait return -1 at once.
    // Repeated calls before that wait cost one atomic operation each.
    void Notify();

private:
    void DrainWake();

    UniqueFd _epoll;
    UniqueFd _wake;
    std::atomic<bool> _notified{false};
    std::unordered_map<int, Event*> _events;
    std::vector<epoll_event> _ready;
};

}  // namespace Framework
