#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include <Poco/Task.h>

#include "framework/EventWaiter.h"
#include "framework/Export.h"

namespace moodycamel {
struct ConcurrentQueueDefaultTraits;
template <typename T, typename Traits>
class ConcurrentQueue;
}  // namespace moodycamel

namespace Framework {

class Message;
class SyncReply;

struct TaskCondition {
    // How the host treats a task; the framework itself runs them all alike.
    enum TaskType {
        TASK_TYPE_NONE = 0,
        TASK_TYPE_ONCE = 1,      // runs to its end once
        TASK_TYPE_TIMER = 2,     // woken by a timer
        TASK_TYPE_EVENT = 3,     // woken by messages only
        TASK_TYPE_RESIDENT = 4,  // loops on its own descriptors until cancelled
    };
};

// Result codes of the messaging calls. A handler's own result is >= 0 by
// convention; the framework's failures are negative so that a caller can tell
// the two apart (no failure equals a handler's verdict).
enum MsgResult : int {
    MSG_OK = 0,
    MSG_OK_HIGH_WATER = 1,      // TrySendMsg: queued, and the receiver's queue is at its high-water mark
    MSG_ERR_NULL = -1,          // no message given
    MSG_ERR_UNKNOWN_TASK = -2,  // no consumer under that id and type, or it is gone
    MSG_ERR_QUEUE_FULL = -3,    // the receiver's queue holds its capacity
    MSG_ERR_TIMEOUT = -4,       // no answer within the time-out
    MSG_ERR_NOT_HANDLED = -5,   // the message was dropped unhandled (receiver stopped)
    MSG_ERR_SELF = -6,          // a synchronous send to the sending task itself would never end
    MSG_ERR_CANCELLED = -7,     // the sending task was cancelled while it waited
};

// A unit of work of the agent: a POCO task with a bounded multi-producer
// message queue, a consumer map, and an epoll waiter on which its thread
// sleeps.
//
// Threads: Init, Run, UnInit, BulkConsumeMsg and the callbacks of the waiter
// run on the task's own thread (Init and UnInit on the host's, before and
// after it). EnqueueMsg, SendMsg, SyncSendMsg, AddConsumer and cancel may be
// called from any thread.
//
// Lifetime: POCO tasks are reference counted; the module that registers a
// task owns its first reference. A task is listed in a process-wide registry
// under its id from Publish to Withdraw, while it is whole, and messages are
// delivered only through that registry, so a message to a task that is not
// built yet or is gone fails cleanly instead of touching a part-made or
// freed object.
class FRAMEWORK_API Task : public Poco::Task {
public:
    Task(const std::string& taskName, const std::string& featureName, TaskCondition::TaskType type, int queueCapacity);

    virtual int Init();
    virtual void UnInit();
    // The task's body, on its own thread; returns when the task is cancelled
    // (or its work is done). The result is logged by the host.
    virtual int Run() = 0;

    // Takes ownership of msg and queues it for this task's thread. Returns 0,
    // MSG_ERR_NULL, or MSG_ERR_QUEUE_FULL (the message is deleted, counted as
    // dropped and reported in a rate-limited warning). Never blocks.
    virtual int EnqueueMsg(Message* msg);
    // Called on this task's thread before a message is handled; a non-zero
    // result means the message was taken care of and MessageHandle is skipped.
    virtual int InterceptMsg(Message* msg);
    // Called on this task's thread after MessageHandle with its result.
    virtual void HandleMsg(Message* msg, int result);

    // Registers watcher as the receiver of messages of `type` addressed to
    // taskId. Registering again replaces the earlier receiver. Returns 0, or
    // 1 when watcher is null.
    int AddConsumer(int taskId, const std::string& type, Task* watcher);
    // Registers the live task named taskName as the receiver of `type` under
    // its own id, for a sender that knows the receiver only by name. Returns
    // that id, or 0 when no task has the name.
    int AddConsumerByName(const std::string& taskName, const std::string& type);
    // Registers the live task taskId as the receiver of `type` under its own
    // id, found through the registry: 0, or 1 when no such task lives.
    int AddConsumerById(int taskId, const std::string& type);
    int RemoveConsumer(int taskId, const std::string& type);

    // Queues msg (ownership passes, whatever the result) for the consumer
    // registered under (taskId, type). Returns 0 or a MsgResult failure.
    int SendMsg(unsigned long taskId, const char* type, Message* msg);

    // Flow control, for a sender that must not lose messages and must not
    // block. Like SendMsg, but a full queue leaves the message with the
    // caller (msg still holds it) and returns MSG_ERR_QUEUE_FULL, counting
    // nothing as dropped; MSG_OK_HIGH_WATER means queued, with the queue at or
    // above its high-water mark. After either of these two results the
    // receiver signals this task once it has drained its queue to its
    // low-water mark: TakeDrainSignal() turns true and this task's wait is
    // woken. Any other result frees the message, as SendMsg does.
    // wake false: the receiver is not woken for this message (unless its
    // queue has reached the high-water mark); the sender calls WakeConsumer
    // once its batch of messages is queued. Every wake-up of a thread costs
    // more than queueing a message, so a burst is better handed over whole.
    int TrySendMsg(unsigned long taskId, const char* type, std::unique_ptr<Message>& msg, bool wake = true);
    // Wakes the consumer under (taskId, type) to handle what is queued.
    void WakeConsumer(unsigned long taskId, const char* type);
    // True once for each drain signal received since the last call.
    bool TakeDrainSignal() { return _drainSignal.exchange(false, std::memory_order_acq_rel); }

