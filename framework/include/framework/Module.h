#pragma once

#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Util/Subsystem.h>

#include "framework/Export.h"
#include "framework/Task.h"

namespace Framework {

// A plug-in of the agent: a POCO subsystem that registers the tasks it runs.
//
// A module library exports `extern "C" Framework::Module* CreateModule()`,
// returning a module allocated with new; the host takes its one reference.
// The host calls Init, then each registered task's Init, runs the tasks, and
// on stop cancels and joins them, calls their UnInit, then the module's
// UnInit, and releases tasks and module in reverse order of registration.
class FRAMEWORK_API Module : public Poco::Util::Subsystem {
public:
    struct Registration {
        Poco::AutoPtr<Task> task;
        // A required task whose Init fails makes the whole module fail to
        // start; an optional one is logged and left out.
        bool required;
    };

    explicit Module(const std::string& moduleName);

    const char* name() const override;
    // POCO's subsystem hooks, for a POCO application host: forward to Init/UnInit.
    void initialize(Poco::Util::Application& app) override;
    void uninitialize() override;

    // Builds and registers the module's tasks (overrides call the base last).
    virtual int Init();
    virtual void UnInit();
    // The agent's policy changed; the base does nothing and returns 0.
    virtual int RefreshPolicy();

    // Takes the task's reference (as POCO's AutoPtr does). Returns 0, or 1
    // for a null task.
    int RegisterTask(Task* task, bool required);
    std::vector<Registration>& GetTasks() { return _tasks; }
    // Releases the tasks, last registered first.
    void ReleaseTasks();

protected:
    ~Module() override;

private:
    std::string _name;
    std::vector<Registration> _tasks;
};

}  // namespace Framework

// The entry point that every module library exports.
extern "C" {
typedef Framework::Module* (*CreateModuleFunc)();
}
