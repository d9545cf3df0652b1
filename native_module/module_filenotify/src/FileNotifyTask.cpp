#include "FileNotifyTask.h"

#include <sys/epoll.h>

#include <sys/inotify.h>

#include <algorithm>

#include "CpuYield.h"
#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyPath.h"
#include "FileNotifyUtils.h"
#include "sdk/FileUtils.h"

namespace Engine {

FileNotifyTask::FileNotifyTask()
    : Framework::Task("filenotify_task", "filenotify_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT,
                      kQueueCapacity),
      flowControl(
          *this, [this](int reader, bool held) { HoldReader(reader, held); },
          [this](int reader, int taskId) { return IsReaderShared(reader, taskId); }) {}

FileNotifyTask::~FileNotifyTask() {
    // Pending records go before the engines; the members then unwind in
    // reverse order: the fanotify manager first, then the inotify manager.
    ClearCache();
}

int FileNotifyTask::Init() {
    if (fileInotifyWatch.AddEventsWatch(this, &FileNotifyTask::InotifyEventAction) != 0) {
        FN_LOG(LOG_ERROR, "fileInotifyWatch.AddEventsWatch failed");
    }
    if (fileFanotifyWatch.AddEventsWatch(this, &FileNotifyTask::FanotifyEventAction) != 0) {
        FN_LOG(LOG_ERROR, "fileFanotifyWatch.AddEventsWatch failed");
    }
    if (mountWatch.GetFd() >= 0) {
        mountEvent = std::make_unique<Framework::Event>(
            new Framework::EventCallback<FileNotifyTask>(this, &FileNotifyTask::MountEventAction), nullptr,
            mountWatch.GetFd(), static_cast<unsigned int>(EPOLLPRI));
        if (GetEventWaiter().AddEvent(mountEvent.get()) != 0) {
            FN_LOG(LOG_WARNING, "mounts are not followed: the mount table cannot be watched");
            mountEvent.reset();
        }
    }
    return Framework::Task::Init();
}

void FileNotifyTask::cancel() {
    Framework::Task::cancel();
    fileFanotifyWatch.AllowWaiting();
}

void FileNotifyTask::UnInit() {
    mountEvent.reset();
    // Nobody answers permission events once the loop has ended: close the
    // groups now so that no process waits for this object's destruction.
    fileFanotifyWatch.CloseInstances();
    Framework::Task::UnInit();
}

int FileNotifyTask::InotifyEventAction(int fd, unsigned int /*events*/, void* /*arg*/) {
    // Aligned for the inotify_event records the kernel writes into it.
    alignas(struct inotify_event) char buffer[kEventReadBufferSize];
    fileInotifyWatch.ReadEvents(fd, buffer, eventBufferSize);
    flowControl.WakeConsumers();
    return 0;
}

int FileNotifyTask::FanotifyEventAction(int fd, unsigned int /*events*/, void* /*arg*/) {
    alignas(8) char buffer[kEventReadBufferSize];
    fileFanotifyWatch.ReadEvents(fd, buffer, eventBufferSize);
    flowControl.WakeConsumers();
    return 0;
}

int FileNotifyTask::MountEventAction(int /*fd*/, unsigned int /*events*/, void* /*arg*/) {
    const std::vector<std::string> changed = mountWatch.TakeChanges();
    alignas(struct inotify_event) char buffer[kEventReadBufferSize];
    if (!changed.empty()) fileInotifyWatch.ResyncUnder(changed, buffer, eventBufferSize);
    flowControl.WakeConsumers();
    return 0;
}

void FileNotifyTask::HoldReader(int reader, bool held) {
    if (!fileInotifyWatch.HoldReader(reader, held)) fileFanotifyWatch.HoldReader(reader, held);
}

bool FileNotifyTask::IsReaderShared(int reader, int taskId) const {
    std::set<int> taskIds;
    fileInotifyWatch.GetWatchData().GetTaskIdSet(reader, taskIds);
    fileFanotifyWatch.GetWatchData().GetTaskIdSet(reader, taskIds);
    taskIds.erase(taskId);
    return !taskIds.empty();
}

int FileNotifyTask::NextWaitMs() const {
    const int service = flowControl.NextServiceMs();
    const int wait = service >= 0 && service < waitTimeout ? service : waitTimeout;
    const int check = PermitCheckInMs();
    return check >= 0 && check < wait ? check : wait;
}

int FileNotifyTask::PermitCheckInMs() const {
    if (!fileFanotifyWatch.HasPermitWatches() && pendingWatchList.empty()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(nextPermitCheck - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<long long>(left.count(), 0, kPermitCheckMs));
}

void FileNotifyTask::CheckPermitWatches() {
    nextPermitCheck = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPermitCheckMs);
    fileFanotifyWatch.CheckPermitWatches();
    // The pass-counting timer may be far off when idle; a lost root's path
    // may even be back already.
    TimerSchduler();
}

int FileNotifyTask::Run() {
    passCount = 0;
    for (;;) {
        if (IsCancelling()) return 0;
        // Negative: messages are waiting (or the wait timed out): drain now.
        if (GetEventWaiter().WaitAndHandleEvent(NextWaitMs(), 128) < 0) BulkConsumeMsg(bulkMsgCount);
        // A consumer that drained wakes this loop through the waiter.
        if (flowControl.IsServiceDue(TakeDrainSignal())) flowControl.Service();
        if (PermitCheckInMs() == 0) CheckPermitWatches();
        // The timer counts passes, not time: idle, a pass is one full wait.
        if (++passCount >= timerPassThreshold) {
            TimerSchduler();
            passCount = 0;
        }
    }
}

int FileNotifyTask::AddFileNotifyMsgConsumer(int taskId, Framework::Task* watcher) {
    FN_LOG(LOG_DEBUG, "AddFileNotifyMsgConsumer AddConsumer taskId=%d", taskId);
    if (watcher == nullptr) {
        FN_LOG(LOG_ERROR, "watcher is NULL taskId=%d", taskId);
        return 0;
    }
    const int result = AddConsumer(taskId, "f", watcher);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "Task::AddConsumer failed taskId=%d", taskId);
        return result;
    }
    return 0;
}

