#include "CliSettings.h"

#include <filesystem>

#include <Poco/Logger.h>
#include <Poco/NumberParser.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionCallback.h>
#include <Poco/Util/OptionException.h>
#include <Poco/Util/OptionProcessor.h>
#include <Poco/Util/OptionSet.h>

#include "EventNames.h"
#include "FileNotifyMask.h"

namespace FileNotifyCli {

namespace {

using Poco::Util::Option;
using Poco::Util::OptionCallback;

constexpr unsigned int kAccess = Engine::FileNotifyMask::kAccess;
constexpr unsigned int kOpen = Engine::FileNotifyMask::kOpen;

long PositiveNumber(const std::string& option, const std::string& value) {
    Poco::Int64 number = 0;
    if (!Poco::NumberParser::tryParse64(value, number) || number <= 0) {
        throw Poco::Util::InvalidArgumentException("--" + option + " needs a number above 0, not '" + value + "'");
    }
    return static_cast<long>(number);
}

// path against base, without "." or ".." parts or a trailing "/".
std::string AbsolutePath(const std::string& base, const std::string& path) {
    if (path.empty()) return path;
    std::string normal = (std::filesystem::path(base) / path).lexically_normal().string();
    while (normal.size() > 1 && normal.back() == '/')
        normal.pop_back();
    return normal;
}

}  // namespace

unsigned int CliSettings::RequestMask() const {
    if (mode == Mode::Guard) return events != 0 ? (events & (kAccess | kOpen)) : kOpen;
    const unsigned int mask = events != 0 ? events : DefaultWatchMask();
    // Fanotify reports folder events only with the folder bit; inotify sets it itself.
    return process ? (mask | Engine::FileNotifyMask::kOnDirectory) : mask;
}

Engine::_FileNotifyOpt CliSettings::RequestOptions() const {
    Engine::_FileNotifyOpt opt;
    // A folder's fanotify mark reports its children only when recursive.
    opt.watchChildFolder = recursive || mode == Mode::Guard;
    opt.watchSymLink = followSymlinks;
    opt.onlyDir = onlyDir;
    opt.wholeMount = mount;
    opt.permit = mode == Mode::Guard;
    opt.simulateCreate = !noInitialCreate;
    opt.ignorePath = exclude;
    opt.ignoreFileExt = excludeExt;
    opt.fillStat = stat;
    opt.inotifyOnly = !NeedsFanotify();
    return opt;
}

void CliParser::Define(Poco::Util::OptionSet& options) {
    const auto flag = [&](const char* name, const char* shortName, const char* help, bool CliSettings::*field) {
        _flags[name] = field;
        options.addOption(Option(name, shortName, help).callback(OptionCallback<CliParser>(this, &CliParser::OnFlag)));
    };
    const auto value = [&](const char* name, const char* shortName, const char* help, const char* argument) {
        options.addOption(Option(name, shortName, help)
                              .argument(argument)
                              .repeatable(true)
                              .callback(OptionCallback<CliParser>(this, &CliParser::OnValue)));
    };
    flag("recursive", "r", "watch whole trees, following folders as they come and go", &CliSettings::recursive);
    value("event", "e", "events to report, comma-separated (see below); repeatable", "NAMES");
    flag("process", "p", "report access, modify, close and open through fanotify, with pid and exe",
         &CliSettings::process);
    flag("follow-symlinks", "", "follow symbolic links", &CliSettings::followSymlinks);
    flag("only-dir", "", "fanotify marks only folders", &CliSettings::onlyDir);
    flag("mount", "", "fanotify marks the whole mount that holds each path", &CliSettings::mount);
    value("exclude", "", "skip events below this path (recursive watches); repeatable", "PREFIX");
    value("exclude-ext", "", "skip files with this ending, without the dot; repeatable", "EXT");
    flag("stat", "", "add size, mode, owner and mtime of the file", &CliSettings::stat);
    flag("no-initial-create", "", "do not report the watched paths themselves as created",
         &CliSettings::noInitialCreate);
    value("deny", "", "guard: deny paths matching this glob (* also matches /); repeatable", "GLOB");
    value("deny-exe", "", "guard: deny accesses by this executable; repeatable", "PATH");
    flag("dry-run", "", "guard: print what would be denied, allow everything", &CliSettings::dryRun);
    value("format", "", "output format: text (default) or json", "FORMAT");
    flag("json", "", "same as --format json", &CliSettings::json);
    value("output", "o", "append the lines to FILE instead of stdout", "FILE");
    value("count", "c", "exit after N events", "N");
    value("timeout", "t", "exit after SECONDS", "SECONDS");
    value("log-level", "", "module log records from this level to stderr (default warning)", "LEVEL");
    value("log-file", "", "write the log to a rotating FILE instead of stderr", "FILE");
    value("home", "", "installation folder holding conf/ (default: the binary's parent)", "DIR");
    value("module", "", "module library (default: ../lib/libfilenotify_module.so)", "PATH");
}

void CliParser::OnFlag(const std::string& name, const std::string&) {
    _settings.*_flags.at(name) = true;
}

void CliParser::OnValue(const std::string& name, const std::string& value) {
    if (name == "event") {
        _settings.events |= ParseEventNames(value);
    } else if (name == "exclude") {
        _settings.exclude.push_back(value);
    } else if (name == "exclude-ext") {
        _settings.excludeExt.push_back(value);
    } else if (name == "deny") {
        _settings.deny.push_back(value);
    } else if (name == "deny-exe") {
        _settings.denyExe.push_back(value);
    } else if (name == "format") {
        if (value != "text" && value != "json") {
            throw Poco::Util::InvalidArgumentException("--format is text or json, not '" + value + "'");
        }
        _settings.json = value == "json";
    } else if (name == "output") {
        _settings.output = value;
    } else if (name == "count") {
        _settings.count = PositiveNumber(name, value);
    } else if (name == "timeout") {
        _settings.timeoutSeconds = PositiveNumber(name, value);
    } else if (name == "log-level") {
        _settings.logLevel = Poco::Logger::parseLevel(value);  // names or 1..8; throws for others
    } else if (name == "log-file") {
        _settings.logFile = value;
    } else if (name == "home") {
        _settings.home = value;
    } else if (name == "module") {
        _settings.module = value;
    }
}

bool CliParser::CheckArguments(const std::vector<std::string>& args, std::string& problem) {
    if (args.empty()) {
        problem = "say watch or guard, then one or more paths";
        return false;
    }
    if (args[0] == "watch") {
        _settings.mode = CliSettings::Mode::Watch;
    } else if (args[0] == "guard") {
        _settings.mode = CliSettings::Mode::Guard;
    } else {
        problem = "unknown command '" + args[0] + "': say watch or guard";
        return false;
    }
    const bool guard = _settings.mode == CliSettings::Mode::Guard;
    if (args.size() < 2) {
        problem = args[0] + " needs at least one path";
    } else if (!guard && (!_settings.deny.empty() || !_settings.denyExe.empty() || _settings.dryRun)) {
        problem = "--deny, --deny-exe and --dry-run belong to guard";
    } else if (guard && (_settings.events & ~(kOpen | kAccess)) != 0) {
        problem = "guard reports open and access only";
    }
    if (!problem.empty()) return false;
    for (std::size_t i = 1; i < args.size(); ++i)
        _settings.paths.push_back(AbsolutePath(_startDir, args[i]));
    _settings.output = AbsolutePath(_startDir, _settings.output);
    _settings.logFile = AbsolutePath(_startDir, _settings.logFile);
    return true;
}

// The loop of Poco::Util::Application::processOptions, without an application.
bool CliParser::Parse(const std::vector<std::string>& args, std::string& problem) {
    Poco::Util::OptionSet options;
    Define(options);
    Poco::Util::OptionProcessor processor(options);
    processor.setUnixStyle(true);
    std::vector<std::string> words;
    try {
        for (const std::string& arg : args) {
            std::string name;
            std::string value;
            if (!processor.process(arg, name, value)) {
                words.push_back(arg);
            } else if (!name.empty()) {
                const Option& option = options.getOption(name);
                if (option.callback() != nullptr) option.callback()->invoke(name, value);
            }
        }
        processor.checkRequired();
    } catch (const Poco::Exception& error) {
        problem = error.displayText();
        return false;
    }
    return CheckArguments(words, problem);
}

}  // namespace FileNotifyCli
