#include "framework/Module.h"

#include <Poco/Format.h>
#include <Poco/Logger.h>

#include "FrameworkLog.h"

namespace Framework {

Module::Module(const std::string& moduleName) : _name(moduleName) {}

Module::~Module() {
    ReleaseTasks();
}

const char* Module::name() const {
    return _name.c_str();
}

void Module::initialize(Poco::Util::Application& /*app*/) {
    Init();
}

void Module::uninitialize() {
    UnInit();
}

int Module::Init() {
    poco_debug(FrameworkLogger(), Poco::format("module %s: %z task(s) registered", _name, _tasks.size()));
    return 0;
}

void Module::UnInit() {}

int Module::RefreshPolicy() {
    return 0;
}

int Module::RegisterTask(Task* task, bool required) {
    if (task == nullptr) return 1;
    _tasks.push_back(Registration{Poco::AutoPtr<Task>(task), required});
    return 0;
}

void Module::ReleaseTasks() {
    while (!_tasks.empty())
        _tasks.pop_back();
}

}  // namespace Framework
