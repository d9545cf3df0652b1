#include "FileInotifyWatch.h"

#include "CpuYield.h"
#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyTask.h"
#include "FileNotifyUtils.h"
#include "FileNotifyWatchMessage.h"
#include "framework/Event.h"

namespace Engine {

FileInotifyWatch::FileInotifyWatch()
    : singleFileInotify(new FileInotify(&fileNotifyLimit)), fullFileInotify(new FileInotify(&fileNotifyLimit)) {
    fileInotifyMap[singleFileInotify->GetFd()] = singleFileInotify.get();
    fileInotifyMap[fullFileInotify->GetFd()] = fullFileInotify.get();
}

FileInotifyWatch::~FileInotifyWatch() {
    // The instances go first: they report their watches to the limits.
    singleFileInotify.reset();
    fullFileInotify.reset();
}

int FileInotifyWatch::AddEventsWatch(Framework::Task* task, EventHandler handler) {
    notifyTask = task;
    auto* owner = static_cast<FileNotifyTask*>(task);
    int result = singleFileInotify->AddEventWatch(task, new Framework::EventCallback<FileNotifyTask>(owner, handler));
    if (result != 0) {
        FN_LOG(LOG_ERROR, "singleFileInotify->AddEventWatch failed");
        return result;
    }
    result = fullFileInotify->AddEventWatch(task, new Framework::EventCallback<FileNotifyTask>(owner, handler));
    if (result != 0) {
        FN_LOG(LOG_ERROR, "fullFileInotify->AddEventWatch failed");
        return result;
    }
    return 0;
}

int FileInotifyWatch::AddWatch(int taskId, const std::string& filePath, unsigned int mask, const _FileNotifyOpt& opt,
                               int& wd) {
    _VerifyWatchResult verify;
    notifyWatchData.CheckSameFileWatch(taskId, filePath, verify);
    unsigned int kernelMask = mask;
    lastFailure = WatchFailure();
    if (verify.verifyType == VERIFY_SAME_TASK) {
        FN_LOG(LOG_ERROR, "there are same filepath=%s had been watched", filePath);
        lastFailure = WatchFailure::Of(WatchFailure::Reason::Duplicate);
        return 1;
    }
    if (verify.verifyType == VERIFY_SAME_FILE) {
        // Re-adding the path with the union mask gives back the same watch.
        FN_LOG(LOG_DEBUG, "there are same filepath=%s had been watched,merge mask", filePath);
        kernelMask |= verify.mask;
    } else if (fullFileInotify->PathInSubFolderMap(filePath)) {
        FN_LOG(LOG_DEBUG, "there are same sub filepath=%s had been watched", filePath);
        lastFailure = WatchFailure::Of(WatchFailure::Reason::Duplicate);
        return 1;
    }
    const bool recursive = opt.watchChildFolder;
    FN_LOG(LOG_DEBUG, "AddWatch recursiveFlag=%b", recursive);
    FileInotify* instance = recursive ? fullFileInotify.get() : singleFileInotify.get();
    const int fd = instance->GetFd();
    int newWd = 0;
    int result = instance->AddWatch(filePath, kernelMask, newWd, opt);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call AddWatch failed,taskId=%d,filepath=%s,fd=%d", taskId, filePath, fd);
        lastFailure = instance->LastFailure();
        return result;
    }
    result = notifyWatchData.AddWatch(new Notify_WatchItem{taskId, mask, fd, newWd, filePath, opt});
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call notifyWatchData.AddWatch failed");
        return result;
    }
    wd = newWd;
    return 0;
}

int FileInotifyWatch::RemoveWatch(int taskId, const std::string& filePath) {
    FN_LOG(LOG_DEBUG, "taskId=%d,filepath=%s", taskId, filePath);
    const Notify_WatchItem* record = notifyWatchData.GetModuleFileWatch(taskId, filePath);
    if (record == nullptr) {
        FN_LOG(LOG_ERROR, "No found watch,taskId=%d,filepath=%s", taskId, filePath);
        return 1;
    }
    const int fd = record->fd;
    const int wd = record->wd;
    // Other consumers on the same kernel watch keep it: it goes with the last.
    FileNotifyWatchData::WatchItemList sharing;
    notifyWatchData.GetWatchItemList(fd, wd, sharing);
    int result = sharing.size() > 1 ? 0 : RemoveWatch(fd, wd);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call RemoveWatch failed,taskId=%d,filepath=%s", taskId, filePath);
        return result;
    }
    result = notifyWatchData.RemoveWatch(taskId, fd, wd);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call notifyWatchData.RemoveWatch failed,taskId=%d,filepath=%s", taskId, filePath);
    }
    return result;
}

