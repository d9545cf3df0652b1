#pragma once

#include <atomic>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace Framework {

class Task;

// Every live task by id. Messages are delivered only while the receiver is
// looked up here under the shared lock, and a task leaves the registry under
// the exclusive lock before it is torn down: a send never reaches a task that
// is being destroyed.
class TaskRegistry {
public:
    static TaskRegistry& Instance();

    int NextId() { return _nextId.fetch_add(1, std::memory_order_relaxed); }
    void Register(int id, Task* task);
    void Unregister(int id);
    // The task under id with `lock` holding the registry's shared lock, or
    // null (lock then released).
    Task* Find(int id, std::shared_lock<std::shared_mutex>& lock);
    int FindIdByName(const std::string& name);

private:
    TaskRegistry() = default;

    std::atomic<int> _nextId{1};
    std::shared_mutex _mutex;
    std::unordered_map<int, Task*> _tasks;
};

}  // namespace Framework
