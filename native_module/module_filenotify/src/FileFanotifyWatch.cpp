#include "FileFanotifyWatch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "CpuYield.h"
#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyTask.h"
#include "FileNotifyUtils.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

// stat, or lstat when the mark does not follow a link at path.
bool StatAsMarked(const std::string& path, const _FileNotifyOpt& opt, struct stat& status) {
    return (opt.watchSymLink ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status)) == 0;
}

bool IsObjectOf(const struct stat& status, const PermitWatchItem& record) {
    return status.st_dev == record.dev && status.st_ino == record.ino;
}

// A path that reaches the record's object: its own path while that still
// names it, else the held descriptor's (which reaches a deleted one too).
std::string MarkedPathOf(const std::string& path, const PermitWatchItem& record) {
    struct stat status {};
    if (StatAsMarked(path, record.requestOpt, status) && IsObjectOf(status, record)) return path;
    return "/proc/self/fd/" + std::to_string(record.held.get());
}

}  // namespace

FileFanotifyWatch::FileFanotifyWatch()
    : notifyFileFanotify(std::make_unique<FileFanotify>()), permitFileFanotify(std::make_unique<FileFanotify>()) {
    if (permitFileFanotify->Initialize(true) != 0) {
        FN_LOG(LOG_ERROR, "call permitFileFanotify->Initialize failed,block=%b", true);
    }
    fanotifyMap.emplace(permitFileFanotify->GetFd(), permitFileFanotify.get());
    if (notifyFileFanotify->Initialize(false) != 0) {
        FN_LOG(LOG_ERROR, "call notifyFileFanotify->Initialize failed,block=%b", false);
    }
    fanotifyMap.emplace(notifyFileFanotify->GetFd(), notifyFileFanotify.get());
    if (!IsAvailable()) LogUnavailable();
}

FileFanotifyWatch::~FileFanotifyWatch() {
    ClearPermitWatch();
    permitFileFanotify.reset();
    notifyFileFanotify.reset();
}

void FileFanotifyWatch::LogUnavailable() const {
    const int error = permitFileFanotify->GetInitError();
    if (error == EPERM) {
        FN_LOG(LOG_WARNING,
               "fanotify is off: the agent lacks CAP_SYS_ADMIN (error=%d); process events and permission watches are "
               "unavailable, inotify watches work as usual",
               error);
    } else {
        FN_LOG(LOG_WARNING,
               "fanotify is off: the kernel refused fanotify_init (error=%d); process events and permission watches "
               "are unavailable, inotify watches work as usual",
               error);
    }
}

int FileFanotifyWatch::AddEventsWatch(Framework::Task* notifyTask, EventHandler handler) {
    task = notifyTask;
    if (!permitRouter) {
        permitRouter = std::make_unique<FileFanotifyPermitRouter>(
            notifyTask,
            [group = permitFileFanotify.get()](std::uint64_t ticket) { return group->NewTicketAnswer(ticket); });
        permitFileFanotify->SetPermitDispatch(
            [router = permitRouter.get()](const fanotify_event_metadata& event, std::uint64_t ticket) {
                return router->Dispatch(event, ticket);
            });
        PublishRoutes();
    }
    notifyFileFanotify->AddEventWatch(notifyTask, handler);
    permitFileFanotify->AddEventWatch(notifyTask, handler);
    // The permission group wakes the task through its reader's descriptor.
    if (permitFileFanotify->GetEventFd() != permitFileFanotify->GetFd()) {
        fanotifyMap[permitFileFanotify->GetEventFd()] = permitFileFanotify.get();
    }
    return 0;
}

void FileFanotifyWatch::AllowWaiting() {
    permitFileFanotify->AllowWaiting();
}

void FileFanotifyWatch::CloseInstances() {
    fanotifyMap.clear();
    if (permitFileFanotify->GetFd() >= 0) permitFileFanotify->Finalize();
    if (notifyFileFanotify->GetFd() >= 0) notifyFileFanotify->Finalize();
}

FileFanotify* FileFanotifyWatch::GetFileFanotify(int fd) {
    auto found = fanotifyMap.find(fd);
    return found == fanotifyMap.end() ? nullptr : found->second;
}

Notify_WatchItem* FileFanotifyWatch::GetNotifyWatch(int taskId, const std::string& filePath) {
    return notifyWatchData.GetModuleFileWatch(taskId, filePath);
}