int FileNotifyTask::AddSenderAsConsumer(int taskId) {
    FN_LOG(LOG_DEBUG, "AddFileNotifyMsgConsumer AddConsumer taskId=%d", taskId);
    if (AddConsumerById(taskId, "f") != 0) {
        FN_LOG(LOG_ERROR, "the sender of a watch request is gone, taskId=%d", taskId);
        return 1;
    }
    return 0;
}

int FileNotifyTask::AddInotifyWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                                    int& watchId) {
    FN_LOG(LOG_DEBUG, "AddInotifyWatch taskId=%d;watchedObject=%s;mask=%u", taskId, path, mask);
    const int result = fileInotifyWatch.AddWatch(taskId, path, mask, opt, watchId);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "fileFanotifyWatch.AddEventsWatch failed");
        lastWatchFailure = fileInotifyWatch.LastFailure();
        return result;
    }
    if ((mask & FileNotifyMask::kCreate) != 0 && opt.simulateCreate) {
        // Announced as what it is: only a folder carries the folder flag, not
        // a FIFO, socket or device.
        const unsigned int created = SDK::DirUtils::IsDir(path)
                                         ? (FileNotifyMask::kCreate | FileNotifyMask::kOnDirectory)
                                         : FileNotifyMask::kCreate;
        // Of the watch it announces, like its later events.
        flowControl.SendReport(taskId, 0, path, created, watchId, path, opt.extParm);
        FN_LOG(LOG_DEBUG, "simulate send add mesage taskId=%d;watchedObject=%s;mask=%u", taskId, path, created);
    }
    return 0;
}

int FileNotifyTask::AddNotifyWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                                   int& watchId) {
    FN_LOG(LOG_DEBUG, "AddFanotifyNotifyWatch taskId=%d;watchedObject=%s;mask=%u", taskId, path, mask);
    const int result = fileFanotifyWatch.AddNotifyWatch(taskId, path, mask, opt, watchId);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "fileFanotifyWatch.AddNotifyWatch failed");
        lastWatchFailure = fileFanotifyWatch.LastFailure();
    }
    return result;
}

int FileNotifyTask::AddPermitWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                                   int& watchId) {
    FN_LOG(LOG_DEBUG, "AddFanotifyPermitWatch taskId=%d;watchedObject=%s;mask=%u", taskId, path, mask);
    const int result = fileFanotifyWatch.AddPermitWatch(taskId, path, mask, opt, watchId);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "fileFanotifyWatch.AddPermitWatch failed");
        lastWatchFailure = fileFanotifyWatch.LastFailure();
    }
    return result;
}

int FileNotifyTask::RemoveInotifyWatch(int taskId, const std::string& path) {
    FN_LOG(LOG_DEBUG, "RemoveInotifyWatch taskId=%d;watchedObject=%s", taskId, path);
    return fileInotifyWatch.RemoveWatch(taskId, path);
}

