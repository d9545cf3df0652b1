// filenotify: file events and file-access control from the shell. Loads the
// notification module with the agent's host runtime, sends it one watch
// request per path from a consumer task, and prints what comes back.

#include <fcntl.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <system_error>

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/NumberParser.h>
#include <Poco/Path.h>
#include <Poco/PatternFormatter.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionException.h>
#include <Poco/Util/OptionSet.h>
#include <Poco/Util/ServerApplication.h>

#include "CliSettings.h"
#include "EventNames.h"
#include "FileNotifyMask.h"
#include "FileNotifyUtils.h"
#include "FileNotifyWatchMessage.h"
#include "OutputSink.h"
#include "WatchConsumer.h"
#include "WatchLimitTap.h"
#include "framework/ConfigManager.h"
#include "framework/ModuleHost.h"
#include "framework/TaskRunner.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

namespace FileNotifyCli {

namespace {

using Poco::Util::Option;
using Poco::Util::OptionCallback;

constexpr int kExitUsage = 2;
constexpr int kExitNoCapability = 3;
constexpr int kExitNoModule = 4;
constexpr int kExitNothingWatched = 1;
constexpr int kExitOutputFailed = 5;

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

// A path for a message: quoted when empty, its start only when it is too
// long to read.
std::string Shown(const std::string& path) {
    constexpr std::size_t kShownBytes = 120;
    if (path.empty()) return "''";
    if (path.size() <= kShownBytes) return path;
    return path.substr(0, kShownBytes) + "...";
}

// Why fanotify cannot be used here, or empty when it can.
std::string FanotifyRefusal() {
    const int fd = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
    if (fd >= 0) {
        ::close(fd);
        return std::string();
    }
    if (errno == EPERM) {
        return "needs CAP_SYS_ADMIN for fanotify (fanotify_init: " + std::generic_category().message(EPERM) +
               "); run it as root or grant the capability";
    }
    return "cannot use fanotify on this kernel (fanotify_init: " + std::generic_category().message(errno) + ")";
}

class FileNotifyApp : public Poco::Util::ServerApplication {
public:
    FileNotifyApp() : _startDir(Poco::Path::current()) {
        // POCO reports option errors through this logger: one plain line.
        Poco::AutoPtr<Poco::PatternFormatter> format(new Poco::PatternFormatter("filenotify: %t"));
        Poco::AutoPtr<Poco::Channel> console(new Poco::FormattingChannel(format, new Poco::ConsoleChannel));
        Poco::Logger::get("ApplicationStartup").setChannel(console);
    }

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    int main(const std::vector<std::string>& args) override;

private:
    Option Flag(const char* name, const char* shortName, const char* help, bool CliSettings::*field) {
        _flags[name] = field;
        return Option(name, shortName, help).callback(OptionCallback<FileNotifyApp>(this, &FileNotifyApp::OnFlag));
    }
    Option Value(const char* name, const char* shortName, const char* help, const char* argument) {
        return Option(name, shortName, help)
            .argument(argument)
            .repeatable(true)
            .callback(OptionCallback<FileNotifyApp>(this, &FileNotifyApp::OnValue));
    }
    void OnFlag(const std::string& name, const std::string&) { _settings.*_flags.at(name) = true; }
    void OnValue(const std::string& name, const std::string& value);
    void OnHelp(const std::string&, const std::string&);

    int Usage(const std::string& problem) const {
        std::cerr << "filenotify: " << problem << " (filenotify --help lists the options)" << std::endl;
        return kExitUsage;
    }
    int CheckArguments(const std::vector<std::string>& args);
    void ConfigureAgent();
    std::string BinaryFolder() const { return Poco::Path(config().getString("application.path")).parent().toString(); }
    int WatchAll(Framework::ModuleHost& host, WatchConsumer& consumer, const WatchLimitTap& tap);
    int WaitForStop();
    int Finish(const WatchConsumer& consumer, OutputSink& output, int result) const;

