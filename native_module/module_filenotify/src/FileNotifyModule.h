#pragma once

#include "framework/Module.h"

namespace Engine {

// The module object: registers the module's one task.
class FileNotifyModule : public Framework::Module {
public:
    FileNotifyModule();

    // Builds and registers FileNotifyTask. Returns 0.
    int Init() override;
    void UnInit() override;

protected:
    ~FileNotifyModule() override = default;
};

}  // namespace Engine
