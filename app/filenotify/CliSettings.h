#pragma once

#include <string>
#include <vector>

#include "FileNotifyOpt.h"

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

}  // namespace FileNotifyCli
