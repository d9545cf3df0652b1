#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Framework {
class Message;
class Task;
}  // namespace Framework

namespace Engine {

// Delivers the module's event messages to consumer tasks without losing any
// in user space and without ever blocking the module's thread.
//
// A consumer whose queue reaches its high-water mark holds back the readers
// (event descriptors) that fed it: they stop reading, so further events wait
// in the kernel's queue, whose size the administrator sets. A message that
// does not fit at all waits here, in order. When the consumer has drained
// its queue the framework signals the module task, which calls Service: the
// waiting messages move on and the readers read again. A consumer that takes
// nothing from its queue for kStallLimit while it holds back a reader that
// other consumers use stops holding them back: what is meant for it is
// dropped and counted, and once it reads again it first receives one loss
// report (a FileNotifyMessage with kOverflowMask and the count). A consumer
// that holds back nobody but itself may pause as long as it likes: its
// events wait in the kernel, and an overflow there is reported as such.
//
// Used on the module task's thread only.
class FileNotifyFlowControl {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kStallLimit{2000};
    // How often a congested consumer's progress is looked at.
    static constexpr std::chrono::milliseconds kStallCheck{250};
    // Waking a thread costs more than handling a message: a consumer sleeps
    // until this many are queued for it, or the read is over.
    static constexpr int kWakeBatch = 64;
    // Told when a reader must stop reading (held) or may read again.
    using HoldHandler = std::function<void(int reader, bool held)>;
    // Whether tasks other than taskId receive events read from reader.
    using SharedQuery = std::function<bool(int reader, int taskId)>;

    // sender: the module task, whose consumers receive the messages. Not
    // owned.
    FileNotifyFlowControl(Framework::Task& sender, HoldHandler onHold, SharedQuery isShared);
    ~FileNotifyFlowControl();
    FileNotifyFlowControl(const FileNotifyFlowControl&) = delete;
    FileNotifyFlowControl& operator=(const FileNotifyFlowControl&) = delete;

    // Sends message to the consumer registered under taskId with the type
    // "f". reader: the descriptor whose events made it, held while this
    // consumer is congested; -1 when none (it must not or cannot wait). The
    // events of a reader are handed over in batches: the consumer is woken
    // for every kWakeBatch of them and by WakeConsumers, which the reader's
    // callback calls when it is done.
    void Send(int taskId, std::unique_ptr<Framework::Message> message, int reader);
    // One report of an overflow of the kernel's queue (kOverflowMask, no
    // count) to each of taskIds, as Send.
    void SendOverflowReports(const std::set<int>& taskIds, int notifyType, int reader);
    // A report of the module's own about a watch (a FileNotifyMessage of
    // notifyType with path and mask, for the watch watchId of watchFile),
    // sent as Send with no reader.
    void SendReport(int taskId, int notifyType, const std::string& path, unsigned int mask, int watchId,
                    const std::string& watchFile, unsigned long extParm);
    void WakeConsumers();
    // Whether Service has work now: a drain was signalled, or a congested
    // consumer's progress is due to be looked at.
    bool IsServiceDue(bool drainSignalled) const;
    // Milliseconds until Service must look at a congested consumer again;
    // -1 when none is congested.
    int NextServiceMs() const;
    // Moves waiting messages on to consumers that have drained, releases the
    // readers they held, and gives up on consumers that stalled.
    void Service();

private:
    struct Consumer {
        std::deque<std::unique_ptr<Framework::Message>> waiting;
        std::set<int> holding;  // readers held for this consumer
        Clock::time_point lastProgress;
        std::uint64_t taken = 0;  // the queue's progress counter when last looked at
        bool stalled = false;
        std::uint64_t lost = 0;  // dropped since it stalled
    };

    Consumer& Congested(int taskId);
    void CountUnwoken(int taskId);
    void Hold(Consumer& consumer, int reader);
    void ReleaseAll(Consumer& consumer);
    // The consumer has drained: report its loss, move its waiting messages.
    // True when it is no longer congested.
    bool Resume(int taskId, Consumer& consumer);
    void Stall(int taskId, Consumer& consumer);
    bool HoldsOthersBack(int taskId, const Consumer& consumer) const;

    Framework::Task& _sender;
    HoldHandler _onHold;
    SharedQuery _isShared;
    std::map<int, Consumer> _consumers;         // the congested ones, by task id
    std::map<int, int> _holds;                  // reader -> how many consumers hold it
    std::vector<std::pair<int, int>> _unwoken;  // (task id, messages queued since its last wake-up)
    Clock::time_point _nextCheck;
};

}  // namespace Engine
