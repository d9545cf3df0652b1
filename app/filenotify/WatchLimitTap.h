#pragma once

#include <mutex>
#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>

namespace Poco {
class Logger;
}

namespace FileNotifyCli {

// Listens to the module's log, beside its own channel, for the reason of a
// refused watch, so that the command can say it in one line. Installed for
// its lifetime; keep it alive until the module is unloaded.
class WatchLimitTap {
public:
    WatchLimitTap();
    ~WatchLimitTap();
    WatchLimitTap(const WatchLimitTap&) = delete;
    WatchLimitTap& operator=(const WatchLimitTap&) = delete;

    // Why the last watch was refused: the watch limit with the numbers and
    // how to raise them, or the module's last error record.
    std::string Explain() const;

private:
    struct Recorder : Poco::Channel {
        void log(const Poco::Message& message) override;
        Poco::Channel::Ptr next;
        mutable std::mutex mutex;
        std::string lastError;
        int needed = 0;
        int allowed = -1;
    };

    Poco::Logger* _logger;
    Poco::AutoPtr<Recorder> _recorder;
};

}  // namespace FileNotifyCli