int FileFanotifyWatch::AddNotifyWatch(int taskId, const std::string& filePath, unsigned int mask,
                                      const _FileNotifyOpt& opt, int& wd) {
    _VerifyWatchResult verify;
    notifyWatchData.CheckSameFileWatch(taskId, filePath, verify);
    lastFailure = WatchFailure();
    if (verify.verifyType == VERIFY_SAME_TASK) {
        FN_LOG(LOG_ERROR, "there are same filepath=%s had been watched", filePath);
        lastFailure = WatchFailure::Of(WatchFailure::Reason::Duplicate);
        return 1;
    }
    unsigned int markMask = mask;
    int newWd = 0;
    if (verify.verifyType == VERIFY_SAME_FILE) {
        FN_LOG(LOG_DEBUG, "there are same filepath=%s had been watched,merge mask", filePath);
        markMask |= verify.mask;
        newWd = verify.wd != 0 ? verify.wd : GetNextWd();
    } else {
        notifyWatchData.CheckRelativeFileWatch(filePath, verify);
        if (verify.verifyType == VERIFY_RELATIVE) {
            FN_LOG(LOG_ERROR, "there are relativeFile filepath=%s had been watched", filePath);
            lastFailure = WatchFailure::Of(WatchFailure::Reason::Duplicate);
            return 1;
        }
        newWd = GetNextWd();
    }
    int result = notifyFileFanotify->AddWatch(filePath.c_str(), markMask, opt);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call notifyFileFanotify->AddWatch failed,filepath=%s", filePath);
        lastFailure = notifyFileFanotify->LastFailure();
        return result;
    }
    result = notifyWatchData.AddWatch(
        new Notify_WatchItem{taskId, markMask, notifyFileFanotify->GetFd(), newWd, filePath, opt});
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call notifyWatchData->AddWatch failed,filepath=%s", filePath);
        return result;
    }
    wd = newWd;
    return 0;
}

int FileFanotifyWatch::RemoveNotifyWatch(Notify_WatchItem* watchItem) {
    if (watchItem == nullptr) {
        FN_LOG(LOG_ERROR, "watchItem  is NULL");
        return 1;
    }
    // Copied: the registry deletes the record.
    const Notify_WatchItem record = *watchItem;
    if (notifyFileFanotify->RemoveWatch(record.filePath.c_str(), record.mask, record.opt) != 0) {
        FN_LOG(LOG_ERROR, "call notifyFileFanotify.RemoveWatch failed filepath=%s", record.filePath);
    }
    const int result = notifyWatchData.RemoveWatch(record.taskId, record.fd, record.wd);
    if (result != 0) FN_LOG(LOG_ERROR, "call notifyWatchData.RemoveWatch failed filepath=%s", record.filePath);
    return result;
}

int FileFanotifyWatch::AddPermitWatch(int taskId, const std::string& filePath, unsigned int mask,
                                      const _FileNotifyOpt& opt, int& wd) {
    // Held before the mark is placed: should the path be replaced in
    // between, the record holds the old object, which the check finds
    // deleted, and the path is marked again.
    lastFailure = WatchFailure();
    Framework::UniqueFd held(::open(filePath.c_str(), O_PATH | O_CLOEXEC | (opt.watchSymLink ? 0 : O_NOFOLLOW)));
    struct stat identity {};
    if (!held.valid() || ::fstat(held.get(), &identity) != 0) {
        const int error = errno;
        FN_LOG(LOG_ERROR, "cannot hold %s for its permit watch, errno=%d", filePath, error);
        lastFailure = WatchFailure::FromErrno(error);
        return 1;
    }
    const int newWd = GetNextWd();
    const int result = permitFileFanotify->AddWatch(filePath.c_str(), mask, opt);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call notifyFileFanotify->AddPermitWatch failed,filepath=%s", filePath);
        lastFailure = permitFileFanotify->LastFailure();
        return result;
    }
    auto& record = permitWatchMap[filePath];
    if (record) return 0;
    record = std::make_unique<PermitWatchItem>();
    record->held = std::move(held);
    record->dev = identity.st_dev;
    record->ino = identity.st_ino;
    record->requestOpt = opt;
    record->taskId = taskId;
    record->mask = mask;
    record->wd = newWd;
    record->filePath = filePath;
    record->opt.watchChildFolder = opt.watchChildFolder;
    record->opt.wholeMount = opt.wholeMount;
    wd = newWd;
    PublishRoutes();
    return 0;
}

