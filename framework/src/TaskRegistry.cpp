#include "TaskRegistry.h"

#include <mutex>

#include "framework/Task.h"

namespace Framework {

TaskRegistry& TaskRegistry::Instance() {
    // Never destroyed: tasks that live in static storage may unregister
    // during exit, after function-local statics are gone.
    static TaskRegistry* registry = new TaskRegistry();
    return *registry;
}

void TaskRegistry::Register(int id, Task* task) {
    std::unique_lock<std::shared_mutex> lock(_mutex);
    _tasks[id] = task;
}

void TaskRegistry::Unregister(int id) {
    std::unique_lock<std::shared_mutex> lock(_mutex);
    _tasks.erase(id);
}

Task* TaskRegistry::Find(int id, std::shared_lock<std::shared_mutex>& lock) {
    lock = std::shared_lock<std::shared_mutex>(_mutex);
    auto it = _tasks.find(id);
    if (it != _tasks.end()) return it->second;
    lock.unlock();
    return nullptr;
}

int TaskRegistry::FindIdByName(const std::string& name) {
    std::shared_lock<std::shared_mutex> lock(_mutex);
    for (const auto& entry : _tasks) {
        if (entry.second->GetTaskName() == name) return entry.first;
    }
    return 0;
}

}  // namespace Framework
