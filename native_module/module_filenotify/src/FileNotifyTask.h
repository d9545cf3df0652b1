#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <string>

#include "FileFanotifyWatch.h"
#include "FileInotifyWatch.h"
#include "FileNotifyFlowControl.h"
#include "FileNotifyMountWatch.h"
#include "FileNotifyOpt.h"
#include "FileNotifyWatchService.h"
#include "framework/Event.h"
#include "framework/Task.h"

namespace Engine {

// A watch whose path does not exist yet; the timer makes it a real watch
// once the path appears.
struct _PendingWatchItem {
    int taskId = 0;
    unsigned int mask = 0;
    int notifyType = 0;  // 0 inotify, 1 fanotify notify, 2 fanotify permit
    std::string path;
    _FileNotifyOpt opt;
    bool failed = false;  // an add failed while the path existed: told once, then retried quietly
};

// The module's one task, "filenotify_task": owns both watch engines and runs
// everything of the module on its own thread: descriptor callbacks, watch
// requests from consumers (through its message queue) and the timer duties.
class FileNotifyTask : public Framework::Task, public FileNotifyWatchService {
public:
    static constexpr int kQueueCapacity = 4096;
    static constexpr int kEventReadBufferSize = 5120;
    // Pending and permit watches are checked by time as well as by passes: a
    // path that is back must be watched within about a second, also when the
    // loop idles.
    static constexpr int kPermitCheckMs = 1000;

    FileNotifyTask();

    int Init() override;
    void UnInit() override;
    int Run() override;
    // Any thread: besides the framework's cancel, allows every access that
    // waits for a verdict at once, instead of at its deadline.
    void cancel() override;

    // Event waiter callbacks: drain the ready descriptor of either engine.
    int InotifyEventAction(int fd, unsigned int events, void* arg);
    int FanotifyEventAction(int fd, unsigned int events, void* arg);
    // The mount table changed: trees at or around the changed mount points
    // are looked at again.
    int MountEventAction(int fd, unsigned int events, void* arg);

    // Registers watcher as the receiver of file events for taskId. A null
    // watcher is logged and not reported as failure.
    int AddFileNotifyMsgConsumer(int taskId, Framework::Task* watcher) override;
    int AddSenderAsConsumer(int taskId) override;

    // Watch dispatch: each forwards to its engine's manager and returns its
    // result (0 for success). watchId receives the id of the watch made.
    // After an inotify add with the create bit and simulateCreate, the
    // consumer receives a created event for the watched object itself.
    int AddInotifyWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                        int& watchId) override;
    int AddNotifyWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                       int& watchId) override;
    int AddPermitWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                       int& watchId) override;
    const WatchFailure& LastWatchFailure() const override { return lastWatchFailure; }
    int RemoveInotifyWatch(int taskId, const std::string& path) override;
    Notify_WatchItem* GetNotifyWatch(int taskId, const std::string& path) override;
    int RemoveNotifyWatch(Notify_WatchItem* item) override;
    int RemovePermitWatch(int taskId, const std::string& path) override;

    // Keeps a watch for a path that does not exist (yet); notifyType 0
    // inotify, 1 fanotify notify, 2 fanotify permit. No duplicate check.
    int AddPendingWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                        int notifyType) override;
    // Drops the first pending record of taskId whose path begins with path.
    // Always 0; found tells whether one was dropped.
    int RemovePendingWatch(int taskId, const std::string& path, bool& found) override;
    // Timer duty, run every timerPassThreshold passes of the loop (and by
    // the permit watch check): pending paths that exist now become watches;
    // their records are dropped. A permit watch placed is reported to its
    // task (kPermitWatchBackMask); one whose path went again stays pending.
    void TimerSchduler();
    // Frees every pending watch record.
    void ClearCache();

    // Delivery of event messages to the consumers, for the engines.
    FileNotifyFlowControl& GetFlowControl() { return flowControl; }

protected:
    ~FileNotifyTask() override;

    std::list<std::unique_ptr<_PendingWatchItem>> pendingWatchList;

private:
    // Stops or resumes reading the event descriptor `reader`.
    void HoldReader(int reader, bool held);
    bool IsReaderShared(int reader, int taskId) const;
    int NextWaitMs() const;
    // Milliseconds until the timed check is due, 0 when it is, -1 while
    // there is nothing to check (no permit watch, nothing pending).
    int PermitCheckInMs() const;
    void CheckPermitWatches();
    // A pending watch whose add failed although its path exists: logged and
    // told to its consumer the first time only.
    void ReportFailedAdd(_PendingWatchItem& record);

    // Before the engines: they send through it until they are gone.
    FileNotifyFlowControl flowControl;

protected:
    // Open to subclasses that look at the engine's bookkeeping.
    FileInotifyWatch fileInotifyWatch;

private:
    FileFanotifyWatch fileFanotifyWatch;
    FileNotifyMountWatch mountWatch;
    std::unique_ptr<Framework::Event> mountEvent;  // before mountWatch goes: its descriptor
    bool timerSuspended = false;
    int bulkMsgCount = 128;
    int waitTimeout = 3000;
    int timerPassThreshold = 20;
    int passCount = 0;
    std::chrono::steady_clock::time_point nextPermitCheck{};
    int eventBufferSize = kEventReadBufferSize;
    WatchFailure lastWatchFailure;
};

}  // namespace Engine