int FileFanotifyWatch::RemovePermitWatch(int /*taskId*/, const std::string& filePath) {
    auto found = permitWatchMap.find(filePath);
    if (found == permitWatchMap.end()) {
        FN_LOG(LOG_ERROR, "No found watch Item for file %s", filePath);
        return 1;
    }
    if (!found->second) return 0;
    // The mark went with the folder if it moved.
    const int result = permitFileFanotify->RemoveWatch(MarkedPathOf(filePath, *found->second).c_str(),
                                                       found->second->mask, found->second->opt);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call RemoveWatch failed");
        return result;
    }
    permitWatchMap.erase(found);
    PublishRoutes();
    return 0;
}

Notify_WatchItem* FileFanotifyWatch::GetPermitWatchItem(const std::string& eventFile, int eventFd) {
    FN_CPU_YIELD();
    const auto* route = FileFanotifyPermitRouter::Match(permitRoutes, eventFile, eventFd);
    if (route == nullptr) return nullptr;
    const auto found = permitWatchMap.find(route->filePath);
    return found != permitWatchMap.end() ? found->second.get() : nullptr;
}

void FileFanotifyWatch::PublishRoutes() {
    permitRoutes.clear();
    for (const auto& [path, record] : permitWatchMap) {
        if (record)
            permitRoutes.push_back({path, record->dev, record->ino, record->taskId, record->wd, record->opt.extParm});
    }
    if (permitRouter) permitRouter->Publish(permitRoutes);
}

void FileFanotifyWatch::CheckPermitWatches() {
    for (auto it = permitWatchMap.begin(); it != permitWatchMap.end();) {
        FN_CPU_YIELD();
        PermitWatchItem& record = *it->second;
        struct stat status {};
        if (::fstat(record.held.get(), &status) == 0 && status.st_nlink > 0) {
            NoteMovedPermitWatch(it->first, record);
            ++it;
            continue;
        }
        const std::string path = it->first;
        FN_LOG(LOG_WARNING, "guarded %s was deleted: its permit watch waits until the path exists again", path);
        // Whatever is left of the mark: a whole-mount mark outlives the folder.
        if (permitFileFanotify->RemoveWatch(MarkedPathOf(path, record).c_str(), record.mask, record.opt) != 0) {
            FN_LOG(LOG_DEBUG, "no mark left for %s", path);
        }
        const int taskId = record.taskId;
        const int wd = record.wd;
        const unsigned int mask = record.mask;
        const _FileNotifyOpt opt = record.requestOpt;
        it = permitWatchMap.erase(it);
        PublishRoutes();
        SendPermitWatchReport(taskId, wd, path, FileNotifyMessage::kPermitWatchLostMask, opt.extParm);
        if (task != nullptr) static_cast<FileNotifyTask*>(task)->AddPendingWatch(taskId, path, mask, opt, 2);
    }
}

// A moved folder stays guarded where it is now; its old path is not, which
// the log says once per move.
void FileFanotifyWatch::NoteMovedPermitWatch(const std::string& path, PermitWatchItem& record) {
    struct stat status {};
    if (StatAsMarked(path, record.requestOpt, status) && IsObjectOf(status, record)) {
        record.moved = false;
        return;
    }
    if (record.moved) return;
    record.moved = true;
    std::string now;
    FileNotifyUtils::GetFilePathByFd(record.held.get(), now);
    FN_LOG(LOG_WARNING, "guarded %s has moved to %s: the guard stays with it, the old path is not guarded", path, now);
}

void FileFanotifyWatch::SendPermitWatchReport(int taskId, int wd, const std::string& path, unsigned int mask,
                                              unsigned long extParm) {
    if (task != nullptr) FlowControl().SendReport(taskId, 2, path, mask, wd, path, extParm);
}

void FileFanotifyWatch::ClearPermitWatch() {
    permitWatchMap.clear();
    PublishRoutes();
}

