#pragma once

#include <string>
#include <utility>

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "FileNotifyExport.h"

namespace Engine {

// The module logger ("filenotify_module"), or null when the agent has none.
// Fetched once, then cached for the life of the process; any thread.
FILENOTIFY_API Poco::Logger* GetLoggerPtr();

// POCO priorities used by the module.
enum LogPriority : int {
    LOG_ERROR = Poco::Message::PRIO_ERROR,              // 3
    LOG_WARNING = Poco::Message::PRIO_WARNING,          // 4
    LOG_INFORMATION = Poco::Message::PRIO_INFORMATION,  // 6
    LOG_DEBUG = Poco::Message::PRIO_DEBUG,              // 7
};

// True when the module logger writes records of this priority.
inline bool LogAdmits(int priority) noexcept {
    Poco::Logger* logger = GetLoggerPtr();
    return logger != nullptr && logger->is(priority);
}

// Writes one record to the module logger. The text is formatted only when
// the logger admits the priority; nothing thrown while formatting or writing
// leaves this function (a record that cannot be built is dropped).
template <typename... Args>
void WriteLog(int priority, const char* file, int line, const char* format, Args&&... args) noexcept {
    try {
        if (!LogAdmits(priority)) return;
        Poco::Logger* logger = GetLoggerPtr();
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

}  // namespace Engine

// FN_LOG(Engine::LOG_DEBUG, "wd=%d", wd): one record with this file and line.
// The arguments are evaluated only when the logger admits the priority.
#define FN_LOG(priority, ...)                                                                                       \
    do {                                                                                                            \
        const int fnLogPriority = (priority);                                                                       \
        if (::Engine::LogAdmits(fnLogPriority)) ::Engine::WriteLog(fnLogPriority, __FILE__, __LINE__, __VA_ARGS__); \
    } while (false)
