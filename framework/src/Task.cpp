#include "framework/Task.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <thread>

#include <concurrentqueue/concurrentqueue.h>

#include <Poco/Format.h>
#include <Poco/Logger.h>

#include "FrameworkLog.h"
#include "SyncReply.h"
#include "TaskRegistry.h"
#include "framework/Message.h"
#include "sdk/ProcessUtils.h"

namespace Framework {

namespace {

// A full queue can be hit thousands of times a second; one warning per
// interval says how many were lost without flooding the log.
constexpr long long kDropLogIntervalMs = 1000;
constexpr long long kNeverLogged = LLONG_MIN / 2;

}  // namespace

Task::Task(const std::string& taskName, const std::string& featureName, TaskCondition::TaskType type, int queueCapacity)
    : Poco::Task(taskName),
      _taskId(TaskRegistry::Instance().NextId()),
      _featureName(featureName),
      _taskType(type),
      _capacity(queueCapacity > 0 ? queueCapacity : 1),
      _queue(std::make_unique<Queue>(static_cast<std::size_t>(_capacity))),
      _lastDropLogTick(kNeverLogged),
      _highWater(std::max<std::size_t>(1, static_cast<std::size_t>(_capacity) * 3 / 4)),
      _lowWater(static_cast<std::size_t>(_capacity) / 4) {}

Task::~Task() {
    // Out of the registry first: from here on no sender can reach the queue.
    Withdraw();
    Message* msg = nullptr;
    while (_queue->try_dequeue(msg))
        delete msg;
    // Senders holding back for this queue must not wait for it any longer.
    SendDrainSignals();
}

void Task::Publish() {
    TaskRegistry::Instance().Register(_taskId, this);
}

void Task::Withdraw() {
    TaskRegistry::Instance().Unregister(_taskId);
}

int Task::Init() {
    return 0;
}

void Task::UnInit() {}

int Task::InterceptMsg(Message* /*msg*/) {
    return 0;
}

void Task::HandleMsg(Message* /*msg*/, int /*result*/) {}

void Task::cancel() {
    _cancelRequested.store(true);
    Poco::Task::cancel();
    _waiter.Notify();
    std::lock_guard<std::mutex> lock(_syncMutex);
    if (_syncWait) _syncWait->Complete(MSG_ERR_CANCELLED, std::string());
}

void Task::runTask() {
    // POCO marks the task running just before calling here, which overwrites
    // a cancel that came before the thread started: apply it again.
    if (_cancelRequested.load()) Poco::Task::cancel();
    const int result = Run();
    if (result != 0) {
        poco_warning(FrameworkLogger(), Poco::format("task %s ended with %d", name(), result));
    }
    ReportDrops(true);
}

int Task::FindTaskIdByName(const std::string& taskName) {
    return TaskRegistry::Instance().FindIdByName(taskName);
}

bool Task::TryEnqueue(Message* msg, bool wake) {
    if (_queued.fetch_add(1, std::memory_order_acq_rel) >= static_cast<std::size_t>(_capacity)) {
        _queued.fetch_sub(1, std::memory_order_acq_rel);
        return false;
    }
    if (!_queue->enqueue(msg)) {  // out of memory for a new block
        _queued.fetch_sub(1, std::memory_order_acq_rel);
        return false;
    }
    if (wake) _waiter.Notify();
    return true;
}

void Task::CountDrop() {
    _dropped.fetch_add(1, std::memory_order_relaxed);
    ReportDrops(false);
}

void Task::ReportDrops(bool force) {
    const std::uint64_t total = _dropped.load(std::memory_order_relaxed);
    if (total == _droppedAtLastLog.load(std::memory_order_relaxed)) return;
    const long long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    long long last = _lastDropLogTick.load(std::memory_order_relaxed);
    if (!force && now - last < kDropLogIntervalMs) return;
    if (!_lastDropLogTick.compare_exchange_strong(last, now) && !force) return;  // another thread logs
    const std::uint64_t recent = total - _droppedAtLastLog.exchange(total);
    if (recent == 0) return;
    poco_warning(
        FrameworkLogger(),
        Poco::format("task %s (id %d): queue full at %d messages, %Lu dropped since the last "
                     "report, %Lu in all",
                     name(), _taskId, _capacity, static_cast<Poco::UInt64>(recent), static_cast<Poco::UInt64>(total)));
}

void Task::AskDrainSignal(Task* sender) {
    {
        std::lock_guard<std::mutex> lock(_drainMutex);
        if (std::find(_drainWaiters.begin(), _drainWaiters.end(), sender->_taskId) == _drainWaiters.end())
            _drainWaiters.push_back(sender->_taskId);
        _drainWanted.store(true);
    }
    // Drained before the receiver could see the request: signal it here.
    if (_queued.load() <= _lowWater) {
        sender->_drainSignal.store(true);
        sender->_waiter.Notify();
    }
}

void Task::SendDrainSignals() {
    std::vector<int> senders;
    {
        std::lock_guard<std::mutex> lock(_drainMutex);
        senders.swap(_drainWaiters);
        _drainWanted.store(false);
    }
    for (int id : senders) {
        std::shared_lock<std::shared_mutex> lock;
        Task* sender = TaskRegistry::Instance().Find(id, lock);
        if (sender == nullptr) continue;
        sender->_drainSignal.store(true);
        sender->_waiter.Notify();
    }
}

int Task::EnqueueMsg(Message* msg) {
    if (msg == nullptr) return MSG_ERR_NULL;
    if (TryEnqueue(msg)) return MSG_OK;
    delete msg;
    CountDrop();
    return MSG_ERR_QUEUE_FULL;
}

int Task::AddConsumer(int taskId, const std::string& type, Task* watcher) {
    if (watcher == nullptr) return 1;
    std::lock_guard<std::mutex> lock(_consumerMutex);
    _consumers[{taskId, type}] = watcher->GetTaskId();
    return 0;
}

int Task::AddConsumerByName(const std::string& taskName, const std::string& type) {
    const int id = TaskRegistry::Instance().FindIdByName(taskName);
    if (id == 0) return 0;
    std::lock_guard<std::mutex> lock(_consumerMutex);
    _consumers[{id, type}] = id;
    return id;
}

int Task::AddConsumerById(int taskId, const std::string& type) {
    {
        std::shared_lock<std::shared_mutex> lock;
        if (TaskRegistry::Instance().Find(taskId, lock) == nullptr) return 1;
    }
    std::lock_guard<std::mutex> lock(_consumerMutex);
    _consumers[{taskId, type}] = taskId;
    return 0;
}

int Task::RemoveConsumer(int taskId, const std::string& type) {
    std::lock_guard<std::mutex> lock(_consumerMutex);
    return _consumers.erase({taskId, type}) != 0 ? 0 : 1;
}

Task* Task::LockConsumer(unsigned long taskId, const char* type, std::shared_lock<std::shared_mutex>& lock) {
    if (type == nullptr || taskId > static_cast<unsigned long>(INT_MAX)) return nullptr;
    int receiver = 0;
    {
        std::lock_guard<std::mutex> guard(_consumerMutex);
        auto it = _consumers.find({static_cast<int>(taskId), std::string(type)});
        if (it == _consumers.end()) return nullptr;
        receiver = it->second;
    }
    return TaskRegistry::Instance().Find(receiver, lock);
}

int Task::SendMsg(unsigned long taskId, const char* type, Message* msg) {
    std::unique_ptr<Message> owned(msg);
    if (!owned) return MSG_ERR_NULL;
    std::shared_lock<std::shared_mutex> lock;
    Task* receiver = LockConsumer(taskId, type, lock);
    if (receiver == nullptr) {
        poco_debug(FrameworkLogger(), Poco::format("task %s: no consumer %lu for type %s", name(), taskId,
                                                   std::string(type != nullptr ? type : "")));
        return MSG_ERR_UNKNOWN_TASK;
    }
    return receiver->EnqueueMsg(owned.release());
}

int Task::TrySendMsg(unsigned long taskId, const char* type, std::unique_ptr<Message>& msg, bool wake) {
    if (!msg) return MSG_ERR_NULL;
    std::shared_lock<std::shared_mutex> lock;
    Task* receiver = LockConsumer(taskId, type, lock);
    if (receiver == nullptr) {
        msg.reset();
        return MSG_ERR_UNKNOWN_TASK;
    }
    if (!receiver->TryEnqueue(msg.get(), wake)) {
        receiver->_waiter.Notify();
        receiver->AskDrainSignal(this);
        return MSG_ERR_QUEUE_FULL;
    }
    static_cast<void>(msg.release());  // the receiver's now
    if (receiver->_queued.load(std::memory_order_acquire) < receiver->_highWater) return MSG_OK;
    // Congested: the receiver must get going whatever the sender batches.
    receiver->_waiter.Notify();
    receiver->AskDrainSignal(this);
    return MSG_OK_HIGH_WATER;
}

void Task::WakeConsumer(unsigned long taskId, const char* type) {
    std::shared_lock<std::shared_mutex> lock;
    Task* receiver = LockConsumer(taskId, type, lock);
    if (receiver != nullptr) receiver->_waiter.Notify();
}

bool Task::GetConsumerQueue(unsigned long taskId, const char* type, QueueState& state) {
    std::shared_lock<std::shared_mutex> lock;
    const Task* receiver = LockConsumer(taskId, type, lock);
    if (receiver == nullptr) return false;
    state.queued = receiver->_queued.load(std::memory_order_acquire);
    state.lowWater = receiver->_lowWater;
    state.taken = receiver->_taken.load(std::memory_order_relaxed);
    return true;
}

int Task::DeliverSync(unsigned long taskId, const char* type, Message* msg, int attempts,
                      std::chrono::steady_clock::time_point deadline) {
    for (int attempt = 1;; ++attempt) {
        std::chrono::steady_clock::time_point now;
        {
            std::shared_lock<std::shared_mutex> lock;
            Task* receiver = LockConsumer(taskId, type, lock);
            if (receiver == nullptr) return MSG_ERR_UNKNOWN_TASK;
            if (receiver == this) return MSG_ERR_SELF;
            if (receiver->TryEnqueue(msg)) return MSG_OK;
            now = std::chrono::steady_clock::now();
            // Out of attempts or out of time: either way the message is dropped.
            if (attempt >= attempts || now >= deadline) {
                receiver->CountDrop();
                return MSG_ERR_QUEUE_FULL;
            }
        }
        // Spread the remaining attempts evenly over what is left of the time-out.
        std::this_thread::sleep_for((deadline - now) / (attempts - attempt + 1));
    }
}

int Task::SyncSendMsg(unsigned long taskId, const char* type, Message* msg, std::string& response, long timeoutMs,
                      int last) {
    response.clear();
    std::unique_ptr<Message> owned(msg);
    if (!owned) return MSG_ERR_NULL;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs > 0 ? timeoutMs : 0);
    auto reply = std::make_shared<SyncReply>();
    owned->_sync = reply;
    const int delivered = DeliverSync(taskId, type, owned.get(), last > 1 ? last : 1, deadline);
    if (delivered != MSG_OK) return delivered;  // still ours: freed here
    static_cast<void>(owned.release());         // the receiver's now

