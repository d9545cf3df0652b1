#include "WatchConsumer.h"

#include <sys/stat.h>

#include <utility>

#include "FileNotifyMessage.h"
#include "FileNotifyWatchMessage.h"

namespace FileNotifyCli {

WatchConsumer::WatchConsumer(const CliSettings& settings, EventPrinter& printer, std::function<void()> onCountReached)
    : Engine::MixedTask("filenotify_cli", "filenotify", Framework::TaskCondition::TASK_TYPE_EVENT, 65536),
      _settings(settings),
      _printer(printer),
      _onCountReached(std::move(onCountReached)),
      _requested(settings.RequestMask() & ~Engine::FileNotifyWatchMessage::kOnDirectory) {
    for (const std::string& pattern : settings.deny)
        _deny.push_back(std::make_unique<Poco::Glob>(pattern));
}

bool WatchConsumer::Wanted(const Engine::FileNotifyMessage& message) const {
    if (message.GetNotifyType() == 2) return true;
    return (message.GetEventMask() & _requested) != 0;
}

bool WatchConsumer::Denied(const Engine::FileNotifyMessage& message) {
    const std::string path = message.GetEventFilePath();
    for (const auto& glob : _deny) {
        if (glob->match(path)) return true;
    }
    for (const std::string& exe : _settings.denyExe) {
        if (exe == message.GetEventProcess()) return true;
    }
    return false;
}

int WatchConsumer::FileNotifyMessageAction(Engine::FileNotifyMessage* message) {
    // Past --count the program is stopping: nothing more is printed.
    if (!Wanted(*message) || (_settings.count > 0 && _printed >= _settings.count)) return 0;
    struct stat status {};
    const struct stat* known = nullptr;
    if (message->IsStatValid()) {
        known = &message->Stat();
    } else if (_settings.stat && ::lstat(message->GetEventFilePath().c_str(), &status) == 0) {
        known = &status;  // inotify events carry no status: take it now
    }
    // Only permission requests (notify type 2) wait for an answer.
    if (message->GetNotifyType() != 2) {
        _printer.Print(*message, known, nullptr);
        Counted();
        return 0;
    }
    Verdict verdict;
    verdict.wouldDeny = Denied(*message);
    verdict.deny = verdict.wouldDeny && !_settings.dryRun;
    _printer.Print(*message, known, &verdict);
    Counted();
    return verdict.deny ? 2 : 0;
}

void WatchConsumer::Counted() {
    if (++_printed == _settings.count && _onCountReached) _onCountReached();
}

}  // namespace FileNotifyCli