int FileInotifyWatch::RemoveWatch(int fd, int wd) {
    FN_LOG(LOG_DEBUG, "RemoveWatch fd=%d,wd=%d", fd, wd);
    FileInotify* instance = GetFileInotify(fd);
    if (instance == nullptr) {
        FN_LOG(LOG_DEBUG, "No found fileInotify for fd=%d,wd=%d", fd, wd);
        return 1;
    }
    const int result = instance->RemoveWatch(wd);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call fileInotify->RemoveWatch failed,taskId=%d,wd=%d", fd, wd);
        return result;
    }
    return 0;
}

FileInotify* FileInotifyWatch::GetFileInotify(int fd) {
    FN_LOG(LOG_DEBUG, "fd=%d", fd);
    auto found = fileInotifyMap.find(fd);
    return found == fileInotifyMap.end() ? nullptr : found->second;
}

int FileInotifyWatch::ReadEvents(int fd, char* buffer, int length) {
    FileInotify* instance = GetFileInotify(fd);
    if (instance == nullptr) {
        FN_LOG(LOG_ERROR, "fileInotify == NULL");
        return 1;
    }
    const int result = instance->ReadEvents(buffer, length, &FileInotifyWatch::DoEventCallback, this);
    if (result != 0) FN_LOG(LOG_ERROR, "call fileInotify->ReadEvents failed");
    return result;
}

void FileInotifyWatch::ResyncUnder(const std::vector<std::string>& mountPoints, char* buffer, int length) {
    for (FileInotify* instance : {singleFileInotify.get(), fullFileInotify.get()}) {
        // An unmount's own events come first: they tell the consumers.
        instance->ReadEvents(buffer, length, &FileInotifyWatch::DoEventCallback, this);
        instance->ResyncUnder(mountPoints, &FileInotifyWatch::DoEventCallback, this);
    }
}

int FileInotifyWatch::ChangeToPendingWatch(FileNotifyTask* task, int fd, int wd, std::string& filePath) {
    FileNotifyWatchData::WatchItemList records;
    notifyWatchData.GetWatchItemList(fd, wd, records);
    if (records.empty()) return 0;
    filePath = records.front()->filePath;
    for (const Notify_WatchItem* record : records) {
        task->AddPendingWatch(record->taskId, record->filePath, record->mask, record->opt, 0);
        if (!record->opt.inotifyOnly) {
            // The bits of the request that fanotify watched wait as well.
            unsigned int extra = record->opt.combinedMask & ~record->mask;
            if (extra != 0 && (record->opt.combinedMask & FileNotifyWatchMessage::kOnDirectory) != 0)
                extra |= FileNotifyWatchMessage::kOnDirectory;
            if (extra != 0) task->AddPendingWatch(record->taskId, record->filePath, extra, record->opt, 1);
        }
        FN_CPU_YIELD();
    }
    return 0;
}

int FileInotifyWatch::ChangeAndRemoveWatchItems(int fd, int oldWd) {
    FN_LOG(LOG_DEBUG, "call ChangeAndRemoveWatchItems");
    auto* task = static_cast<FileNotifyTask*>(notifyTask);
    std::string path;
    int result = ChangeToPendingWatch(task, fd, oldWd, path);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call ChangeToPendingWatch failed fd=%d,oldWd=%d", fd, oldWd);
        return result;
    }
    result = notifyWatchData.RemoveWatchAllItem(fd, oldWd);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call RemoveWatchAllItem failed fd=%d,oldWd=%d", fd, oldWd);
        return result;
    }
    // A file replaced by a rename is back before we notice it went: watch it
    // again now instead of on the next timer run.
    if (!path.empty() && FileNotifyUtils::IsExistFilePath(path)) task->TimerSchduler();
    return 0;
}

int FileInotifyWatch::DoEventCallback(const InotifyCallBackParm& parm, void* context) {
    auto* self = static_cast<FileInotifyWatch*>(context);
    switch (parm.type) {
        case InotifyCallBackParm::TYPE_EVENT:
            return self->DoEvent(parm.fd, parm.rootWd, parm);
        case InotifyCallBackParm::TYPE_BATCH_END:
            return self->DoEventMsgCache();
        case InotifyCallBackParm::TYPE_ROOT_REMOVED:
            return self->ChangeAndRemoveWatchItems(parm.fd, parm.removedWd);
        case InotifyCallBackParm::TYPE_OVERFLOW:
            return self->SendOverflowMsg(parm.fd);
        case InotifyCallBackParm::TYPE_WATCH_FAILED:
            return self->SendWatchFailedMsg(parm.fd, parm.rootWd, parm.filePath);
        default:
            FN_CPU_YIELD();
            return 1;
    }
}

