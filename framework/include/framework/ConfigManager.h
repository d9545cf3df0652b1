#pragma once

#include <mutex>
#include <string>

#include "framework/Export.h"

namespace Framework {

// The agent's resource configuration: what share of the machine's limits
// the agent may use. A value of 0 means "not configured": each user then
// keeps its own default.
struct ResourceConfig {
    int inotifyPercent = 0;  // share of the kernel's inotify limits, in percent
    int cpuPercent = 0;      // share of one CPU for the agent's busy threads
};

// Process-wide holder of the agent's configuration, loaded by the host from
// <installation>/conf/resource.conf (keys "inotify" and "cpu"). Thread-safe.
class FRAMEWORK_API ConfigManager {
public:
    static ConfigManager* GetInstance();

    // Loads the resource configuration file. A missing or malformed file, or
    // a value that is not a number in 1..100, leaves that value at 0 and
    // returns false. A key that is absent or set to 0 is "not configured":
    // 0, and not an error.
    bool LoadResourceConfig(const std::string& path);
    // Loads <installation path>conf/resource.conf.
    bool LoadFromInstallation();

    ResourceConfig GetResourceConfig() const;
    void SetResourceConfig(const ResourceConfig& config);

private:
    ConfigManager() = default;

    mutable std::mutex _mutex;
    ResourceConfig _resource;
};

}  // namespace Framework
