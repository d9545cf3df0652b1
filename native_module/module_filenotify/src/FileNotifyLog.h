#pragma once

#include <chrono>
#include <string>
#include <utility>

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "FileNotifyUtils.h"

namespace Engine {

// POCO priorities used by the module.
enum LogPriority : int {
    LOG_ERROR = Poco::Message::PRIO_ERROR,              // 3
    LOG_WARNING = Poco::Message::PRIO_WARNING,          // 4
    LOG_INFORMATION = Poco::Message::PRIO_INFORMATION,  // 6
    LOG_DEBUG = Poco::Message::PRIO_DEBUG,              // 7
};

// True when the module logger writes records of this priority.
inline bool LogAdmits(int priority) noexcept {
    Poco::Logger* logger = FileNotifyUtils::GetLoggerPtr();
    return logger != nullptr && logger->is(priority);
}

// Writes one record to the module logger. The text is formatted only when
// the logger admits the priority; nothing thrown while formatting or writing
// leaves this function (a record that cannot be built is dropped).
template <typename... Args>
void WriteLog(int priority, const char* file, int line, const char* format, Args&&... args) noexcept {
    try {
        if (!LogAdmits(priority)) return;
        Poco::Logger* logger = FileNotifyUtils::GetLoggerPtr();
        std::string text;
        if constexpr (sizeof...(Args) == 0) {
            text = format;
        } else {
            text = Poco::format(std::string(format), std::forward<Args>(args)...);
        }
        logger->log(Poco::Message(logger->name(), text, static_cast<Poco::Message::Priority>(priority), file, line));
    } catch (...) {
    }
}

// Lets one record of a kind through a second, so that what can repeat
// without end (a changing tree) cannot flood the log; counts the rest.
class LogRateLimit {
public:
    // True when a record may be written now; held is then the number of
    // records held back since the last one.
    bool Admit(unsigned long& held) {
        const auto now = std::chrono::steady_clock::now();
        if (_last != std::chrono::steady_clock::time_point{} && now - _last < std::chrono::seconds(1)) {
            ++_held;
            return false;
        }
        _last = now;
        held = _held;
        _held = 0;
        return true;
    }

private:
    std::chrono::steady_clock::time_point _last{};
    unsigned long _held = 0;
};

}  // namespace Engine

// FN_LOG(Engine::LOG_DEBUG, "wd=%d", wd): one record with this file and line.
// The arguments are evaluated only when the logger admits the priority.
#define FN_LOG(priority, ...)                                                                                       \
    do {                                                                                                            \
        const int fnLogPriority = (priority);                                                                       \
        if (::Engine::LogAdmits(fnLogPriority)) ::Engine::WriteLog(fnLogPriority, __FILE__, __LINE__, __VA_ARGS__); \
    } while (false)