    CliSettings _settings;
    std::map<std::string, bool CliSettings::*> _flags;
    std::string _startDir;
    bool _done = false;
};

void FileNotifyApp::defineOptions(Poco::Util::OptionSet& options) {
    ServerApplication::defineOptions(options);
    options.addOption(
        Flag("recursive", "r", "watch whole trees, following folders as they come and go", &CliSettings::recursive));
    options.addOption(Value("event", "e", "events to report, comma-separated (see below); repeatable", "NAMES"));
    options.addOption(Flag("process", "p", "report access, modify, close and open through fanotify, with pid and exe",
                           &CliSettings::process));
    options.addOption(Flag("follow-symlinks", "", "follow symbolic links", &CliSettings::followSymlinks));
    options.addOption(Flag("only-dir", "", "fanotify marks only folders", &CliSettings::onlyDir));
    options.addOption(Flag("mount", "", "fanotify marks the whole mount that holds each path", &CliSettings::mount));
    options.addOption(Value("exclude", "", "skip events below this path (recursive watches); repeatable", "PREFIX"));
    options.addOption(Value("exclude-ext", "", "skip files with this ending, without the dot; repeatable", "EXT"));
    options.addOption(Flag("stat", "", "add size, mode, owner and mtime of the file", &CliSettings::stat));
    options.addOption(Flag("no-initial-create", "", "do not report the watched paths themselves as created",
                           &CliSettings::noInitialCreate));
    options.addOption(Value("deny", "", "guard: deny paths matching this glob (* also matches /); repeatable", "GLOB"));
    options.addOption(Value("deny-exe", "", "guard: deny accesses by this executable; repeatable", "PATH"));
    options.addOption(Flag("dry-run", "", "guard: print what would be denied, allow everything", &CliSettings::dryRun));
    options.addOption(Value("format", "", "output format: text (default) or json", "FORMAT"));
    options.addOption(Flag("json", "", "same as --format json", &CliSettings::json));
    options.addOption(Value("output", "o", "append the lines to FILE instead of stdout", "FILE"));
    options.addOption(Value("count", "c", "exit after N events", "N"));
    options.addOption(Value("timeout", "t", "exit after SECONDS", "SECONDS"));
    options.addOption(
        Value("log-level", "", "module log records from this level to stderr (default warning)", "LEVEL"));
    options.addOption(Value("log-file", "", "write the log to a rotating FILE instead of stderr", "FILE"));
    options.addOption(Value("home", "", "installation folder holding conf/ (default: the binary's parent)", "DIR"));
    options.addOption(Value("module", "", "module library (default: ../lib/libfilenotify_module.so)", "PATH"));
    options.addOption(Option("version", "", "print the version and exit")
                          .callback(OptionCallback<FileNotifyApp>(this, &FileNotifyApp::OnValue)));
    options.addOption(Option("help", "h", "print this help and exit")
                          .callback(OptionCallback<FileNotifyApp>(this, &FileNotifyApp::OnHelp)));
}

void FileNotifyApp::OnValue(const std::string& name, const std::string& value) {
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
    } else if (name == "version") {
        std::cout << "filenotify " << FN_VERSION << std::endl;
        _done = true;
        stopOptionsProcessing();
    }
}

void FileNotifyApp::OnHelp(const std::string&, const std::string&) {
    Poco::Util::HelpFormatter help(options());
    help.setCommand("filenotify");
    help.setUsage("watch|guard [OPTIONS] PATH...");
    help.setHeader(
        "watch: print file events of the paths (inotify; -p adds fanotify with the acting process).\n"
        "guard: ask for every open of the files in each folder and deny what --deny or --deny-exe names "
        "(fanotify, needs CAP_SYS_ADMIN).");
    help.setFooter("Event names: " + ValidEventNames() +
                   ".\nExamples:\n  filenotify watch -r -e create,delete,move /srv/data\n"
                   "  filenotify guard --deny '*.key' --json -o /var/log/guard.jsonl /etc/ssl/private");
    help.setUnixStyle(true);
    help.format(std::cout);
    _done = true;
    stopOptionsProcessing();
}

int FileNotifyApp::CheckArguments(const std::vector<std::string>& args) {
    if (args.empty()) return Usage("say watch or guard, then one or more paths");
    if (args[0] == "watch") {
        _settings.mode = CliSettings::Mode::Watch;
    } else if (args[0] == "guard") {
        _settings.mode = CliSettings::Mode::Guard;
    } else {
        return Usage("unknown command '" + args[0] + "': say watch or guard");
    }
    if (args.size() < 2) return Usage(args[0] + " needs at least one path");
    const bool guard = _settings.mode == CliSettings::Mode::Guard;
    if (!guard && (!_settings.deny.empty() || !_settings.denyExe.empty() || _settings.dryRun)) {
        return Usage("--deny, --deny-exe and --dry-run belong to guard");
    }
    if (guard && (_settings.events & ~(Engine::FileNotifyMask::kOpen | Engine::FileNotifyMask::kAccess)) != 0) {
        return Usage("guard reports open and access only");
    }
    // Against the folder it was started in: --daemon moves to "/" before this.
    const auto absolute = [this](const std::string& path) { return AbsolutePath(_startDir, path); };
    for (std::size_t i = 1; i < args.size(); ++i)
        _settings.paths.push_back(absolute(args[i]));
    _settings.output = absolute(_settings.output);
    _settings.logFile = absolute(_settings.logFile);
    return 0;
}

void FileNotifyApp::ConfigureAgent() {
    auto* logging = SDK::LoggerUtils::GetInstance();
    logging->SetLevel(_settings.logLevel);
    if (!_settings.logFile.empty() && !logging->UseRotatingFile(_settings.logFile)) {
        std::cerr << "filenotify: cannot open " << _settings.logFile << ", logging to stderr" << std::endl;
    }
    std::string home = _settings.home.empty() ? Poco::Path(BinaryFolder()).parent().toString() : _settings.home;
    if (!home.empty() && home.back() != '/') home += '/';
    SDK::PathUtils::SetInstallationPath(home);
    Framework::ConfigManager::GetInstance()->LoadFromInstallation();
    SDK::InnerCpuCtrlUtils::SetCpuShare(Framework::ConfigManager::GetInstance()->GetResourceConfig().cpuPercent);
}

int FileNotifyApp::WatchAll(Framework::ModuleHost& host, WatchConsumer& consumer, const WatchLimitTap& tap) {
    const int moduleId = consumer.AddConsumerByName("filenotify_task", "f");
    if (moduleId == 0 || host.FindTask("filenotify_task") == nullptr) {
        std::cerr << "filenotify: the module has no filenotify_task" << std::endl;
        return -1;
    }
    int watched = 0;
    int pending = 0;
    for (const std::string& path : _settings.paths) {
        auto* request =
            new Engine::FileNotifyWatchMessage(&consumer, path, {_settings.RequestMask()}, _settings.RequestOptions());
        std::string reply;
        const int result = consumer.SyncSendMsg(moduleId, "f", request, reply, 10000, 1);
        if (result == 0 && reply != "-1") {
            ++watched;
            continue;
        }
        // The module's own test: a refused path was not kept pending.
        std::string reason;
        switch (Engine::FileNotifyUtils::CheckWatchPath(path, reason)) {
            case Engine::FileNotifyUtils::PathCheck::Missing:
                ++pending;
                std::cerr << "filenotify: " << path << " does not exist yet; it is watched when it appears"
                          << std::endl;
                break;
            case Engine::FileNotifyUtils::PathCheck::Refused:
                std::cerr << "filenotify: cannot watch " << Shown(path) << ": " << reason << std::endl;
                break;
            case Engine::FileNotifyUtils::PathCheck::Exists:
                std::cerr << "filenotify: cannot watch " << path << ": " << tap.Explain() << std::endl;
                break;
        }
    }
    std::cerr << "filenotify: watching " << watched << " path" << (watched == 1 ? "" : "s") << " (" << pending
              << " pending)" << std::endl;
    return watched + pending;
}

// The stop signals were blocked before any thread started, so they wait
// here: a signal, the time-out, or --count (which raises SIGTERM).
int FileNotifyApp::WaitForStop() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGQUIT);
    struct timespec timeout {};
    timeout.tv_sec = _settings.timeoutSeconds;
    for (;;) {
        const int signal =
            _settings.timeoutSeconds > 0 ? ::sigtimedwait(&set, nullptr, &timeout) : ::sigwaitinfo(&set, nullptr);
        if (signal > 0 || errno == EAGAIN) return 0;  // EAGAIN: the time-out passed
    }
}

