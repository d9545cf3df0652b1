#include "WatchConsumer.h"

#include <sys/epoll.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <fstream>
#include <iostream>
#include <utility>

#include "Escaping.h"
#include "FileNotifyMessage.h"

namespace FileNotifyCli {

namespace {

constexpr int kWaitMs = 1000;
// A line waits this long at most before it is written.
constexpr std::chrono::milliseconds kFlushPause{5};
constexpr int kBulkCount = 128;
constexpr std::size_t kFlushBytes = std::size_t{64} * 1024;  // a pipe's default capacity

// What to say when the kernel's queue overflowed: the setting that sizes it,
// read at each start of the program.
std::string KernelLossAdvice(int notifyType) {
    const std::string engine = notifyType == 0 ? "inotify" : "fanotify";
    const std::string said = "the kernel's " + engine + " queue overflowed and events were lost";
    long size = 0;
    if (!(std::ifstream("/proc/sys/fs/" + engine + "/max_queued_events") >> size))
        return said + " (its size is fixed on this kernel)";
    return said + "; raise it with sysctl -w fs." + engine + ".max_queued_events=N (now " + std::to_string(size) +
           ") and start filenotify again";
}

}  // namespace

WatchConsumer::WatchConsumer(const CliSettings& settings, OutputSink& output, std::function<void()> stop)
    : Engine::MixedTask("filenotify_cli", "filenotify", Framework::TaskCondition::TASK_TYPE_EVENT, 65536),
      _settings(settings),
      _output(output),
      _stop(std::move(stop)),
      _formatter(settings.json) {
    _buffer.reserve(kFlushBytes + 4096);
    for (const std::string& pattern : settings.deny)
        _deny.push_back(std::make_unique<Poco::Glob>(pattern));
}

int WatchConsumer::Run() {
    WatchPipeReader();
    auto lastFlush = std::chrono::steady_clock::now();
    int waitMs = kWaitMs;
    while (!IsCancelling()) {
        if (GetEventWaiter().WaitAndHandleEvent(waitMs, kBulkCount) < 0) BulkConsumeMsg(kBulkCount);
        // Lines go out when the queue is empty, in large pieces during a
        // burst, and never from inside a handler (a slow output must not
        // delay a verdict). A hand-over to a writer thread wakes it, so
        // then a trickle of events is handed over at most every kFlushPause.
        waitMs = kWaitMs;
        const auto now = std::chrono::steady_clock::now();
        const auto pause = _output.HasOwnWriter() ? kFlushPause : std::chrono::milliseconds(0);
        if (_buffer.size() >= kFlushBytes || (GetQueuedMsgCount() == 0 && now - lastFlush >= pause)) {
            Flush();
            lastFlush = now;
        } else if (!_buffer.empty() && GetQueuedMsgCount() == 0) {
            waitMs = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(pause - (now - lastFlush)).count());
        }
    }
    Flush(false);             // stopping: never wait for a stuck output here
    _pipeReaderGone.reset();  // on this thread, which owns the waiter
    return 0;
}

void WatchConsumer::Flush(bool mayWait) {
    if (_buffer.empty()) return;
    if (!_output.Write(_buffer, mayWait)) Stop();
    _buffer.clear();
}

// Only the error of a pipe's writing end wakes this: it never reports
// readable, and the reader of a terminal or a file cannot go away.
void WatchConsumer::WatchPipeReader() {
    if (!_output.IsPipeWriter()) return;
    auto* callback = new Framework::EventCallback<WatchConsumer>(this, &WatchConsumer::OnPipeReaderGone);
    _pipeReaderGone = std::make_unique<Framework::Event>(callback, nullptr, _output.Fd());
    if (GetEventWaiter().AddEvent(_pipeReaderGone.get()) != 0) _pipeReaderGone.reset();
}

int WatchConsumer::OnPipeReaderGone(int, unsigned int events, void*) {
    if ((events & (EPOLLERR | EPOLLHUP)) == 0) return 0;
    GetEventWaiter().RemoveEvent(_pipeReaderGone.get());  // level-triggered: it would repeat
    _output.Fail(EPIPE);
    Stop();
    return 0;
}