Notify_WatchItem* FileNotifyTask::GetNotifyWatch(int taskId, const std::string& path) {
    FN_LOG(LOG_DEBUG, "GetNotifyWatch taskId=%d;watchedObject=%s", taskId, path);
    return fileFanotifyWatch.GetNotifyWatch(taskId, path);
}

int FileNotifyTask::RemoveNotifyWatch(Notify_WatchItem* item) {
    FN_LOG(LOG_DEBUG, "RemoveFanotifyNotifyWatch");
    return fileFanotifyWatch.RemoveNotifyWatch(item);
}

int FileNotifyTask::RemovePermitWatch(int taskId, const std::string& path) {
    FN_LOG(LOG_DEBUG, "RemoveFanotifyPermitWatch taskId=%d;watchedObject=%s", taskId, path);
    return fileFanotifyWatch.RemovePermitWatch(taskId, path);
}

int FileNotifyTask::AddPendingWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                                    int notifyType) {
    pendingWatchList.emplace_back(new _PendingWatchItem{taskId, mask, notifyType, path, opt});
    FN_LOG(LOG_DEBUG, "AddPendingWatch taskId=%d;watchedObject=%s;mask=%u", taskId, path, mask);
    return 0;
}

int FileNotifyTask::RemovePendingWatch(int taskId, const std::string& path, bool& found) {
    found = false;
    if (pendingWatchList.empty()) return 0;
    timerSuspended = true;
    for (auto it = pendingWatchList.begin(); it != pendingWatchList.end(); ++it) {
        FN_CPU_YIELD();
        const _PendingWatchItem& record = **it;
        // A plain prefix: /data/a also drops a record for /data/ab.
        if (record.taskId != taskId || !FileNotifyUtils::HasPrefix(record.path, path)) continue;
        FN_LOG(LOG_DEBUG, "RemovePendingWatch taskId=%d;watchedObject=%s", taskId, record.path);
        pendingWatchList.erase(it);
        found = true;
        break;
    }
    timerSuspended = false;
    return 0;
}

void FileNotifyTask::TimerSchduler() {
    if (pendingWatchList.empty() || timerSuspended) return;
    for (auto it = pendingWatchList.begin(); it != pendingWatchList.end();) {
        FN_CPU_YIELD();
        _PendingWatchItem& record = **it;
        if (!FileNotifyUtils::IsExistFilePath(record.path)) {
            ++it;
            continue;
        }
        record.opt.timerFound = true;
        const std::string path = FileNotifyPath::FormatFolderName(record.path);
        FN_LOG(LOG_DEBUG, "Timer detect new created file taskId=%d;watchedObject=%s;mask=%u", record.taskId, path,
               record.mask);
        // Taken out for the add, and put back in its place if the add fails.
        std::unique_ptr<_PendingWatchItem> owned = std::move(*it);
        it = pendingWatchList.erase(it);
        int watchId = 0;
        int result = 0;
        switch (owned->notifyType) {
            case 0:
                result = AddInotifyWatch(owned->taskId, path, owned->mask, owned->opt, watchId);
                break;
            case 1:
                // A notify watch the task may still hold on the path gives way.
                RemoveNotifyWatch(GetNotifyWatch(owned->taskId, path));
                result = AddNotifyWatch(owned->taskId, path, owned->mask, owned->opt, watchId);
                break;
            case 2:
                result = AddPermitWatch(owned->taskId, path, owned->mask, owned->opt, watchId);
                if (result == 0 && watchId != 0) {
                    fileFanotifyWatch.SendPermitWatchReport(
                        owned->taskId, watchId, path, FileNotifyMessage::kPermitWatchBackMask, owned->opt.extParm);
                }
                break;
            default:
                break;
        }
        if (result == 0) continue;
        // Kept and tried again at every check: a root that cannot be watched
        // now (gone again, the watch limit, no permission) is never dropped.
        ReportFailedAdd(*owned);
        it = std::next(pendingWatchList.insert(it, std::move(owned)));
    }
}

void FileNotifyTask::ReportFailedAdd(_PendingWatchItem& record) {
    // Gone again before the watch: simply pending, nothing to tell.
    if (record.failed || !FileNotifyUtils::IsExistFilePath(record.path)) return;
    record.failed = true;
    FN_LOG(LOG_ERROR, "call AddWatch failed m_filePath=%s", record.path);
    flowControl.SendReport(record.taskId, 0, record.path, FileNotifyMessage::kWatchFailedMask, -1, record.path,
                           record.opt.extParm);
}

void FileNotifyTask::ClearCache() {
    FN_LOG(LOG_DEBUG, "call ClearCache");
    pendingWatchList.clear();
}

}  // namespace Engine
