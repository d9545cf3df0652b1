#include "FileNotifyModule.h"

// The module's one exported symbol: the host takes the returned reference.
extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new Engine::FileNotifyModule();
}
