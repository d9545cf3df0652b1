#include "FileNotifyLimit.h"

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "FileNotifyLog.h"
#include "framework/ConfigManager.h"
#include "sdk/ConfigUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/PathUtils.h"

namespace Engine {

namespace {

// The limits are products of two 32-bit values that may wrap (file-max is
// often far above INT_MAX); wrap explicitly instead of overflowing a signed int.
int PercentOf(int value, int percent) {
    const auto product = static_cast<std::uint32_t>(value) * static_cast<std::uint32_t>(percent);
    return static_cast<std::int32_t>(product) / 100;
}

}  // namespace

FileNotifyLimit::FileNotifyLimit() : FileNotifyLimit(KernelFiles()) {}

FileNotifyLimit::FileNotifyLimit(KernelFiles files) : _files(std::move(files)) {
    InitLimit();
}

int FileNotifyLimit::GetFileSetting(const std::string& path) {
    std::string content;
    SDK::FileUtils::ReadFile(path, content, 64);
    // Narrowed like the kernel's value in a 32-bit int: a huge file-max turns
    // into a value that CalculateLimitParam may then ignore as not positive.
    return static_cast<int>(std::strtol(content.c_str(), nullptr, 10));
}

void FileNotifyLimit::CalculateLimitParam(int percent, int maxUserInstances, int fileMax, int maxUserWatches) {
    if (maxUserWatches > 0) {
        _limitWatches = PercentOf(maxUserWatches, percent);
        _kernelWatches = maxUserWatches;
        _watchPercent = percent;
    }
    if (maxUserInstances > 0) _limitInstances = PercentOf(maxUserInstances, percent);
    if (fileMax > 0) _limitFile = PercentOf(fileMax, percent);
    FN_LOG(LOG_DEBUG, "limit_watches=%d,limit_instances=%d,limit_file=%d", _limitWatches, _limitInstances, _limitFile);
}

FileNotifyLimit::KernelValues FileNotifyLimit::ReadKernelValues() const {
    KernelValues values{};
    values.maxUserInstances = GetFileSetting(_files.maxUserInstances);
    values.fileMax = GetFileSetting(_files.fileMax);
    values.maxUserWatches = GetFileSetting(_files.maxUserWatches);
    return values;
}

void FileNotifyLimit::InitLimit() {
    const KernelValues kernel = ReadKernelValues();
    int percent = Framework::ConfigManager::GetInstance()->GetResourceConfig().inotifyPercent;
    if (percent <= 0) {
        percent = _percent;
    } else {
        FN_LOG(LOG_DEBUG, "inotifyPercent=%d", percent);
    }
    CalculateLimitParam(percent, kernel.maxUserInstances, kernel.fileMax, kernel.maxUserWatches);
}

void FileNotifyLimit::AutoScaleLimit() {
    const KernelValues kernel = ReadKernelValues();
    int percent = _percent;
    std::string installPath;
    SDK::ConfigUtils config;
    const bool loaded =
        SDK::PathUtils::GetInstallationPath(installPath) && config.LoadConfigFile(installPath + "conf/resource.conf");
    if (!loaded) {
        FN_LOG(LOG_ERROR, "Failed to get inotiy config, installPath=%s", installPath);
    } else {
        percent = config.GetIntValue("inotify", _percent);
        if (percent <= 0) percent = _percent;
        FN_LOG(LOG_INFORMATION, "auto scale inotify limit, percent=%d, max_watches=%d", percent, kernel.maxUserWatches);
    }
    CalculateLimitParam(percent, kernel.maxUserInstances, kernel.fileMax, kernel.maxUserWatches);
}

}  // namespace Engine
