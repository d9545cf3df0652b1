#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <Poco/Glob.h>

#include "CliSettings.h"
#include "EventPrinter.h"
#include "MixedTask.h"

namespace FileNotifyCli {

// The command's consumer task: receives the module's events on its own
// thread, prints them, and answers permission events by the --deny rules.
class WatchConsumer : public Engine::MixedTask {
public:
    // onCountReached runs once, on this task's thread, after --count events.
    WatchConsumer(const CliSettings& settings, EventPrinter& printer, std::function<void()> onCountReached);

    int Run() override { return ServeMessages(1000); }
    // The result answers a permission event: 2 denies.
    int FileNotifyMessageAction(Engine::FileNotifyMessage* message) override;

protected:
    ~WatchConsumer() override = default;

private:
    // Whether the event has a bit the user asked for; the module also
    // reports what it needs to follow the trees.
    bool Wanted(const Engine::FileNotifyMessage& message) const;
    bool Denied(const Engine::FileNotifyMessage& message);
    void Counted();

    const CliSettings& _settings;
    EventPrinter& _printer;
    std::function<void()> _onCountReached;
    std::vector<std::unique_ptr<Poco::Glob>> _deny;  // Glob::match is not const
    unsigned int _requested;
    long _printed = 0;
};

}  // namespace FileNotifyCli
