#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/SharedLibrary.h>

#include "framework/Export.h"
#include "framework/Module.h"
#include "framework/TaskRunner.h"

namespace Framework {

// Loads one module library and runs its tasks.
//
// Load: dlopen (Poco::SharedLibrary), CreateModule, the module's Init.
// Start: each registered task's Init, then its own thread.
// Stop: cancel and join the tasks (last first), their UnInit, the module's
// UnInit, release tasks and module, unload the library. No thread of the
// module survives Stop. The destructor stops. Used from one thread.
class FRAMEWORK_API ModuleHost {
public:
    ModuleHost() = default;
    ~ModuleHost();
    ModuleHost(const ModuleHost&) = delete;
    ModuleHost& operator=(const ModuleHost&) = delete;

    // Returns 0, or 1 with a reason in error (library not found, no
    // CreateModule, CreateModule returned null, Init failed).
    int Load(const std::string& libraryPath, std::string& error);
    // Returns 0, or 1 with a reason when a required task failed its Init (the
    // tasks already started are stopped again).
    int Start(std::string& error);
    void Stop();

    Module* GetModule() { return _module.get(); }
    // The module's task of that name, or null.
    Task* FindTask(const std::string& taskName);

private:
    // Cancels, joins and un-initialises the running tasks, last started first.
    void StopTasks();
    void Unload();

    std::unique_ptr<Poco::SharedLibrary> _library;
    Poco::AutoPtr<Module> _module;
    std::vector<std::unique_ptr<TaskRunner>> _runners;
};

}  // namespace Framework
