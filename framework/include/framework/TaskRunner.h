#pragma once

#include <memory>

#include <Poco/AutoPtr.h>
#include <Poco/Thread.h>

#include "framework/Export.h"
#include "framework/Task.h"

namespace Framework {

// Runs one task on a thread of its own: Init on the caller's thread, then Run
// on the new thread; Stop cancels, joins and calls UnInit. Holds a reference
// to the task for as long as it runs. Not thread-safe: one owner drives it.
class FRAMEWORK_API TaskRunner {
public:
    explicit TaskRunner(Task* task);
    ~TaskRunner();  // Stop()
    TaskRunner(const TaskRunner&) = delete;
    TaskRunner& operator=(const TaskRunner&) = delete;

    // Publishes the task, then Init, then the thread. Returns Init's result;
    // the thread starts only when it is 0 (else the task is withdrawn).
    int Start();
    // Cancels, joins, withdraws the task, calls UnInit. Safe to call more
    // than once.
    void Stop();
    bool IsRunning() const { return _started; }
    Task* GetTask() { return _task.get(); }

private:
    Poco::AutoPtr<Task> _task;
    std::unique_ptr<Poco::Thread> _thread;
    bool _initialised = false;
    bool _started = false;
};

}  // namespace Framework
