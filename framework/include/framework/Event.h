#pragma once

#include "framework/Export.h"

namespace Framework {

class EventWaiter;

// What an Event calls when its descriptor is ready.
class FRAMEWORK_API EventCallbackBase {
public:
    virtual ~EventCallbackBase();
    // fd: the ready descriptor; events: the epoll event bits; arg: the
    // Event's user data. The result is the handler's own.
    virtual int invoke(int fd, unsigned int events, void* arg) = 0;
};

// Calls a member function of T on one object.
template <class T>
class EventCallback : public EventCallbackBase {
public:
    using Handler = int (T::*)(int fd, unsigned int events, void* arg);

    EventCallback(T* object, Handler handler) : _object(object), _handler(handler) {}

    int invoke(int fd, unsigned int events, void* arg) override { return (_object->*_handler)(fd, events, arg); }

private:
    T* _object;
    Handler _handler;
};

// A descriptor watched for readability by an EventWaiter, with its callback.
//
// The Event owns the callback. It does not own the descriptor: whoever opened
// it closes it. While an Event is registered with a waiter it remembers that
// waiter, and its destructor takes it out of the waiter's set, so an Event
// never outlives its registration. Destroy it on the waiter's thread.
class FRAMEWORK_API Event {
public:
    // readiness: the epoll bits to wait for; EPOLLIN (1) by default. A file
    // that is always readable and tells news otherwise (/proc/self/mountinfo
    // sets EPOLLPRI) waits for those bits alone.
    Event(EventCallbackBase* callback, void* arg, int fd, unsigned int readiness = 1U);
    virtual ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    int GetFd() const { return _fd; }
    unsigned int GetReadiness() const { return _readiness; }
    void* GetArg() const { return _arg; }
    int Invoke(unsigned int events);
    // Stops or resumes the readiness reports of the waiter it is registered
    // with (EventWaiter::SetEnabled). ENOENT when it is not registered.
    int SetEnabled(bool enabled);

private:
    friend class EventWaiter;

    EventCallbackBase* _callback;
    void* _arg;
    int _fd;
    unsigned int _readiness;
    EventWaiter* _waiter = nullptr;
};

}  // namespace Framework
