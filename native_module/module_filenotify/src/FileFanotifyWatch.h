#pragma once

namespace Framework {
class Task;
}

namespace Engine {

class FileNotifyTask;

// The module's manager of fanotify watches: a notification instance and a
// permission instance join it as the engine grows. Used on the module task's
// thread only.
class FileFanotifyWatch {
public:
    using EventHandler = int (FileNotifyTask::*)(int fd, unsigned int events, void* arg);

    FileFanotifyWatch() = default;
    FileFanotifyWatch(const FileFanotifyWatch&) = delete;
    FileFanotifyWatch& operator=(const FileFanotifyWatch&) = delete;

    // Connects the fanotify descriptors to the task's event waiter. Returns 0.
    int AddEventsWatch(Framework::Task* task, EventHandler handler);

    // Reads and handles the events of descriptor fd into buffer. Returns 0,
    // or 1 when fd is none of the manager's descriptors.
    int ReadEvents(int fd, char* buffer, int size);

private:
    Framework::Task* task = nullptr;
};

}  // namespace Engine
