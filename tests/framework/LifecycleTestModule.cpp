// A module for the host tests: every lifecycle step appends one line to the
// file named by FN_LIFECYCLE_LOG; FN_LIFECYCLE_FAIL names a task whose Init
// fails. A task's UnInit tells when its loop has not ended yet.

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <string>

#include "framework/Module.h"
#include "framework/Task.h"

namespace {

void Record(const std::string& line) {
    const char* path = std::getenv("FN_LIFECYCLE_LOG");
    if (path != nullptr) std::ofstream(path, std::ios::app) << line << '\n';
}

class RecordingTask : public Framework::Task {
public:
    explicit RecordingTask(const std::string& name)
        : Framework::Task(name, "lifecycle", Framework::TaskCondition::TASK_TYPE_RESIDENT, 16) {}
    int Init() override {
        Record(GetTaskName() + " Init");
        const char* failing = std::getenv("FN_LIFECYCLE_FAIL");
        return failing != nullptr && GetTaskName() == failing ? 7 : 0;
    }
    void UnInit() override { Record(GetTaskName() + (_running ? " UnInit while running" : " UnInit")); }
    int Run() override {
        Record(GetTaskName() + " Run");
        _running = true;
        const int r = ServeMessages(60000);
        _running = false;
        return r;
    }

private:
    ~RecordingTask() override { Record(GetTaskName() + " destroyed"); }
    std::atomic<bool> _running{false};
};

class RecordingModule : public Framework::Module {
public:
    RecordingModule() : Framework::Module("lifecycle_module") {}
    int Init() override {
        Record("module Init");
        RegisterTask(new RecordingTask("alpha"), true);
        RegisterTask(new RecordingTask("beta"), false);
        return Framework::Module::Init();
    }
    void UnInit() override { Record("module UnInit"); }

private:
    ~RecordingModule() override {
        ReleaseTasks();
        Record("module destroyed");
    }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new RecordingModule();
}