int FileInotifyWatch::DoEvent(int fd, int wd, const InotifyCallBackParm& parm) {
    _EventItem item{fd, wd, parm.filePath, std::string(), parm.mask, false, parm.found};
    if (parm.event != nullptr && static_cast<int>(parm.event->cookie) > 0) {
        bool isCached = false;
        MergeMoveEvent(&item, parm.event, isCached);
        if (isCached) return 0;
    }
    const int result = SendEventMsg(&item);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call SendEventMsg failed eventFile=%s", item.eventFile);
        return result;
    }
    FN_CPU_YIELD();
    return 0;
}

int FileInotifyWatch::MergeMoveEvent(_EventItem* eventItem, const struct inotify_event* event, bool& isCached) {
    isCached = false;
    // A sum, not a tuple: colliding triples are rare and merely unpaired.
    const int key = static_cast<int>(static_cast<unsigned int>(eventItem->fd) +
                                     static_cast<unsigned int>(eventItem->wd) + event->cookie);
    if ((event->mask & IN_MOVED_FROM) != 0) {
        // A second moved-from under a taken key is dropped (and freed).
        eventItemMap.emplace(key,
                             std::make_unique<_EventItem>(_EventItem{eventItem->fd, eventItem->wd, eventItem->eventFile,
                                                                     std::string(), eventItem->mask, false, false}));
        isCached = true;
        return 0;
    }
    if ((event->mask & IN_MOVED_TO) == 0) return 0;
    auto cached = eventItemMap.find(key);
    if (cached == eventItemMap.end()) return 0;
    eventItem->movetoFile = std::move(eventItem->eventFile);
    eventItem->eventFile = std::move(cached->second->eventFile);
    eventItem->isMoveEvent = true;
    eventItemMap.erase(cached);
    return 0;
}

int FileInotifyWatch::DoEventMsgCache() {
    for (auto it = eventItemMap.begin(); it != eventItemMap.end(); it = eventItemMap.erase(it)) {
        const int result = SendEventMsg(it->second.get());
        if (result != 0) {
            FN_LOG(LOG_ERROR, "call SendEventMsg failed eventFile=%s", it->second->eventFile);
            return result;
        }
        FN_CPU_YIELD();
    }
    return 0;
}

int FileInotifyWatch::SendEventMsg(const _EventItem* eventItem) {
    // Walked in place: sending touches no registry state.
    const FileNotifyWatchData::OwnedList* records = notifyWatchData.FindWatchItems(eventItem->fd, eventItem->wd);
    if (records == nullptr) return 0;
    for (const auto& record : *records) {
        if (FileNotifyUtils::IsIgnoreWatchObject(eventItem->eventFile, record->opt)) continue;
        if (FileNotifyUtils::IsIgnoreWatchEvent(static_cast<int>(eventItem->mask), record->opt.eventMasks)) continue;
        auto message = std::make_unique<FileNotifyMessage>(0, eventItem->eventFile, eventItem->mask);
        if (eventItem->isMoveEvent) message->SetMoveEvent(eventItem->movetoFile);
        message->SetFound(eventItem->found);
        message->SetWatchFile(eventItem->wd, record->filePath);
        message->SetExtParm(record->opt.extParm);
        FlowControl().Send(record->taskId, std::move(message), eventItem->fd);
    }
    return 0;
}

int FileInotifyWatch::SendOverflowMsg(int fd) {
    std::set<int> taskIds;
    notifyWatchData.GetTaskIdSet(fd, taskIds);
    FlowControl().SendOverflowReports(taskIds, 0, fd);
    return 0;
}

int FileInotifyWatch::SendWatchFailedMsg(int fd, int wd, const std::string& folder) {
    // One a second at most: a tree that outgrows the limit fails folder by folder.
    unsigned long held = 0;
    if (!watchFailedLimit.Admit(held)) return 0;
    const FileNotifyWatchData::OwnedList* records = notifyWatchData.FindWatchItems(fd, wd);
    if (records == nullptr) return 0;
    for (const auto& record : *records) {
        FlowControl().SendReport(record->taskId, 0, folder, FileNotifyMessage::kWatchFailedMask, wd, record->filePath,
                                 record->opt.extParm);
    }
    return 0;
}

FileNotifyFlowControl& FileInotifyWatch::FlowControl() {
    return static_cast<FileNotifyTask*>(notifyTask)->GetFlowControl();
}

bool FileInotifyWatch::HoldReader(int fd, bool held) {
    FileInotify* instance = GetFileInotify(fd);
    if (instance == nullptr) return false;
    instance->SetHeld(held);
    return true;
}

}  // namespace Engine
