#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <Poco/Glob.h>

#include "CliSettings.h"
#include "EventFormatter.h"
#include "MixedTask.h"
#include "OutputSink.h"
#include "framework/Event.h"

namespace FileNotifyCli {

// The command's consumer task: receives the module's events on its own
// thread, prints them, and answers permission events by the --deny rules.
// The lines gather in its buffer, written out whenever its queue is empty or
// the buffer is full.
class WatchConsumer : public Engine::MixedTask {
public:
    // stop runs at most once, on this task's thread: after --count events, or
    // when the output fails (output.Error() then tells why).
    WatchConsumer(const CliSettings& settings, OutputSink& output, std::function<void()> stop);

    int Run() override;
    // The result answers a permission event: 2 denies.
    int FileNotifyMessageAction(Engine::FileNotifyMessage* message) override;
    // After a handler: prints a permission event with the answer it got.
    void HandleMsg(Framework::Message* msg, int result) override;
    // Hands the buffered lines to the output; this task's thread. mayWait:
    // see OutputSink::Write.
    void Flush(bool mayWait = true);

    // Read once the task has stopped: the events lost that loss reports
    // counted, and the kernel queue overflows reported.
    unsigned long long LostReported() const { return _lostReported; }
    unsigned long long KernelOverflows() const { return _kernelOverflows; }

protected:
    ~WatchConsumer() override = default;

private:
    bool Denied(const Engine::FileNotifyMessage& message);
    bool CountReached() const { return _settings.count > 0 && _printed >= _settings.count; }
    void Print(const Engine::FileNotifyMessage& message, const struct stat* status, const Verdict* verdict);
    void Counted();
    void ReportLoss(const Engine::FileNotifyMessage& report);
    // A guarded path that is gone, or guarded again: said on stderr.
    void ReportPermitWatch(const Engine::FileNotifyMessage& report);
    void WarnOfLoss(int notifyType, unsigned long long lost);
    void WatchPipeReader();
    int OnPipeReaderGone(int fd, unsigned int events, void* arg);
    void Stop();

    const CliSettings& _settings;
    OutputSink& _output;
    std::function<void()> _stop;
    bool _stopping = false;
    EventFormatter _formatter;
    std::string _buffer;
    std::unique_ptr<Framework::Event> _pipeReaderGone;
    std::vector<std::unique_ptr<Poco::Glob>> _deny;  // Glob::match is not const
    long _printed = 0;
    // The permission event in hand, between its handler and HandleMsg.
    struct {
        bool pending = false;
        Verdict verdict;
        bool hasStatus = false;
        struct stat status {};
    } _permit;
    unsigned long long _lostReported = 0;
    unsigned long long _kernelOverflows = 0;
    std::set<std::string> _lostGuards;                          // gone and not guarded again yet
    std::chrono::steady_clock::time_point _lastLossWarning[2];  // kernel, this consumer
};

}  // namespace FileNotifyCli
