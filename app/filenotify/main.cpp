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
#include <iostream>
#include <system_error>

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/Path.h>
#include <Poco/PatternFormatter.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionSet.h>
#include <Poco/Util/ServerApplication.h>

#include "CliSettings.h"
#include "EventNames.h"
#include "FileNotifyMask.h"
#include "FileNotifyWatchMessage.h"
#include "OutputSink.h"
#include "WatchConsumer.h"
#include "WatchFailure.h"
#include "framework/ConfigManager.h"
#include "framework/ModuleHost.h"
#include "framework/Task.h"
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

// Why the module did not watch a path, for people: its reason in words,
// with the numbers of the watch limit and how to raise it.
std::string Explained(const Engine::WatchFailure& failure) {
    using Reason = Engine::WatchFailure::Reason;
    const std::string error = failure.error != 0 ? std::generic_category().message(failure.error) : "no reason given";
    switch (failure.reason) {
        case Reason::LimitReached: {
            const std::string kernel = "fs.inotify.max_user_watches=" + std::to_string(failure.kernelLimit);
            if (failure.needed == 0) {
                return "the inotify watches of this user are used up (" + kernel +
                       ", shared by all its processes); raise it with 'sysctl -w fs.inotify.max_user_watches=N'";
            }
            std::string home;
            SDK::PathUtils::GetInstallationPath(home);
            return "the tree needs " + std::to_string(failure.needed) + " inotify watches, only " +
                   std::to_string(failure.allowed) + " more are allowed (" + std::to_string(failure.percent) + "% of " +
                   kernel +
                   "); raise them with 'sysctl -w fs.inotify.max_user_watches=N' or the inotify percentage in " + home +
                   "conf/resource.conf";
        }
        case Reason::BadPath:
            return failure.detail;
        case Reason::BadRequest:
            return "the module refused the request: " + failure.detail;
        case Reason::Duplicate:
            return "it is watched already, as it is or by a recursive watch above it";
        case Reason::PermissionDenied:
            return "the kernel denied access (" + error + ")";
        case Reason::Unavailable:
            return "the module cannot use " + failure.detail + " (" + error + ")";
        case Reason::KernelError:
            return "the kernel refused the watch (" + error + ")";
        case Reason::Pending:
        case Reason::None:
            break;
    }
    return "the module refused it without a reason";
}

class FileNotifyApp : public Poco::Util::ServerApplication {
public:
    // Paths are taken against the folder it was started in: --daemon moves
    // to "/" before they are made absolute.
    FileNotifyApp() : _parser(Poco::Path::current()) {
        // POCO reports option errors through this logger: one plain line.
        Poco::AutoPtr<Poco::PatternFormatter> format(new Poco::PatternFormatter("filenotify: %t"));
        Poco::AutoPtr<Poco::Channel> console(new Poco::FormattingChannel(format, new Poco::ConsoleChannel));
        Poco::Logger::get("ApplicationStartup").setChannel(console);
    }

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    int main(const std::vector<std::string>& args) override;

private:
    void OnVersion(const std::string&, const std::string&);
    void OnHelp(const std::string&, const std::string&);

    int Usage(const std::string& problem) const {
        std::cerr << "filenotify: " << problem << " (filenotify --help lists the options)" << std::endl;
        return kExitUsage;
    }
    void ConfigureAgent();
    std::string BinaryFolder() const { return Poco::Path(config().getString("application.path")).parent().toString(); }
    int WatchAll(Framework::ModuleHost& host, WatchConsumer& consumer);
    int WaitForStop();
    int Finish(const WatchConsumer& consumer, OutputSink& output, int result) const;

    CliParser _parser;
    CliSettings& _settings = _parser.Settings();
    bool _done = false;
};

void FileNotifyApp::defineOptions(Poco::Util::OptionSet& options) {
    ServerApplication::defineOptions(options);
    _parser.Define(options);
    options.addOption(Option("version", "", "print the version and exit")
                          .callback(OptionCallback<FileNotifyApp>(this, &FileNotifyApp::OnVersion)));
    options.addOption(Option("help", "h", "print this help and exit")
                          .callback(OptionCallback<FileNotifyApp>(this, &FileNotifyApp::OnHelp)));
}

void FileNotifyApp::OnVersion(const std::string&, const std::string&) {
    std::cout << "filenotify " << FN_VERSION << std::endl;
    _done = true;
    stopOptionsProcessing();
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

int FileNotifyApp::WatchAll(Framework::ModuleHost& host, WatchConsumer& consumer) {
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
        // Kept across the send: the framework deletes the request.
        const auto failure = request->GetFailureSlot();
        std::string reply;
        constexpr long kAnswerMs = 10000;
        const int result = consumer.SyncSendMsg(moduleId, "f", request, reply, kAnswerMs, 1);
        if (result == 0 && reply != "-1") {
            ++watched;
            continue;
        }
        const Engine::WatchFailure why = failure->Get();
        if (why.reason == Engine::WatchFailure::Reason::Pending) {
            ++pending;
            std::cerr << "filenotify: " << path << " does not exist yet; it is watched when it appears" << std::endl;
        } else if (result == Framework::MSG_ERR_TIMEOUT) {
            std::cerr << "filenotify: cannot watch " << Shown(path) << ": the module did not answer within "
                      << kAnswerMs / 1000 << " seconds" << std::endl;
        } else if (result < 0) {
            std::cerr << "filenotify: cannot watch " << Shown(path) << ": the request did not reach the module (error "
                      << result << ")" << std::endl;
        } else {
            std::cerr << "filenotify: cannot watch " << Shown(path) << ": " << Explained(why) << std::endl;
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
    std::string problem;
    if (!_parser.CheckArguments(args, problem)) return Usage(problem);
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
    const int requested = WatchAll(host, *consumer);
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
