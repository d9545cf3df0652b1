#include "WatchLimitTap.h"

#include <cstdio>
#include <fstream>

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "FileNotifyLog.h"
#include "framework/ConfigManager.h"
#include "sdk/PathUtils.h"

namespace FileNotifyCli {

namespace {

int KernelWatchLimit() {
    std::ifstream in("/proc/sys/fs/inotify/max_user_watches");
    int value = 0;
    in >> value;
    return value;
}

}  // namespace

WatchLimitTap::WatchLimitTap() : _logger(Engine::GetLoggerPtr()), _recorder(new Recorder) {
    if (_logger == nullptr) return;
    _recorder->next = _logger->getChannel();
    _logger->setChannel(_recorder);
}

WatchLimitTap::~WatchLimitTap() {
    if (_logger != nullptr) _logger->setChannel(_recorder->next);
}

void WatchLimitTap::Recorder::log(const Poco::Message& message) {
    if (next) next->log(message);
    if (message.getPriority() > Poco::Message::PRIO_ERROR) return;
    std::lock_guard<std::mutex> lock(mutex);
    lastError = message.getText();
    int neededNow = 0;
    int allowedNow = 0;
    // The module's record of a tree larger than the watches it may still add.
    if (std::sscanf(lastError.c_str(), "new Watch size %d is over than max size  %d", &neededNow, &allowedNow) == 2) {
        needed = neededNow;
        allowed = allowedNow;
    }
}

std::string WatchLimitTap::Explain() const {
    std::lock_guard<std::mutex> lock(_recorder->mutex);
    if (_recorder->allowed >= 0) {
        std::string home;
        SDK::PathUtils::GetInstallationPath(home);
        const int percent = Framework::ConfigManager::GetInstance()->GetResourceConfig().inotifyPercent;
        return "the tree needs " + std::to_string(_recorder->needed) + " inotify watches, only " +
               std::to_string(_recorder->allowed) + " more are allowed (" + std::to_string(percent) +
               "% of fs.inotify.max_user_watches=" + std::to_string(KernelWatchLimit()) +
               "); raise them with 'sysctl -w fs.inotify.max_user_watches=N' or the inotify percentage in " + home +
               "conf/resource.conf";
    }
    if (!_recorder->lastError.empty()) return "the module says: " + _recorder->lastError;
    return "the module refused it (a higher --log-level shows why)";
}

}  // namespace FileNotifyCli
