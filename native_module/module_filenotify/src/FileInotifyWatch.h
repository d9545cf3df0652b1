#pragma once

#include "FileNotifyLimit.h"

namespace Framework {
class Task;
}

namespace Engine {

class FileNotifyTask;

// The module's manager of inotify watches. It owns the inotify watch limits;
// the inotify instances, the watch registry and event delivery join it as the
// engine grows. Used on the module task's thread only.
class FileInotifyWatch {
public:
    using EventHandler = int (FileNotifyTask::*)(int fd, unsigned int events, void* arg);

    FileInotifyWatch() = default;
    virtual ~FileInotifyWatch() = default;
    FileInotifyWatch(const FileInotifyWatch&) = delete;
    FileInotifyWatch& operator=(const FileInotifyWatch&) = delete;

    // Connects every inotify descriptor of the manager to the task's event
    // waiter, each with handler as its callback. Returns 0 or the first
    // registration's error.
    int AddEventsWatch(Framework::Task* task, EventHandler handler);

    // Reads and delivers the events of descriptor fd into buffer. Returns 0,
    // or 1 when fd is none of the manager's descriptors.
    virtual int ReadEvents(int fd, char* buffer, int length);

    const FileNotifyLimit& GetLimit() const { return fileNotifyLimit; }

private:
    FileNotifyLimit fileNotifyLimit;
    Framework::Task* notifyTask = nullptr;
};

}  // namespace Engine
