// filenotify_host: loads a module library, runs its tasks until SIGINT or
// SIGTERM (or for --seconds), then stops them and unloads the library.

#include <signal.h>

#include <iostream>
#include <string>
#include <thread>

#include <Poco/Event.h>
#include <Poco/Path.h>
#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/IntValidator.h>
#include <Poco/Util/Option.h>
#include <Poco/Util/OptionSet.h>
#include <Poco/Util/ServerApplication.h>

#include "framework/ConfigManager.h"
#include "framework/ModuleHost.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

namespace {

class HostApp : public Poco::Util::ServerApplication {
protected:
    void defineOptions(Poco::Util::OptionSet& options) override {
        ServerApplication::defineOptions(options);
        options.addOption(Poco::Util::Option("help", "h", "show this help")
                              .callback(Poco::Util::OptionCallback<HostApp>(this, &HostApp::OnHelp)));
        options.addOption(Poco::Util::Option("module", "",
                                             "module library to load (default: ../lib/libfilenotify_module.so "
                                             "beside the binary)")
                              .argument("PATH")
                              .binding("host.module"));
        options.addOption(Poco::Util::Option("home", "",
                                             "installation folder holding conf/ (default: the binary's parent "
                                             "folder)")
                              .argument("DIR")
                              .binding("host.home"));
        options.addOption(
            Poco::Util::Option("log-level", "", "least priority logged, 1 (fatal) to 8 (trace); default 4")
                .argument("N")
                .validator(new Poco::Util::IntValidator(1, 8))
                .binding("host.logLevel"));
        options.addOption(Poco::Util::Option("log-file", "", "write the log to a rotating file instead of stderr")
                              .argument("FILE")
                              .binding("host.logFile"));
        options.addOption(
            Poco::Util::Option("seconds", "", "stop after this many seconds instead of waiting for a signal")
                .argument("N")
                .validator(new Poco::Util::IntValidator(1, 86400))
                .binding("host.seconds"));
    }

    void OnHelp(const std::string&, const std::string&) {
        Poco::Util::HelpFormatter help(options());
        help.setCommand(commandName());
        help.setUsage("[OPTIONS]");
        help.setHeader("Loads a module of the agent, runs its tasks until stopped, then unloads it.");
        help.format(std::cout);
        stopOptionsProcessing();
        _helpShown = true;
    }

    int main(const std::vector<std::string>&) override {  // NOLINT(bugprone-exception-escape): POCO catches and reports
        if (_helpShown) return EXIT_OK;
        BlockStopSignals();
        ConfigureAgent();
        const std::string module = config().getString("host.module", DefaultModulePath());
        Framework::ModuleHost host;
        std::string error;
        if (host.Load(module, error) != 0) {
            std::cerr << "filenotify_host: " << error << std::endl;
            return EXIT_SOFTWARE;
        }
        if (host.Start(error) != 0) {
            std::cerr << "filenotify_host: " << error << std::endl;
            return EXIT_SOFTWARE;
        }
        std::cerr << "filenotify_host: module " << host.GetModule()->name() << " running; Ctrl-C stops it" << std::endl;
        std::thread timer;
        if (config().has("host.seconds")) {
            const long ms = config().getInt("host.seconds") * 1000L;
            timer = std::thread([this, ms] {
                if (!_stop.tryWait(ms)) terminate();
            });
        }
        waitForTerminationRequest();
        _stop.set();
        if (timer.joinable()) timer.join();
        host.Stop();
        std::cerr << "filenotify_host: stopped" << std::endl;
        return EXIT_OK;
    }

private:
    // Blocked before any thread starts, so every thread inherits the mask and
    // the signals reach only the main thread's wait for them.
    static void BlockStopSignals() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGQUIT);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
    }

    std::string BinaryFolder() const {
        Poco::Path self(config().getString("application.path"));
        return self.parent().toString();
    }

    std::string DefaultModulePath() const {
        return Poco::Path(BinaryFolder())
            .parent()
            .pushDirectory("lib")
            .setFileName("libfilenotify_module.so")
            .toString();
    }

    void ConfigureAgent() {
        auto* logging = SDK::LoggerUtils::GetInstance();
        logging->SetLevel(config().getInt("host.logLevel", 4));
        if (config().has("host.logFile") && !logging->UseRotatingFile(config().getString("host.logFile"))) {
            std::cerr << "filenotify_host: cannot open " << config().getString("host.logFile") << ", logging to stderr"
                      << std::endl;
        }
        std::string home = config().getString("host.home", Poco::Path(BinaryFolder()).parent().toString());
        if (!home.empty() && home.back() != '/') home += '/';
        SDK::PathUtils::SetInstallationPath(home);
        Framework::ConfigManager::GetInstance()->LoadFromInstallation();
        SDK::InnerCpuCtrlUtils::SetCpuShare(Framework::ConfigManager::GetInstance()->GetResourceConfig().cpuPercent);
    }

    bool _helpShown = false;
    Poco::Event _stop;
};

}  // namespace

POCO_SERVER_MAIN(HostApp)
