#include "WatchConsumer.h"

#include <sys/epoll.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <iostream>
#include <utility>

#include "FileNotifyMessage.h"
#include "FileNotifyWatchMessage.h"

namespace FileNotifyCli {

namespace {

constexpr int kWaitMs = 1000;
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
      _formatter(settings.json),
      _requested(settings.RequestMask() & ~Engine::FileNotifyWatchMessage::kOnDirectory) {
    _buffer.reserve(kFlushBytes + 4096);
    for (const std::string& pattern : settings.deny)
        _deny.push_back(std::make_unique<Poco::Glob>(pattern));
}

int WatchConsumer::Run() {
    WatchPipeReader();
    while (!IsCancelling()) {
        if (GetEventWaiter().WaitAndHandleEvent(kWaitMs, kBulkCount) < 0) BulkConsumeMsg(kBulkCount);
        // A lone event is written at once; a burst in large pieces. Never
        // from inside a handler: a slow output must not delay a verdict.
        if (GetQueuedMsgCount() == 0 || _buffer.size() >= kFlushBytes) Flush();
    }
    Flush();
    _pipeReaderGone.reset();  // on this thread, which owns the waiter
    return 0;
}

void WatchConsumer::Flush() {
    if (_buffer.empty()) return;
    if (!_output.Write(_buffer)) Stop();
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
    if ((message->GetEventMask() & Engine::FileNotifyMessage::kOverflowMask) != 0) {
        ReportLoss(*message);
        return 0;
    }
    // Past --count the program is stopping: nothing more is printed.
    if (!Wanted(*message) || CountReached()) return 0;
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
    Verdict verdict;
    verdict.wouldDeny = Denied(*message);
    verdict.deny = verdict.wouldDeny && !_settings.dryRun;
    Print(*message, known, &verdict);
    Counted();
    return verdict.deny ? 2 : 0;
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
