#include "FileNotifyLog.h"

#include <atomic>

#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {

std::atomic<Poco::Logger*> g_logger{nullptr};

}  // namespace

Poco::Logger* GetLoggerPtr() {
    Poco::Logger* logger = g_logger.load(std::memory_order_acquire);
    if (logger != nullptr) return logger;
    try {
        logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", false);
    } catch (...) {
        return nullptr;
    }
    g_logger.store(logger, std::memory_order_release);
    return logger;
}

}  // namespace Engine
