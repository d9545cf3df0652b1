#include "FileNotifyWatchMessage.h"

#include <string>

#include "FileNotifyLog.h"
#include "FileNotifyPath.h"
#include "FileNotifyWatchService.h"
#include "framework/Task.h"

namespace Engine {

namespace {

constexpr unsigned int kAccess = FileNotifyMask::kAccess;
constexpr unsigned int kOpen = FileNotifyMask::kOpen;
constexpr unsigned int kOpenPermission = FileNotifyMask::kOpenPermission;
constexpr unsigned int kAccessPermission = FileNotifyMask::kAccessPermission;

}  // namespace

FileNotifyWatchService::~FileNotifyWatchService() = default;

FileNotifyWatchMessage::FileNotifyWatchMessage(Framework::Task* sender, const std::string& path,
                                               const std::vector<unsigned int>& masks, const _FileNotifyOpt& opt)
    : Framework::Message("filewatch"),
      m_taskId(sender != nullptr ? sender->GetTaskId() : 0),
      m_senderName(sender != nullptr ? sender->GetTaskName() : std::string()),
      m_filePath(path),
      m_opt(opt) {
    m_opt.eventMasks = masks;
    unsigned int combined = 0;
    for (unsigned int mask : masks)
        combined |= mask;
    m_opt.combinedMask = combined;
    handlerParmOpt();
    if (m_opt.inotifyOnly) {
        m_watchMask = combined;
        return;
    }
    m_fanotifyMask = combined & kFanotifyBits;
    m_watchMask = combined & kInotifyBits;
    // Inotify needs the folder bit too when it serves any of the request.
    if ((combined & kOnDirectory) != 0 && m_watchMask != 0) m_watchMask |= kOnDirectory;
}

FileNotifyWatchMessage::FileNotifyWatchMessage(Framework::Task* sender, const std::string& path, bool permit)
    : Framework::Message("filewatch"),
      m_taskId(sender != nullptr ? sender->GetTaskId() : 0),
      m_senderName(sender != nullptr ? sender->GetTaskName() : std::string()),
      m_filePath(path) {
    m_opt.remove = true;
    m_opt.permit = permit;
}

FileNotifyWatchMessage::~FileNotifyWatchMessage() = default;

void FileNotifyWatchMessage::handlerParmOpt() {
    if (m_opt.watchChildFolder) {
        for (std::string& prefix : m_opt.ignorePath)
            prefix = FileNotifyPath::FormatFolderName(prefix);
    } else {
        m_opt.ignorePath.clear();
    }
    for (std::string& ending : m_opt.ignoreFileExt)
        ending.insert(0, 1, '.');
}

unsigned int FileNotifyWatchMessage::GetFanNotifyPermitMask() const {
    if ((m_fanotifyMask & kOpen) != 0) {
        return (m_fanotifyMask & kAccess) != 0 ? (kOpenPermission | kAccessPermission) : kOpenPermission;
    }
    if ((m_fanotifyMask & kAccess) != 0) return kAccessPermission;
    FN_LOG(LOG_ERROR, "No find FAN_OPEN or FAN_ACCESS event,m_watchMask=%d", static_cast<int>(m_fanotifyMask));
    return 0;
}

int FileNotifyWatchMessage::MessageHandle(void* task) {
    GetMsgReply() = "-1";  // what a refused request answers too
    auto* service = dynamic_cast<FileNotifyWatchService*>(static_cast<Framework::Task*>(task));
    if (service == nullptr) {
        FN_LOG(LOG_ERROR, "filewatch request reached a task that serves no watches");
        m_failure->Set(WatchFailure::Of(WatchFailure::Reason::BadRequest, 0, "the task serves no watch requests"));
        return 1;
    }
    std::string reason;
    const FileNotifyPath::PathCheck check = FileNotifyPath::CheckWatchPath(m_filePath, reason);
    if (m_filePath.empty()) {
        FN_LOG(LOG_ERROR, "m_filePath is empty");
        m_failure->Set(WatchFailure::Of(WatchFailure::Reason::BadPath, 0, reason));
        return 1;
    }
    const bool exists = check == FileNotifyPath::PathCheck::Exists;
    if (exists) {
        m_filePath = FileNotifyPath::FormatFolderName(m_filePath);
        m_opt.timerFound = false;
    }
    // A watch made before its folder was locked may still be removed.
    if (m_opt.remove) return MessageRemoveWatchHandle(service);
    // Pending would be for ever: the path cannot come into existence as it is.
    if (check == FileNotifyPath::PathCheck::Refused) {
        FN_LOG(LOG_ERROR, "watch request refused, filePath=%s: %s", m_filePath, reason);
        m_failure->Set(WatchFailure::Of(WatchFailure::Reason::BadPath, 0, reason));
        return 1;
    }
    // Its events would go nowhere: the sender is gone.
    if (service->AddSenderAsConsumer(m_taskId) != 0) {
        FN_LOG(LOG_ERROR, "Task::AddFileNotifyMsgConsumer failed");
        m_failure->Set(WatchFailure::Of(WatchFailure::Reason::BadRequest, 0, "its sender is no live task"));
        return 1;
    }
    const int result = exists ? MessageAddWatchHandle(service) : MessageAddPendingWatchHandle(service);
    GetMsgReply() = std::to_string(m_watchId);
    return result;
}

int FileNotifyWatchMessage::MessageAddWatchHandle(FileNotifyWatchService* task) {
    FN_LOG(LOG_DEBUG, "MessageAddWatchHandle taskName=%s, filePath=%s, fanotifyMask=%u, notifyMask=%u", m_senderName,
           m_filePath, m_fanotifyMask, m_watchMask);
    int watchId = -1;
    int result = 0;
    // Each engine's failure is taken as it happens: the next add may overwrite it.
    const auto noted = [&](int added) {
        if (added != 0) m_failure->Set(task->LastWatchFailure());
        return added;
    };
    if (m_opt.permit) {
        result = noted(task->AddPermitWatch(m_taskId, m_filePath, GetFanNotifyPermitMask(), m_opt, watchId));
    } else {
        if (m_fanotifyMask != 0)
            result = noted(task->AddNotifyWatch(m_taskId, m_filePath, m_fanotifyMask, m_opt, watchId));
        if (m_watchMask != 0) result |= noted(task->AddInotifyWatch(m_taskId, m_filePath, m_watchMask, m_opt, watchId));
        if (m_fanotifyMask == 0 && m_watchMask == 0)
            m_failure->Set(WatchFailure::Of(WatchFailure::Reason::BadRequest, 0, "it asks for no event"));
    }
    m_watchId = watchId;
    return result;
}

int FileNotifyWatchMessage::MessageAddPendingWatchHandle(FileNotifyWatchService* task) {
    m_failure->Set(WatchFailure::Of(WatchFailure::Reason::Pending));
    if (m_opt.permit) {
        task->AddPendingWatch(m_taskId, m_filePath, GetFanNotifyPermitMask(), m_opt, 2);
        return 1;
    }
    if (m_fanotifyMask != 0) task->AddPendingWatch(m_taskId, m_filePath, m_fanotifyMask, m_opt, 1);
    if (m_watchMask != 0) task->AddPendingWatch(m_taskId, m_filePath, m_watchMask, m_opt, 0);
    return 1;
}

int FileNotifyWatchMessage::MessageRemoveWatchHandle(FileNotifyWatchService* task) {
    bool found = false;
    int result = task->RemovePendingWatch(m_taskId, m_filePath, found);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "call RemovePendingWatch failed m_filePath=%s", m_filePath);
    } else if (found) {
        return 0;
    }
    if (m_opt.permit) {
        const int removed = task->RemovePermitWatch(m_taskId, m_filePath);
        if (removed != 0) FN_LOG(LOG_ERROR, "call RemoveWatch failed m_filePath=%s", m_filePath);
        return removed;
    }
    if (m_fanotifyMask != 0) {
        Notify_WatchItem* item = task->GetNotifyWatch(m_taskId, m_filePath);
        if (item != nullptr) result = task->RemoveNotifyWatch(item);
    }
    if (m_watchMask != 0) result |= task->RemoveInotifyWatch(m_taskId, m_filePath);
    return result;
}

}  // namespace Engine
