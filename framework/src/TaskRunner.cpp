#include "framework/TaskRunner.h"

namespace Framework {

TaskRunner::TaskRunner(Task* task) : _task(task, true) {}

TaskRunner::~TaskRunner() {
    Stop();
}

int TaskRunner::Start() {
    if (!_task || _started || _initialised) return 1;
    _task->Publish();
    int result = -1;
    try {
        result = _task->Init();
    } catch (...) {
        // A task that throws out of Init is a task that failed to initialise.
    }
    if (result != 0) {
        _task->Withdraw();
        return result;
    }
    _initialised = true;
    _thread = std::make_unique<Poco::Thread>(_task->GetTaskName());
    _thread->start(*_task);
    _started = true;
    return 0;
}

void TaskRunner::Stop() {
    if (_started) {
        _task->cancel();
        _thread->join();
        _thread.reset();
        _started = false;
    }
    // Nobody serves the queue any more: senders fail from here on.
    if (_task) _task->Withdraw();
    if (_initialised) {
        _task->UnInit();
        _initialised = false;
    }
}

}  // namespace Framework
