#pragma once

#include <mutex>
#include <set>
#include <string>

#include "framework/Export.h"

namespace Poco {
class Logger;
class Channel;
}  // namespace Poco

namespace SDK {

// Loggers of the agent and its modules, on POCO's logging.
//
// The host decides the level and the channel once at start-up (console by
// default, a rotating file on request); every module logger shares them.
// Loggers are POCO's process-wide objects: a pointer handed out stays valid
// for the life of the process. Thread-safe.
class FRAMEWORK_API LoggerUtils {
public:
    static LoggerUtils* GetInstance();

    // The logger of a module, named after it. With ownFile true and a file
    // channel configured, the module writes into "<name>.log" beside the
    // agent's log file; otherwise into the agent's common channel.
    // Never null.
    Poco::Logger* GetModuleLogger(const std::string& name, bool ownFile);

    // POCO priorities: 1 fatal ... 3 error, 4 warning, 6 information, 7 debug.
    // Applies to every logger, the ones already handed out included.
    void SetLevel(int priority);
    int GetLevel() const;

    // Records go to standard error (the default).
    void UseConsole();
    // Records go to a file rotated at rotateBytes, keeping `archives` old files.
    // Returns false (and keeps the current channel) when the file cannot be opened.
    bool UseRotatingFile(const std::string& path, unsigned long rotateBytes = 10UL << 20, int archives = 5);

private:
    LoggerUtils();
    void Apply(Poco::Channel* channel);

    mutable std::mutex _mutex;
    int _level;
    std::string _filePath;  // empty: console
    unsigned long _rotateBytes = 0;
    int _archives = 0;
    std::set<std::string> _handedOut;       // names of the loggers configured so far
    std::set<std::string> _ownFileLoggers;  // names of the loggers with a file of their own
};

}  // namespace SDK
