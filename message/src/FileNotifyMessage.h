#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>
#include <utility>

#include "FileNotifyExport.h"
#include "FileNotifyMask.h"
#include "FileNotifyPermitAnswer.h"
#include "framework/Message.h"

namespace Engine {

// One file event for one consumer task (message name "filenotify").
//
// The module builds it, fills it and sends it with the type "f"; from the
// send on the framework owns it. The consumer reads it inside
// AbstractMessageReceiver::FileNotifyMessageAction on its own thread.
// Notify type: 0 inotify event, 1 fanotify notification, 2 fanotify
// permission request (the consumer's action result is the verdict), or a
// permit watch report (IsPermitWatchReport; nothing to answer).
// Paths are stored without one trailing "/" (see FormatFolderName).
class FILENOTIFY_API FileNotifyMessage : public Framework::Message {
public:
    // Mask of a loss report (IN_Q_OVERFLOW and FAN_Q_OVERFLOW share the bit).
    // From the kernel: its queue overflowed, the number lost is unknown
    // (GetLostCount 0). From the module: this consumer did not read for too
    // long and GetLostCount events meant for it were dropped.
    static constexpr unsigned int kOverflowMask = FileNotifyMask::kOverflow;
    // Masks of a permit watch report, sent asynchronously with notify type 2
    // and the watched path as both path and watch file. Lost (as
    // FAN_DELETE_SELF): the guarded folder was deleted; the watch waits until
    // the path exists again. Back (as FAN_CREATE): the path is guarded (again).
    static constexpr unsigned int kPermitWatchLostMask = FileNotifyMask::kDeleteSelf;
    static constexpr unsigned int kPermitWatchBackMask = FileNotifyMask::kCreate;
    // Mask of a watch failure report (as IN_IGNORED), notify type 0: the
    // path exists but could not be watched. Watch id -1 (the path is also
    // the watch file): a watched root, which stays pending, is tried again
    // about once a second and comes back as if the path had just appeared.
    // Otherwise a folder new to the tree of that watch, whose events are
    // missed (at most one such report a second).
    static constexpr unsigned int kWatchFailedMask = FileNotifyMask::kIgnored;

    FileNotifyMessage(int notifyType, const std::string& path, unsigned int mask);
    ~FileNotifyMessage() override;

    // task: the receiving Framework::Task*. Hands the message to the task's
    // receiver part; returns its result, or 1 when the task is not a receiver.
    // A permission event's verdict is written to the kernel before it returns.
    int MessageHandle(void* task) override;

    // Permission events: the answer the kernel got, known once the
    // consumer's handler has returned (or the deadline passed); a consumer
    // may keep it. Null for other events.
    const std::shared_ptr<FileNotifyPermitAnswer>& GetPermitAnswer() const { return m_permitAnswer; }
    void SetPermitAnswer(std::shared_ptr<FileNotifyPermitAnswer> answer) { m_permitAnswer = std::move(answer); }

    void SetProcess(unsigned int pid, const std::string& process);
    unsigned int GetEventProcessId() const { return m_eventProcessId; }
    std::string GetEventProcess() const { return m_eventProcess; }

    std::string GetEventFilePath() const { return m_filePath; }
    std::string GetMovetoFile() const { return m_movetoFile; }
    std::string GetWatchFile() const { return m_watchFile; }
    unsigned int GetEventMask() const { return m_eventMask; }
    int GetNotifyType() const { return m_notifyType; }
    int GetWatchId() const { return m_watchId; }
    // A permit watch report: no permission bit, so it is not a request.
    bool IsPermitWatchReport() const {
        return m_notifyType == 2 && (m_eventMask & (kPermitWatchLostMask | kPermitWatchBackMask)) != 0;
    }

    // Makes this a merged move: both inotify move bits set, destination stored.
    void SetMoveEvent(const std::string& movetoFile);

    void SetExtParm(unsigned long extParm) { m_extParm = extParm; }
    unsigned long GetExtParm() const { return m_extParm; }

    void SetWatchFile(int watchId, const std::string& watchFile);

    // Fills the status from an open descriptor; IsStatValid tells whether
    // that worked. Stat() is meaningful only when it did.
    void Stat(int fd);
    const struct stat& Stat() const { return m_stat; }
    bool IsStatValid() const { return m_statValid; }

    // A create event (notify type 0) of a file or folder that was found
    // inside a folder new to a watched tree, rather than reported by the
    // kernel: it was there before the folder could be watched.
    void SetFound(bool found) { m_found = found; }
    bool IsFound() const { return m_found; }

    // Loss reports only: how many events were dropped for this consumer.
    void SetLostCount(unsigned long long count) { m_lostCount = count; }
    unsigned long long GetLostCount() const { return m_lostCount; }

    std::string GetWatchIdString() const;

    // Drops one trailing "/" ("/" itself becomes ""). The registries keep
    // folders with the slash; consumers get them without it.
    std::string FormatFolderName(const std::string& path) const;

private:
    std::string m_filePath;
    std::string m_movetoFile;
    unsigned int m_eventMask;
    unsigned int m_eventProcessId = 0;
    std::string m_eventProcess;
    int m_notifyType;
    unsigned long m_extParm = 0;
    std::string m_watchFile;
    int m_watchId = -1;
    struct stat m_stat {};
    bool m_statValid = false;
    bool m_found = false;
    unsigned long long m_lostCount = 0;
    std::shared_ptr<FileNotifyPermitAnswer> m_permitAnswer;
};

}  // namespace Engine