int FileFanotifyWatch::ReadEvents(int fd, char* buffer, int size) {
    FileFanotify* instance = GetFileFanotify(fd);
    FN_LOG(LOG_DEBUG, "Fanotify Get fd=%d", fd);
    if (instance == nullptr) {
        FN_LOG(LOG_ERROR, "Get fanotify instance failed, fd=%d", fd);
        return 1;
    }
    const unsigned long overflows = instance->GetOverflowCount();
    const int result = instance->ReadEvents(buffer, size, &FileFanotifyWatch::DoEventCallback, this);
    if (result != 0) FN_LOG(LOG_ERROR, "call ReadEvents failed");
    if (instance->GetOverflowCount() != overflows) SendOverflowMsg(*instance);
    return result;
}

void FileFanotifyWatch::SendOverflowMsg(const FileFanotify& group) {
    std::set<int> taskIds;
    const bool notify = &group == notifyFileFanotify.get();
    if (notify) {
        notifyWatchData.GetTaskIdSet(group.GetFd(), taskIds);
    } else {
        for (const auto& entry : permitWatchMap)
            taskIds.insert(entry.second->taskId);
    }
    FlowControl().SendOverflowReports(taskIds, 1, notify ? group.GetFd() : -1);
}

FileNotifyFlowControl& FileFanotifyWatch::FlowControl() {
    return static_cast<FileNotifyTask*>(task)->GetFlowControl();
}

bool FileFanotifyWatch::HoldReader(int fd, bool held) {
    if (fd < 0 || fd != notifyFileFanotify->GetFd()) return false;
    notifyFileFanotify->SetHeld(held);
    return true;
}

int FileFanotifyWatch::DoEventCallback(int fanotifyFd, bool block, struct fanotify_event_metadata* metadata,
                                       void* userData) {
    auto* self = static_cast<FileFanotifyWatch*>(userData);
    return block ? self->DoPermitEvent(fanotifyFd, metadata) : self->DoNotifyEvent(fanotifyFd, metadata);
}

int FileFanotifyWatch::DoNotifyEvent(int fd, struct fanotify_event_metadata* metadata) {
    std::string eventFile;
    const int found = FileNotifyUtils::GetFilePathByFd(metadata->fd, eventFile);
    if (found != 0) {
        FN_LOG(LOG_ERROR, "call GetFilePathByFd(%d) failed", metadata->fd);
        return found;
    }
    FN_LOG(LOG_DEBUG, "DoNotifyEvent fd=%d, eventfile=%s", fd, eventFile);
    std::set<int> wdSet;
    notifyWatchData.GetEventWdSet(fd, eventFile, wdSet);
    FileNotifyWatchData::WatchItemList records;
    for (int wd : wdSet)
        notifyWatchData.GetWatchItemList(fd, wd, records);
    const auto mask = static_cast<unsigned int>(metadata->mask);
    for (Notify_WatchItem* record : records) {
        FN_LOG(LOG_DEBUG, "DoNotifyEvent taskId=%d, mask=%u, filePath=%s", record->taskId, record->mask,
               record->filePath);
        if (FileNotifyUtils::IsIgnoreWatchObject(eventFile, record->opt)) {
            FN_LOG(LOG_DEBUG, "DoNotifyEvent IsIgnoreWatchObject");
            continue;
        }
        if (FileNotifyUtils::IsIgnoreWatchEvent(static_cast<int>(mask), record->opt.eventMasks, true)) {
            FN_LOG(LOG_DEBUG, "DoNotifyEvent IsIgnoreWatchEvent");
            continue;
        }
        const int result =
            SendEventMsg(record, eventFile, mask, static_cast<unsigned int>(metadata->pid), metadata->fd);
        if (result != 0) {
            FN_LOG(LOG_ERROR, "call SendEventMsg failed eventFile=%s", eventFile);
            return result;
        }
        FN_CPU_YIELD();
    }
    return 0;
}

int FileFanotifyWatch::SendEventMsg(Notify_WatchItem* watchItem, const std::string& eventFile, unsigned int mask,
                                    unsigned int pid, int eventFd) {
    if (task == nullptr) return 0;
    auto message = std::make_unique<FileNotifyMessage>(1, eventFile, mask);
    message->SetProcess(pid, FileNotifyUtils::GetExePath(pid));
    message->SetWatchFile(watchItem->wd, watchItem->filePath);
    message->SetExtParm(watchItem->opt.extParm);
    if (watchItem->opt.fillStat) message->Stat(eventFd);
    // Only the notification group waits for a consumer that falls behind:
    // the permission group's events hold processes.
    const int reader = watchItem->fd == notifyFileFanotify->GetFd() ? watchItem->fd : -1;
    FlowControl().Send(watchItem->taskId, std::move(message), reader);
    return 0;
}