    {
        std::lock_guard<std::mutex> lock(_syncMutex);
        _syncWait = reply;
    }
    if (IsCancelling()) reply->Complete(MSG_ERR_CANCELLED, std::string());
    int result = MSG_ERR_TIMEOUT;
    std::string text;
    const bool answered = reply->WaitUntil(deadline, result, text);
    {
        std::lock_guard<std::mutex> lock(_syncMutex);
        _syncWait.reset();
    }
    if (!answered) return MSG_ERR_TIMEOUT;
    response = std::move(text);
    return result;
}

void Task::HandleOne(Message* msg) {
    std::unique_ptr<Message> owned(msg);
    int result = MSG_ERR_NOT_HANDLED;
    try {
        result = InterceptMsg(msg);
        if (result == 0) result = msg->MessageHandle(static_cast<Task*>(this));
        HandleMsg(msg, result);
    } catch (const std::exception& e) {
        poco_error(FrameworkLogger(), Poco::format("task %s: handler of message %s threw: %s", name(),
                                                   msg->GetMsgName(), std::string(e.what())));
    } catch (...) {
        poco_error(FrameworkLogger(), Poco::format("task %s: handler of message %s threw", name(), msg->GetMsgName()));
    }
    if (msg->_sync) msg->_sync->Complete(result, msg->GetMsgReply());
}

int Task::BulkConsumeMsg(int maxCount) {
    constexpr int kChunk = 64;
    Message* batch[kChunk];
    int taken = 0;
    while (taken < maxCount) {
        const std::size_t want = static_cast<std::size_t>(std::min(kChunk, maxCount - taken));
        const std::size_t got = _queue->try_dequeue_bulk(batch, want);
        if (got == 0) break;
        const std::size_t left = _queued.fetch_sub(got, std::memory_order_acq_rel) - got;
        _taken.fetch_add(got, std::memory_order_relaxed);
        taken += static_cast<int>(got);
        if (left <= _lowWater && _drainWanted.load()) SendDrainSignals();
        for (std::size_t i = 0; i < got; ++i)
            HandleOne(batch[i]);
    }
    // Messages left for the next pass: make that pass's wait return at once.
    if (_queued.load(std::memory_order_acquire) > 0) _waiter.Notify();
    ReportDrops(false);
    return taken;
}

int Task::ServeMessages(int waitTimeoutMs, int bulkCount) {
    while (!IsCancelling()) {
        if (_waiter.WaitAndHandleEvent(waitTimeoutMs, 128) < 0) BulkConsumeMsg(bulkCount);
    }
    return 0;
}

}  // namespace Framework
