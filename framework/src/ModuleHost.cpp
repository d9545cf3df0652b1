#include "framework/ModuleHost.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>

#include "FrameworkLog.h"

namespace Framework {

ModuleHost::~ModuleHost() {
    Stop();
}

int ModuleHost::Load(const std::string& libraryPath, std::string& error) {
    if (_library) {
        error = "a module is already loaded from " + _library->getPath();
        return 1;
    }
    try {
        // Local binding: two modules never see each other's symbols.
        _library = std::make_unique<Poco::SharedLibrary>(libraryPath, Poco::SharedLibrary::SHLIB_LOCAL);
    } catch (const Poco::Exception& e) {
        error = "cannot load " + libraryPath + ": " + e.displayText();
        return 1;
    }
    if (!_library->hasSymbol("CreateModule")) {
        error = libraryPath + " does not export CreateModule";
        Unload();
        return 1;
    }
    auto create = reinterpret_cast<CreateModuleFunc>(_library->getSymbol("CreateModule"));
    Module* module = nullptr;
    try {
        module = create();
    } catch (...) {
        // reported below like a module that was not made
    }
    if (module == nullptr) {
        error = "CreateModule of " + libraryPath + " returned no module";
        Unload();
        return 1;
    }
    _module.assign(module);  // takes the reference CreateModule made
    int r = -1;
    try {
        r = _module->Init();
    } catch (...) {
        // reported below as a failed Init
    }
    if (r != 0) {
        error = Poco::format("module %s failed to initialise (%d)", std::string(_module->name()), r);
        _module->UnInit();
        _module->ReleaseTasks();
        _module.reset();
        Unload();
        return 1;
    }
    poco_information(FrameworkLogger(),
                     Poco::format("loaded module %s from %s", std::string(_module->name()), libraryPath));
    return 0;
}

int ModuleHost::Start(std::string& error) {
    if (!_module) {
        error = "no module loaded";
        return 1;
    }
    if (!_runners.empty()) return 0;
    for (auto& reg : _module->GetTasks()) {
        auto runner = std::make_unique<TaskRunner>(reg.task.get());
        if (const int r = runner->Start(); r != 0) {
            const std::string reason = Poco::format("task %s failed to initialise (%d)", reg.task->GetTaskName(), r);
            if (reg.required) {
                error = reason;
                StopTasks();
                return 1;
            }
            poco_warning(FrameworkLogger(), reason + "; the module runs without it");
            continue;
        }
        _runners.push_back(std::move(runner));
    }
    return 0;
}

void ModuleHost::StopTasks() {
    // Cancel them all first so that they wind down together, then join.
    for (auto it = _runners.rbegin(); it != _runners.rend(); ++it)
        (*it)->GetTask()->cancel();
    for (auto it = _runners.rbegin(); it != _runners.rend(); ++it)
        (*it)->Stop();
    _runners.clear();
}

void ModuleHost::Stop() {
    StopTasks();
    if (_module) {
        _module->UnInit();
        _module->ReleaseTasks();
        _module.reset();
    }
    Unload();
}

Task* ModuleHost::FindTask(const std::string& taskName) {
    if (!_module) return nullptr;
    for (auto& reg : _module->GetTasks()) {
        if (reg.task->GetTaskName() == taskName) return reg.task.get();
    }
    return nullptr;
}

void ModuleHost::Unload() {
    // Every object whose code lives in the library is gone by now.
    if (_library) {
        if (_library->isLoaded()) _library->unload();
        _library.reset();
    }
}

}  // namespace Framework