    // A receiver's queue as a sender sees it.
    struct QueueState {
        std::size_t queued = 0;
        std::size_t lowWater = 0;
        std::uint64_t taken = 0;  // messages taken from the queue so far: progress
    };
    // False when no live consumer is registered under (taskId, type).
    bool GetConsumerQueue(unsigned long taskId, const char* type, QueueState& state);

    // Sends msg like SendMsg and blocks until the consumer's thread has run
    // its MessageHandle: returns that result and copies the message's reply
    // string into response. `last` is the number of delivery attempts while
    // the consumer's queue is full (values below 1 count as 1); the attempts
    // are spread over the time-out. The whole call never waits longer than
    // timeoutMs. On failure returns a negative MsgResult and leaves response
    // empty. A message handled after its sender gave up is still handled and
    // then freed by the consumer; nothing of the sender is touched. A cancel
    // of the sending task ends the wait at once with MSG_ERR_CANCELLED.
    int SyncSendMsg(unsigned long taskId, const char* type, Message* msg, std::string& response, long timeoutMs,
                    int last);

    // Handles up to maxCount queued messages on the calling (this task's)
    // thread and deletes them. Returns how many were taken from the queue.
    // If messages remain, the next wait returns at once.
    int BulkConsumeMsg(int maxCount);

    // Makes this task reachable by its id and name (messages, consumers).
    // Called once the task is fully built: TaskRunner::Start does, before
    // Init. Idempotent.
    void Publish();
    // Makes it unreachable again: a send from then on fails cleanly with
    // MSG_ERR_UNKNOWN_TASK. TaskRunner::Stop does once the thread has ended,
    // before anything is torn down; the destructor does for a task that was
    // never stopped. Idempotent.
    void Withdraw();
    int GetTaskId() const { return _taskId; }
    const std::string& GetTaskName() const { return name(); }
    const std::string& GetFeatureName() const { return _featureName; }
    TaskCondition::TaskType GetTaskType() const { return _taskType; }
    int GetQueueCapacity() const { return _capacity; }
    std::size_t GetQueuedMsgCount() const { return _queued.load(std::memory_order_relaxed); }
    std::uint64_t GetDroppedMsgCount() const { return _dropped.load(std::memory_order_relaxed); }

    EventWaiter& GetEventWaiter() { return _waiter; }
    // The cancel flag is set before POCO's state (an atomic, readable from any thread).
    bool IsCancelling() const { return _cancelRequested.load(std::memory_order_acquire) || state() == TASK_CANCELLING; }

    // POCO's cancel, plus a wake-up of the task's wait so that Run sees the
    // cancelling state at once instead of at the end of a time-out.
    void cancel() override;
    // Calls Run (the POCO entry point of the task's thread).
    void runTask() override;

    // The id of the task with that name, or 0 when there is none.
    static int FindTaskIdByName(const std::string& taskName);

protected:
    ~Task() override;

    // A simple loop for tasks that only serve messages: waits on the waiter
    // and drains the queue until cancelled. Returns 0.
    int ServeMessages(int waitTimeoutMs = 1000, int bulkCount = 128);

private:
    using Queue = moodycamel::ConcurrentQueue<Message*, moodycamel::ConcurrentQueueDefaultTraits>;

    bool TryEnqueue(Message* msg, bool wake = true);
    void CountDrop();
    // Logs the drops not reported yet: at most once a second unless forced.
    void ReportDrops(bool force);
    void AskDrainSignal(Task* sender);
    void SendDrainSignals();
    Task* LockConsumer(unsigned long taskId, const char* type, std::shared_lock<std::shared_mutex>& lock);
    int DeliverSync(unsigned long taskId, const char* type, Message* msg, int attempts,
                    std::chrono::steady_clock::time_point deadline);
    void HandleOne(Message* msg);

    const int _taskId;
    const std::string _featureName;
    const TaskCondition::TaskType _taskType;
    const int _capacity;
    std::unique_ptr<Queue> _queue;
    std::atomic<std::size_t> _queued{0};
    std::atomic<std::uint64_t> _taken{0};
    std::atomic<std::uint64_t> _dropped{0};
    std::atomic<long long> _lastDropLogTick{0};
    std::atomic<std::uint64_t> _droppedAtLastLog{0};
    std::atomic<bool> _cancelRequested{false};
    // What TrySendMsg senders see: congested from three quarters of the
    // capacity on, drained again at a quarter.
    const std::size_t _highWater;
    const std::size_t _lowWater;
    std::atomic<bool> _drainWanted{false};
    std::atomic<bool> _drainSignal{false};
    std::mutex _drainMutex;
    std::vector<int> _drainWaiters;  // ids of the senders to signal
    EventWaiter _waiter;

    std::mutex _syncMutex;
    std::shared_ptr<SyncReply> _syncWait;  // the reply this task waits for, if any

    std::mutex _consumerMutex;
    std::map<std::pair<int, std::string>, int> _consumers;  // (taskId, type) -> receiver's id
};

}  // namespace Framework
