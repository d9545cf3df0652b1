#include "framework/Event.h"

#include <sys/epoll.h>

#include <cerrno>
#include <exception>

#include <Poco/Logger.h>

#include "FrameworkLog.h"
#include "framework/EventWaiter.h"

namespace Framework {

EventCallbackBase::~EventCallbackBase() = default;

static_assert(EPOLLIN == 1U, "the default readiness of an Event is EPOLLIN");

Event::Event(EventCallbackBase* callback, void* arg, int fd, unsigned int readiness)
    : _callback(callback), _arg(arg), _fd(fd), _readiness(readiness) {}

Event::~Event() {
    if (_waiter != nullptr) _waiter->RemoveEvent(this);
    delete _callback;
}

int Event::SetEnabled(bool enabled) {
    return _waiter != nullptr ? _waiter->SetEnabled(this, enabled) : ENOENT;
}

int Event::Invoke(unsigned int events) {
    if (_callback == nullptr) return -1;
    try {
        return _callback->invoke(_fd, events, _arg);
    } catch (const std::exception& e) {
        // A handler that throws must not take the waiting thread down with it.
        poco_error(FrameworkLogger(), "event handler of fd " + std::to_string(_fd) + " threw: " + e.what());
    } catch (...) {
        poco_error(FrameworkLogger(), "event handler of fd " + std::to_string(_fd) + " threw");
    }
    return -1;
}

}  // namespace Framework
