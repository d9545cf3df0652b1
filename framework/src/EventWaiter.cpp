#include "framework/EventWaiter.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>

#include "framework/Event.h"

namespace Framework {

EventWaiter::EventWaiter() : _epoll(::epoll_create1(EPOLL_CLOEXEC)), _wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!IsValid()) return;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = _wake.get();
    if (::epoll_ctl(_epoll.get(), EPOLL_CTL_ADD, _wake.get(), &ev) != 0) _wake.reset();
}

EventWaiter::~EventWaiter() {
    // Events that outlive the waiter must not try to leave it later.
    for (auto& entry : _events)
        entry.second->_waiter = nullptr;
}

int EventWaiter::AddEvent(Event* event) {
    if (event == nullptr || !IsValid() || event->GetFd() < 0) return EINVAL;
    if (event->_waiter != nullptr || _events.count(event->GetFd()) != 0) return EEXIST;
    epoll_event ev{};
    ev.events = event->GetReadiness();
    // The descriptor, not the Event's address, is the key: a callback that
    // destroys another ready Event leaves nothing dangling in this batch.
    ev.data.fd = event->GetFd();
    if (::epoll_ctl(_epoll.get(), EPOLL_CTL_ADD, event->GetFd(), &ev) != 0) return errno;
    _events.emplace(event->GetFd(), event);
    event->_waiter = this;
    return 0;
}

int EventWaiter::RemoveEvent(Event* event) {
    if (event == nullptr) return EINVAL;
    auto it = _events.find(event->GetFd());
    if (it == _events.end() || it->second != event) return ENOENT;
    // Fails with EBADF when the owner closed the descriptor first; the kernel
    // has then dropped the registration already.
    ::epoll_ctl(_epoll.get(), EPOLL_CTL_DEL, event->GetFd(), nullptr);
    _events.erase(it);
    event->_waiter = nullptr;
    return 0;
}

int EventWaiter::SetEnabled(Event* event, bool enabled) {
    if (event == nullptr) return EINVAL;
    auto it = _events.find(event->GetFd());
    if (it == _events.end() || it->second != event) return ENOENT;
    epoll_event ev{};
    ev.events = enabled ? event->GetReadiness() : 0U;
    ev.data.fd = event->GetFd();
    return ::epoll_ctl(_epoll.get(), EPOLL_CTL_MOD, event->GetFd(), &ev) == 0 ? 0 : errno;
}

void EventWaiter::Notify() {
    // One write per wake-up, however many producers: the flag stays set until
    // the waiting thread has read the eventfd.
    // A plain load first: under a burst the flag is mostly set already, and
    // the exchange would bounce the cache line between the threads.
    if (_notified.load(std::memory_order_relaxed) || _notified.exchange(true)) return;
    const std::uint64_t one = 1;
    ssize_t n;
    do {
        n = ::write(_wake.get(), &one, sizeof one);
    } while (n < 0 && errno == EINTR);
}

void EventWaiter::DrainWake() {
    std::uint64_t count = 0;
    while (::read(_wake.get(), &count, sizeof count) < 0 && errno == EINTR) {
    }
    // Cleared after the read: a producer that still saw the flag set has
    // queued its message before this point, so the drain that follows sees it.
    _notified.exchange(false);
}

int EventWaiter::WaitAndHandleEvent(int timeoutMs, int maxEvents) {
    if (maxEvents < 1) maxEvents = 1;
    if (!IsValid()) {
        ::poll(nullptr, 0, timeoutMs);
        return -1;
    }
    // One slot more than asked for: the wake descriptor is not a handled event.
    _ready.resize(static_cast<std::size_t>(maxEvents) + 1);
    const int n = ::epoll_wait(_epoll.get(), _ready.data(), maxEvents + 1, timeoutMs);
    if (n <= 0) return -1;  // time-out, or EINTR: let the caller drain and come back

    bool woken = false;
    int handled = 0;
    for (int i = 0; i < n; ++i) {
        const int fd = _ready[i].data.fd;
        if (fd == _wake.get()) {
            DrainWake();
            woken = true;
            continue;
        }
        // Level-triggered: a descriptor left over is reported again next time.
        if (handled >= maxEvents) continue;
        auto it = _events.find(fd);
        if (it == _events.end()) continue;  // removed by an earlier callback
        it->second->Invoke(_ready[i].events);
        ++handled;
    }
    return woken ? -1 : handled;
}

}  // namespace Framework
