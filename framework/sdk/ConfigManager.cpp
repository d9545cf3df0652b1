#include "framework/ConfigManager.h"

#include "sdk/ConfigUtils.h"
#include "sdk/PathUtils.h"

namespace Framework {

namespace {

const char* const kResourceFile = "conf/resource.conf";

// An absent key, or 0, is "not configured": 0, and not an error. A value
// outside 0..100 or not a number is an error and also reads as 0.
bool ReadPercent(const SDK::ConfigUtils& config, const char* key, int& percent) {
    percent = 0;
    if (!config.HasKey(key)) return true;
    const int value = config.GetIntValue(key, -1);
    if (value < 0 || value > 100) return false;
    percent = value;
    return true;
}

}  // namespace

ConfigManager* ConfigManager::GetInstance() {
    static ConfigManager instance;
    return &instance;
}

bool ConfigManager::LoadResourceConfig(const std::string& path) {
    ResourceConfig loaded;
    SDK::ConfigUtils config;
    bool ok = config.LoadConfigFile(path);
    if (ok) {
        // Both read even when the first is bad: one bad value spoils only itself.
        const bool inotifyOk = ReadPercent(config, "inotify", loaded.inotifyPercent);
        const bool cpuOk = ReadPercent(config, "cpu", loaded.cpuPercent);
        ok = inotifyOk && cpuOk;
    }
    SetResourceConfig(loaded);
    return ok;
}

bool ConfigManager::LoadFromInstallation() {
    std::string home;
    if (!SDK::PathUtils::GetInstallationPath(home)) {
        SetResourceConfig(ResourceConfig());
        return false;
    }
    return LoadResourceConfig(home + kResourceFile);
}

ResourceConfig ConfigManager::GetResourceConfig() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _resource;
}

void ConfigManager::SetResourceConfig(const ResourceConfig& config) {
    std::lock_guard<std::mutex> lock(_mutex);
    _resource = config;
}

}  // namespace Framework