int FileNotifyApp::main(const std::vector<std::string>& args) {
    if (_done) return EXIT_OK;
    // A reader gone shows as EPIPE from write, which ends the program with a reason.
    ::signal(SIGPIPE, SIG_IGN);
    const int bad = CheckArguments(args);
    if (bad != 0) return bad;
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGQUIT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    if (_settings.NeedsFanotify()) {
        const std::string refusal = FanotifyRefusal();
        if (!refusal.empty()) {
            std::cerr << "filenotify: " << (_settings.process ? "-p " : "guard ") << refusal << std::endl;
            return kExitNoCapability;
        }
    }
    // A guard's verdicts must never wait for the output: it writes from a
    // thread of its own.
    OutputSink output(
        _settings.output, [] { terminate(); }, _settings.mode == CliSettings::Mode::Guard);
    if (output.Error() != 0) {
        std::cerr << "filenotify: cannot open " << _settings.output << ": "
                  << std::generic_category().message(output.Error()) << std::endl;
        return kExitUsage;
    }
    ConfigureAgent();
    WatchLimitTap tap;
    const std::string module =
        _settings.module.empty()
            ? Poco::Path(BinaryFolder()).parent().pushDirectory("lib").setFileName("libfilenotify_module.so").toString()
            : _settings.module;
    Framework::ModuleHost host;
    std::string error;
    if (host.Load(module, error) != 0 || host.Start(error) != 0) {
        std::cerr << "filenotify: cannot load the module " << module << ": " << error << std::endl;
        return kExitNoModule;
    }
    Poco::AutoPtr<WatchConsumer> consumer(new WatchConsumer(_settings, output, [] { terminate(); }));
    Framework::TaskRunner consumerRunner(consumer.get());
    consumerRunner.Start();
    const int requested = WatchAll(host, *consumer, tap);
    const int result = requested > 0 ? WaitForStop() : kExitNothingWatched;
    host.Stop();  // first: a permission event may be waiting for the consumer
    consumerRunner.Stop();
    return Finish(*consumer, output, result);
}

