#include "FileNotifyFlowControl.h"

#include <utility>

#include "CpuYield.h"
#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "framework/Task.h"

namespace Engine {

FileNotifyFlowControl::FileNotifyFlowControl(Framework::Task& sender, HoldHandler onHold, SharedQuery isShared)
    : _sender(sender), _onHold(std::move(onHold)), _isShared(std::move(isShared)) {}

FileNotifyFlowControl::~FileNotifyFlowControl() = default;

void FileNotifyFlowControl::Send(int taskId, std::unique_ptr<Framework::Message> message, int reader) {
    auto found = _consumers.find(taskId);
    if (found != _consumers.end()) {
        Consumer& consumer = found->second;
        if (consumer.stalled) {
            ++consumer.lost;
            return;
        }
        // Behind the ones already waiting: order is kept.
        if (!consumer.waiting.empty()) {
            consumer.waiting.push_back(std::move(message));
            Hold(consumer, reader);
            return;
        }
    }
    const int result = _sender.TrySendMsg(static_cast<unsigned long>(taskId), "f", message, reader < 0);
    if (result == Framework::MSG_OK && reader >= 0) CountUnwoken(taskId);
    if (result != Framework::MSG_OK_HIGH_WATER && result != Framework::MSG_ERR_QUEUE_FULL) return;
    Consumer& consumer = Congested(taskId);
    if (message) consumer.waiting.push_back(std::move(message));
    Hold(consumer, reader);
}

namespace {

// lost 0: the kernel's queue overflowed, the number is unknown.
std::unique_ptr<FileNotifyMessage> LossReport(int notifyType, unsigned long long lost) {
    auto report = std::make_unique<FileNotifyMessage>(notifyType, std::string(), FileNotifyMessage::kOverflowMask);
    report->SetLostCount(lost);
    return report;
}

}  // namespace

void FileNotifyFlowControl::SendOverflowReports(const std::set<int>& taskIds, int notifyType, int reader) {
    for (int taskId : taskIds)
        Send(taskId, LossReport(notifyType, 0), reader);
}

void FileNotifyFlowControl::SendReport(int taskId, int notifyType, const std::string& path, unsigned int mask,
                                       int watchId, const std::string& watchFile, unsigned long extParm) {
    auto message = std::make_unique<FileNotifyMessage>(notifyType, path, mask);
    message->SetWatchFile(watchId, watchFile);
    message->SetExtParm(extParm);
    Send(taskId, std::move(message), -1);
}

void FileNotifyFlowControl::CountUnwoken(int taskId) {
    for (auto& entry : _unwoken) {
        if (entry.first != taskId) continue;
        if (++entry.second < kWakeBatch) return;
        _sender.WakeConsumer(static_cast<unsigned long>(taskId), "f");
        entry.second = 0;
        return;
    }
    _unwoken.emplace_back(taskId, 1);
}

void FileNotifyFlowControl::WakeConsumers() {
    for (const auto& entry : _unwoken) {
        if (entry.second > 0) _sender.WakeConsumer(static_cast<unsigned long>(entry.first), "f");
    }
    _unwoken.clear();
}

bool FileNotifyFlowControl::IsServiceDue(bool drainSignalled) const {
    return !_consumers.empty() && (drainSignalled || Clock::now() >= _nextCheck);
}

int FileNotifyFlowControl::NextServiceMs() const {
    if (_consumers.empty()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(_nextCheck - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

void FileNotifyFlowControl::Service() {
    const auto now = Clock::now();
    for (auto it = _consumers.begin(); it != _consumers.end();) {
        FN_CPU_YIELD();
        Consumer& consumer = it->second;
        Framework::Task::QueueState state;
        const bool alive = _sender.GetConsumerQueue(static_cast<unsigned long>(it->first), "f", state);
        if (alive && state.taken != consumer.taken) {
            consumer.taken = state.taken;
            consumer.lastProgress = now;
        }
        if (!alive || (state.queued <= state.lowWater && Resume(it->first, consumer))) {
            ReleaseAll(consumer);
            it = _consumers.erase(it);
            continue;
        }
        if (!consumer.stalled && now - consumer.lastProgress >= kStallLimit && HoldsOthersBack(it->first, consumer))
            Stall(it->first, consumer);
        ++it;
    }
    _nextCheck = now + kStallCheck;
}

FileNotifyFlowControl::Consumer& FileNotifyFlowControl::Congested(int taskId) {
    auto inserted = _consumers.try_emplace(taskId);
    Consumer& consumer = inserted.first->second;
    if (!inserted.second) return consumer;
    consumer.lastProgress = Clock::now();
    Framework::Task::QueueState state;
    if (_sender.GetConsumerQueue(static_cast<unsigned long>(taskId), "f", state)) consumer.taken = state.taken;
    if (_consumers.size() == 1) _nextCheck = consumer.lastProgress + kStallCheck;
    return consumer;
}

void FileNotifyFlowControl::Hold(Consumer& consumer, int reader) {
    if (reader < 0 || !consumer.holding.insert(reader).second) return;
    if (_holds[reader]++ == 0 && _onHold) _onHold(reader, true);
}

void FileNotifyFlowControl::ReleaseAll(Consumer& consumer) {
    for (int reader : consumer.holding) {
        auto found = _holds.find(reader);
        if (found == _holds.end() || --found->second > 0) continue;
        _holds.erase(found);
        if (_onHold) _onHold(reader, false);
    }
    consumer.holding.clear();
}

bool FileNotifyFlowControl::Resume(int taskId, Consumer& consumer) {
    if (consumer.stalled) {
        FN_LOG(LOG_WARNING, "consumer task %d reads again: %Lu events meant for it were dropped", taskId,
               static_cast<Poco::UInt64>(consumer.lost));
        consumer.waiting.push_front(LossReport(0, consumer.lost));
        consumer.stalled = false;
        consumer.lost = 0;
    }
    bool congested = false;
    while (!consumer.waiting.empty()) {
        FN_CPU_YIELD();
        const int result = _sender.TrySendMsg(static_cast<unsigned long>(taskId), "f", consumer.waiting.front());
        if (result == Framework::MSG_ERR_QUEUE_FULL) return false;
        consumer.waiting.pop_front();
        congested = congested || result == Framework::MSG_OK_HIGH_WATER;
    }
    return !congested;
}

bool FileNotifyFlowControl::HoldsOthersBack(int taskId, const Consumer& consumer) const {
    for (int reader : consumer.holding) {
        if (_isShared && _isShared(reader, taskId)) return true;
    }
    return false;
}

void FileNotifyFlowControl::Stall(int taskId, Consumer& consumer) {
    FN_LOG(LOG_WARNING,
           "consumer task %d has taken nothing from its queue for %d ms: its events are dropped until it reads again",
           taskId, static_cast<int>(kStallLimit.count()));
    consumer.stalled = true;
    consumer.lost += consumer.waiting.size();
    consumer.waiting.clear();
    ReleaseAll(consumer);
}

}  // namespace Engine
