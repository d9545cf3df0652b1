#pragma once

#include <Poco/Logger.h>

#include "sdk/LoggerUtils.h"

namespace Framework {

// The framework's own logger, looked up once. Records go through POCO's
// poco_warning/poco_debug macros, which test the level before the text is
// built and carry file and line.
inline Poco::Logger& FrameworkLogger() {
    static Poco::Logger* const logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
    return *logger;
}

}  // namespace Framework
