#include "sdk/LoggerUtils.h"

#include <algorithm>

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <Poco/Path.h>
#include <Poco/PatternFormatter.h>

namespace SDK {

namespace {

// Module loggers are children of this one, so that one POCO call sets the
// level or the channel of all of them, and later ones inherit both.
const char* const kRootName = "agent";
const char* const kPattern = "%Y-%m-%d %H:%M:%S.%i [%p] <%I> %s (%U:%u) %t";

std::string LoggerName(const std::string& module) {
    return module.empty() ? std::string(kRootName) : std::string(kRootName) + "." + module;
}

Poco::Channel::Ptr Formatted(const Poco::Channel::Ptr& sink) {
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter(kPattern));
    formatter->setProperty("times", "local");
    return new Poco::FormattingChannel(formatter, sink);
}

Poco::Channel::Ptr MakeConsoleChannel() {
    return Formatted(new Poco::ConsoleChannel());
}

// Opened here so that a file that cannot be created is known at once;
// throws Poco::Exception then.
Poco::Channel::Ptr MakeFileChannel(const std::string& path, unsigned long rotateBytes, int archives) {
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
    file->setProperty(Poco::FileChannel::PROP_ROTATION, rotateBytes == 0 ? "never" : std::to_string(rotateBytes));
    file->setProperty(Poco::FileChannel::PROP_ARCHIVE, "number");
    file->setProperty(Poco::FileChannel::PROP_PURGECOUNT, std::to_string(std::max(archives, 1)));
    file->open();
    return Formatted(file);
}

// "<folder of the agent's log>/<module>.log"; a "/" in the module name must
// not lead the file elsewhere.
std::string OwnFilePath(const std::string& agentFile, std::string module) {
    std::replace(module.begin(), module.end(), '/', '_');
    Poco::Path path(agentFile);
    path.setFileName(module + ".log");
    return path.toString();
}

int ClampLevel(int priority) {
    return std::clamp(priority, 0, static_cast<int>(Poco::Message::PRIO_TRACE));
}

}  // namespace

LoggerUtils* LoggerUtils::GetInstance() {
    static LoggerUtils instance;
    return &instance;
}

LoggerUtils::LoggerUtils() : _level(Poco::Message::PRIO_WARNING) {
    Poco::Logger::get(kRootName);  // Poco::Logger::setLevel/setChannel reach existing loggers only
    Poco::Logger::setLevel(kRootName, _level);
    Apply(MakeConsoleChannel());
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool ownFile) {
    std::lock_guard<std::mutex> lock(_mutex);
    Poco::Logger& logger = Poco::Logger::get(LoggerName(name));
    // Configured when first handed out (or first asked for its own file);
    // later calls are cheap lookups that leave the logger as it is.
    const bool newOwnFile = ownFile && !name.empty() && _ownFileLoggers.insert(name).second;
    if (!_handedOut.insert(name).second && !newOwnFile) return &logger;
    // A logger made earlier outside this class did not inherit the agent's
    // settings. Changed only when they differ: POCO does not guard a
    // logger's channel against a thread logging through it meanwhile.
    if (logger.getLevel() != _level) logger.setLevel(_level);
    const Poco::Channel::Ptr common = Poco::Logger::get(kRootName).getChannel();
    if (_filePath.empty() || _ownFileLoggers.count(name) == 0) {
        if (logger.getChannel() != common) logger.setChannel(common);
    } else if (logger.getChannel() == common || logger.getChannel().isNull()) {
        // Own file not open yet (or it failed before): try it now. A logger
        // that already writes its own file keeps that channel.
        try {
            logger.setChannel(MakeFileChannel(OwnFilePath(_filePath, name), _rotateBytes, _archives));
        } catch (const Poco::Exception&) {
            logger.setChannel(common);  // the common file rather than nowhere
        }
    }
    return &logger;
}

void LoggerUtils::SetLevel(int priority) {
    std::lock_guard<std::mutex> lock(_mutex);
    _level = ClampLevel(priority);
    Poco::Logger::setLevel(kRootName, _level);
}

int LoggerUtils::GetLevel() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _level;
}

void LoggerUtils::UseConsole() {
    std::lock_guard<std::mutex> lock(_mutex);
    _filePath.clear();
    Apply(MakeConsoleChannel());
}

bool LoggerUtils::UseRotatingFile(const std::string& path, unsigned long rotateBytes, int archives) {
    std::lock_guard<std::mutex> lock(_mutex);
    Poco::Channel::Ptr common;
    try {
        common = MakeFileChannel(path, rotateBytes, archives);
    } catch (const Poco::Exception&) {
        return false;
    }
    _filePath = path;
    _rotateBytes = rotateBytes;
    _archives = archives;
    Apply(common);
    for (const auto& name : _ownFileLoggers) {
        try {
            Poco::Logger::get(LoggerName(name))
                .setChannel(MakeFileChannel(OwnFilePath(path, name), rotateBytes, archives));
        } catch (const Poco::Exception&) {
            // keeps the common file set by Apply
        }
    }
    return true;
}

// The caller holds _mutex.
void LoggerUtils::Apply(Poco::Channel* channel) {
    Poco::Logger::setChannel(kRootName, Poco::Channel::Ptr(channel, true));
}

}  // namespace SDK
