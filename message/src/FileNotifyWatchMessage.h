#pragma once

#include <memory>
#include <string>
#include <vector>

#include "FileNotifyExport.h"
#include "FileNotifyMask.h"
#include "FileNotifyOpt.h"
#include "WatchFailure.h"
#include "framework/Message.h"

namespace Framework {
class Task;
}

namespace Engine {

class FileNotifyWatchService;

// A consumer's request to add or remove a watch (message name "filewatch").
//
// The consumer builds it, sends it to the module's task ("filenotify_task")
// with the type "f", synchronously to learn the result; from the send on the
// framework owns it. On the module's thread MessageHandle registers the
// sender for file events, splits the masks between fanotify (the bits it can
// report, with the acting process) and inotify (all others), and adds, keeps
// pending or removes the watch. The reply string is the watch id made, "-1"
// for a pending, refused or failed watch; a request whose sender is gone
// fails (1, logged) and gets no reply. Why an add request was not made a
// watch is kept as a WatchFailure in a slot that the sender may hold on to
// across the send (GetFailureSlot), since the framework deletes the request.
class FILENOTIFY_API FileNotifyWatchMessage : public Framework::Message {
public:
    static constexpr unsigned int kFanotifyBits = FileNotifyMask::kFanotifyRequestBits;
    static constexpr unsigned int kInotifyBits = FileNotifyMask::kInotifyRequestBits;
    static constexpr unsigned int kOnDirectory = FileNotifyMask::kOnDirectory;

    // The add request (a remove request after setRemoveWatchMessage).
    FileNotifyWatchMessage(Framework::Task* sender, const std::string& path, const std::vector<unsigned int>& masks,
                           const _FileNotifyOpt& opt);
    // The remove request of a pending or permission watch (no masks).
    FileNotifyWatchMessage(Framework::Task* sender, const std::string& path, bool permit);
    ~FileNotifyWatchMessage() override;

    // task: the module's Framework::Task*. The request's result; 1 for an
    // empty path or a task that serves no watch requests, and for an add
    // request whose path FileNotifyPath::CheckWatchPath refuses (logged
    // once with the reason; nothing is kept pending).
    int MessageHandle(void* task) override;

    void setAddWatchMessage() { m_opt.remove = false; }
    void setRemoveWatchMessage() { m_opt.remove = true; }
    // Kept under these names: they write the flag like the setters.
    void getAddWatchMessage() { m_opt.remove = false; }
    void getRemoveWatchMessage() { m_opt.remove = true; }

    // Normalises the ignore rules: folder prefixes formatted (recursive
    // watches only, else dropped), a "." put before every ending.
    void handlerParmOpt();
    // The permission bits for the requested open/access bits; 0 (logged)
    // when neither was asked for.
    unsigned int GetFanNotifyPermitMask() const;

    int MessageAddWatchHandle(FileNotifyWatchService* task);
    int MessageAddPendingWatchHandle(FileNotifyWatchService* task);
    int MessageRemoveWatchHandle(FileNotifyWatchService* task);

    int GetTaskId() const { return m_taskId; }
    unsigned int GetFanotifyMask() const { return m_fanotifyMask; }
    unsigned int GetInotifyMask() const { return m_watchMask; }
    const std::string& GetFilePath() const { return m_filePath; }
    const _FileNotifyOpt& GetOpt() const { return m_opt; }
    int GetWatchId() const { return m_watchId; }
    // Written on the module's thread before the reply goes out; Reason::None
    // while nothing went wrong.
    std::shared_ptr<const WatchFailureSlot> GetFailureSlot() const { return m_failure; }
    WatchFailure GetFailure() const { return m_failure->Get(); }

private:
    // The sender by id and name only: it may be gone by the time the module
    // handles the request.
    int m_taskId;
    std::string m_senderName;
    unsigned int m_fanotifyMask = 0;
    unsigned int m_watchMask = 0;
    std::string m_filePath;
    _FileNotifyOpt m_opt;
    int m_watchId = -1;
    std::shared_ptr<WatchFailureSlot> m_failure = std::make_shared<WatchFailureSlot>();
};

}  // namespace Engine
