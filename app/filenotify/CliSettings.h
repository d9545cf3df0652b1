#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "FileNotifyOpt.h"

namespace Poco::Util {
class OptionSet;
}

namespace FileNotifyCli {

// What the command line asked for.
struct CliSettings {
    enum class Mode { None, Watch, Guard };

    Mode mode = Mode::None;
    std::vector<std::string> paths;
    unsigned int events = 0;  // 0: the mode's default
    bool recursive = false;
    bool followSymlinks = false;
    bool onlyDir = false;
    bool mount = false;
    bool stat = false;
    bool noInitialCreate = false;
    bool process = false;  // -p: fanotify reports what it can, with the acting process
    std::vector<std::string> exclude;
    std::vector<std::string> excludeExt;
    std::vector<std::string> deny;     // guard: path globs to deny
    std::vector<std::string> denyExe;  // guard: executables to deny
    bool dryRun = false;
    bool json = false;
    std::string output;  // empty: stdout
    long count = 0;      // 0: no limit
    long timeoutSeconds = 0;
    int logLevel = 4;
    std::string logFile;
    std::string home;
    std::string module;

    bool NeedsFanotify() const { return mode == Mode::Guard || process; }
    // The event bits of one request: -e, or the mode's default.
    unsigned int RequestMask() const;
    // The watch options of one request.
    Engine::_FileNotifyOpt RequestOptions() const;
};

// Reads the command line into CliSettings. The command adds Define's
// options to its application's set (help and version are its own), and the
// application's option processing calls back here for each one; bad values
// throw Poco::Exception. CheckArguments then takes the words left over.
class CliParser {
public:
    // Relative paths are taken against startDir.
    explicit CliParser(std::string startDir) : _startDir(std::move(startDir)) {}
    CliParser(const CliParser&) = delete;
    CliParser& operator=(const CliParser&) = delete;

    // The callbacks refer to this parser: it must outlive options.
    void Define(Poco::Util::OptionSet& options);
    // The mode and its paths, made absolute. False, with the problem told,
    // for a usage error.
    bool CheckArguments(const std::vector<std::string>& args, std::string& problem);
    // The whole command line without the program name, processed as the
    // application processes it, then checked; nothing is printed or run.
    bool Parse(const std::vector<std::string>& args, std::string& problem);

    CliSettings& Settings() { return _settings; }

private:
    void OnFlag(const std::string& name, const std::string& value);
    void OnValue(const std::string& name, const std::string& value);

    CliSettings _settings;
    std::map<std::string, bool CliSettings::*> _flags;
    std::string _startDir;
};

}  // namespace FileNotifyCli