// After the consumer has stopped: what was lost, and whether the output failed.
int FileNotifyApp::Finish(const WatchConsumer& consumer, OutputSink& output, int result) const {
    const unsigned long long lost = consumer.LostReported() + consumer.GetDroppedMsgCount();
    const unsigned long long overflows = consumer.KernelOverflows();
    if (lost > 0 || overflows > 0) {
        std::cerr << "filenotify: " << lost << (lost == 1 ? " event" : " events") << " lost in user space, "
                  << overflows << " kernel queue overflow" << (overflows == 1 ? "" : "s") << std::endl;
    }
    const bool written = output.Drain(std::chrono::milliseconds(2000));
    if (written) return result;
    if (output.Error() == 0) {
        std::cerr << "filenotify: the output takes nothing: the last lines were not written" << std::endl;
    } else {
        std::cerr << "filenotify: cannot write the output: " << std::generic_category().message(output.Error())
                  << std::endl;
    }
    return kExitOutputFailed;
}

}  // namespace

}  // namespace FileNotifyCli

int main(int argc, char** argv) {
    try {
        FileNotifyCli::FileNotifyApp app;
        const int result = app.run(argc, argv);
        // Option errors end in POCO's configuration exit: a usage error here.
        return result == Poco::Util::Application::EXIT_CONFIG ? 2 : result;
    } catch (const Poco::Exception& error) {
        std::cerr << "filenotify: " << error.displayText() << std::endl;
        return 1;
    }
}