int FileFanotifyWatch::DoPermitEvent(int /*fd*/, struct fanotify_event_metadata* metadata) {
    const int eventFd = metadata->fd;
    const auto mask = static_cast<unsigned int>(metadata->mask);
    const auto pid = static_cast<unsigned int>(metadata->pid);
    const bool isPermission = (mask & kFanPermissionBits) != 0;
    // The consumer may be the very thread that waits, or the module thread itself.
    if (IsOwnAccess(*metadata)) {
        FN_LOG(LOG_DEBUG, kOwnAccessAllowedText, metadata->pid);
        return permitFileFanotify->DoResponse(eventFd, true);
    }
    // An access waits until its deadline at most, counted from when it was
    // read: with no time left, or with the task stopping, nobody is asked.
    const auto deadline = permitFileFanotify->DeadlineOf(eventFd);
    if (isPermission && (std::chrono::steady_clock::now() >= deadline || (task != nullptr && task->IsCancelling()))) {
        FN_LOG(LOG_DEBUG, "no time left to ask about the access of pid=%u: allowed", pid);
        return permitFileFanotify->DoResponse(eventFd, true);
    }
    std::string eventFile;
    if (FileNotifyUtils::GetFilePathByFd(eventFd, eventFile) != 0) FN_LOG(LOG_ERROR, "call GetFilePathByFd failed");
    Notify_WatchItem* record = GetPermitWatchItem(eventFile, eventFd);
    bool isAllow = true;
    if (record == nullptr) {
        FN_LOG(LOG_ERROR, "GetPermitWatchItem NULL for file %s", eventFile);
    } else if (!isPermission) {
        const int result = SendEventMsg(record, eventFile, mask, pid, eventFd);
        if (result != 0) {
            FN_LOG(LOG_ERROR, "call SendEventMsg failed eventFile=%s", eventFile);
            return result;
        }
        FN_CPU_YIELD();
        return 0;
    } else if (SendSyncEventMsg(record, record->wd, eventFile, mask, pid, isAllow, deadline, eventFd) != 0) {
        FN_LOG(LOG_ERROR, "call SendSyncEventMsg failed");
    }
    // Answered on every path: the accessing process waits until then.
    if (isPermission) {
        const int result = permitFileFanotify->DoResponse(eventFd, isAllow);
        if (result != 0) {
            FN_LOG(LOG_ERROR, "call DoResponse failed");
            return result;
        }
    }
    FN_CPU_YIELD();
    return 0;
}

int FileFanotifyWatch::SendSyncEventMsg(Notify_WatchItem* watchItem, int /*wd*/, const std::string& eventFile,
                                        unsigned int mask, unsigned int pid, bool& isAllow,
                                        std::chrono::steady_clock::time_point deadline, int eventFd) {
    isAllow = true;
    if (task == nullptr) return 0;
    FileFanotifyPermitRouter::Route route;
    route.filePath = watchItem->filePath;
    route.wd = watchItem->wd;
    route.extParm = watchItem->opt.extParm;
    auto* message = FileFanotifyPermitRouter::NewRequest(route, eventFile, mask, pid).release();
    // The consumer's verdict goes to the kernel from the consumer's thread;
    // whoever is late, the answer tells the consumer what the kernel got.
    auto answer = permitFileFanotify->NewAnswer(eventFd);
    message->SetPermitAnswer(answer);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const long timeoutMs = std::clamp<long>(static_cast<long>(left.count()), 0L, kPermitTimeoutMs);
    std::string response;
    // Fails open: a time-out, an unknown or full consumer, any answer but 2.
    const int result =
        task->SyncSendMsg(static_cast<unsigned long>(watchItem->taskId), "f", message, response, timeoutMs, 2);
    FN_LOG(LOG_DEBUG, "SyncSendMsg eventFile %s, reponseResult=%d", eventFile, result);
    if (result < 0) answer->Expire();
    isAllow = answer->GetState() != FileNotifyPermitAnswer::State::Denied;
    return 0;
}

}  // namespace Engine
