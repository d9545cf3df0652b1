#include "FileNotifyModule.h"

#include "FileNotifyTask.h"

namespace Engine {

FileNotifyModule::FileNotifyModule() : Framework::Module("filenotify_module") {}

int FileNotifyModule::Init() {
    RegisterTask(new FileNotifyTask(), false);
    Framework::Module::Init();
    return 0;
}

void FileNotifyModule::UnInit() {
    Framework::Module::UnInit();
}

}  // namespace Engine