void WatchConsumer::Stop() {
    if (_stopping) return;
    _stopping = true;
    if (_stop) _stop();
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
    // Not a request: nothing to answer or print as a verdict.
    if (message->IsPermitWatchReport()) {
        ReportPermitWatch(*message);
        return 0;
    }
    if ((message->GetEventMask() & Engine::FileNotifyMessage::kOverflowMask) != 0) {
        ReportLoss(*message);
        return 0;
    }
    if (message->GetNotifyType() == 0 && (message->GetEventMask() & Engine::FileNotifyMessage::kWatchFailedMask) != 0) {
        std::string shown;
        AppendTextName(shown, message->GetEventFilePath());
        std::cerr << "filenotify: " << shown
                  << (message->GetWatchId() < 0 ? " exists but cannot be watched; trying again every second"
                                                : " cannot be watched (the watch limit?): its events are missed")
                  << std::endl;
        return 0;
    }
    // Past --count the program is stopping: nothing more is printed. The
    // module sends only the events that were asked for.
    if (CountReached()) return 0;
    struct stat status {};
    const struct stat* known = nullptr;
    if (message->IsStatValid()) {
        known = &message->Stat();
    } else if (_settings.stat && ::lstat(message->GetEventFilePath().c_str(), &status) == 0) {
        known = &status;  // inotify events carry no status: take it now
    }
    // Only permission requests (notify type 2) wait for an answer.
    if (message->GetNotifyType() != 2) {
        Print(*message, known, nullptr);
        Counted();
        return 0;
    }
    // The verdict goes back first; the line follows in HandleMsg, with the
    // answer the kernel actually got.
    _permit.pending = true;
    _permit.verdict = Verdict();
    _permit.verdict.wouldDeny = Denied(*message);
    _permit.verdict.deny = _permit.verdict.wouldDeny && !_settings.dryRun;
    _permit.hasStatus = known != nullptr;
    if (known != nullptr) _permit.status = *known;
    return _permit.verdict.deny ? 2 : 0;
}

void WatchConsumer::HandleMsg(Framework::Message* msg, int /*result*/) {
    if (!_permit.pending) return;
    _permit.pending = false;
    const auto& message = static_cast<const Engine::FileNotifyMessage&>(*msg);
    Verdict verdict = _permit.verdict;
    const auto& answer = message.GetPermitAnswer();
    if (answer && answer->GetState() == Engine::FileNotifyPermitAnswer::State::AllowedByTimeout) {
        verdict.lateDeny = verdict.deny;
        verdict.deny = false;
        verdict.timedOut = true;
    }
    Print(message, _permit.hasStatus ? &_permit.status : nullptr, &verdict);
    Counted();
}

void WatchConsumer::Print(const Engine::FileNotifyMessage& message, const struct stat* status, const Verdict* verdict) {
    if (_output.Error() != 0) return;
    struct timespec now {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    _formatter.Append(_buffer, message, status, verdict, now);
}

void WatchConsumer::Counted() {
    if (++_printed == _settings.count) Stop();
}

// Printed whatever -e chose and not counted: it tells that lines are missing.
void WatchConsumer::ReportLoss(const Engine::FileNotifyMessage& report) {
    const unsigned long long lost = report.GetLostCount();
    if (lost == 0) {
        ++_kernelOverflows;  // the kernel does not say how many
    } else {
        _lostReported += lost;
    }
    WarnOfLoss(report.GetNotifyType(), lost);
    if (!CountReached()) Print(report, nullptr, nullptr);
}

void WatchConsumer::ReportPermitWatch(const Engine::FileNotifyMessage& report) {
    const std::string path = report.GetEventFilePath();
    std::string shown;
    AppendTextName(shown, path);
    if ((report.GetEventMask() & Engine::FileNotifyMessage::kPermitWatchLostMask) != 0) {
        _lostGuards.insert(path);
        std::cerr << "filenotify: " << shown << " is gone; it is guarded again when it comes back" << std::endl;
    } else {
        const bool again = _lostGuards.erase(path) != 0;
        std::cerr << "filenotify: " << shown << " is guarded" << (again ? " again" : " now") << std::endl;
    }
}

// At most once a second for each cause; the totals come at exit.
void WatchConsumer::WarnOfLoss(int notifyType, unsigned long long lost) {
    auto& last = _lastLossWarning[lost == 0 ? 0 : 1];
    const auto now = std::chrono::steady_clock::now();
    if (last != std::chrono::steady_clock::time_point() && now - last < std::chrono::seconds(1)) return;
    last = now;
    if (lost == 0) {
        std::cerr << "filenotify: " << KernelLossAdvice(notifyType) << std::endl;
    } else {
        std::cerr << "filenotify: " << lost << " event" << (lost == 1 ? " was" : "s were")
                  << " dropped because filenotify fell behind reading them" << std::endl;
    }
}

}  // namespace FileNotifyCli
