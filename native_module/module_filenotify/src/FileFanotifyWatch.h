#pragma once

#include <sys/fanotify.h>
#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "FileFanotify.h"
#include "FileFanotifyPermitRouter.h"
#include "FileNotifyOpt.h"
#include "FileNotifyWatchData.h"
#include "WatchFailure.h"
#include "framework/UniqueFd.h"

namespace Framework {
class Task;
}

namespace Engine {

class FileNotifyFlowControl;
class FileNotifyTask;

// A permit watch and the object it marks, held open (O_PATH). The kernel's
// mark is on the inode, so it follows a rename: the record is found by the
// object's identity. Holding it keeps the inode number from being reused
// and tells a deleted folder (no link left) from a moved one.
struct PermitWatchItem : Notify_WatchItem {
    Framework::UniqueFd held;
    dev_t dev = 0;
    ino_t ino = 0;
    _FileNotifyOpt requestOpt;  // as requested: the watch is placed again with it
    bool moved = false;         // its path names something else now (logged once)
};

// The module's fanotify engine: a notification group whose watches live in a
// registry like inotify watches, and a permission group with one record per
// path. Fanotify has no watch descriptors; this manager hands out its own,
// counting up from 10000. Notification events go to every interested
// consumer as notify type 1; a permission event is put to the consumer of
// the record that covers the path, synchronously (notify type 2), and denied
// only when that consumer answers 2. Every permission event is answered.
//
// Used on the module task's thread only.
class FileFanotifyWatch {
public:
    using EventHandler = int (FileNotifyTask::*)(int fd, unsigned int events, void* arg);
    static constexpr int kFirstWatchId = 10000;
    static constexpr long kPermitTimeoutMs = 1000;

    // Opens the permission group, then the notification group. A refusal
    // (no CAP_SYS_ADMIN) is logged and leaves the engine off.
    FileFanotifyWatch();
    ~FileFanotifyWatch();
    FileFanotifyWatch(const FileFanotifyWatch&) = delete;
    FileFanotifyWatch& operator=(const FileFanotifyWatch&) = delete;

    // Connects both groups to task's event waiter; task must be the
    // FileNotifyTask that owns this manager. Always 0.
    int AddEventsWatch(Framework::Task* task, EventHandler handler);
    // Closes both groups: no mark stays, no access waits for an answer.
    void CloseInstances();
    // Any thread, when a stop begins: every access still waiting is allowed.
    void AllowWaiting();
    bool IsAvailable() const { return notifyFileFanotify->GetFd() >= 0 || permitFileFanotify->GetFd() >= 0; }

    int GetNextWd() { return nextWd++; }
    FileFanotify* GetFileFanotify(int fd);

    Notify_WatchItem* GetNotifyWatch(int taskId, const std::string& filePath);
    int AddNotifyWatch(int taskId, const std::string& filePath, unsigned int mask, const _FileNotifyOpt& opt, int& wd);
    // Accepts null (logged, 1).
    int RemoveNotifyWatch(Notify_WatchItem* watchItem);
    // The first task to ask for a path receives its permission requests; a
    // repeated request widens the mark and leaves wd unwritten.
    int AddPermitWatch(int taskId, const std::string& filePath, unsigned int mask, const _FileNotifyOpt& opt, int& wd);
    // Why the last AddNotifyWatch or AddPermitWatch that returned non-zero failed.
    const WatchFailure& LastFailure() const { return lastFailure; }
    // By path; any task may remove it.
    int RemovePermitWatch(int taskId, const std::string& filePath);
    // The first record, in path order, whose marked object is the event
    // file's folder or the file itself (eventFd, when given, is the event's
    // descriptor), wherever it has moved; else, as the fallback for
    // whole-mount marks and opened folders above a watched path, the first
    // whose path is a prefix of eventFile or has eventFile as its prefix;
    // null when none.
    Notify_WatchItem* GetPermitWatchItem(const std::string& eventFile, int eventFd = -1);
    bool HasPermitWatches() const { return !permitWatchMap.empty(); }
    // About once a second, on the task's thread: a record whose object was
    // deleted is removed with its mark, reported to its task
    // (kPermitWatchLostMask) and left pending at the task, which places it
    // again once the path exists.
    void CheckPermitWatches();
    // One asynchronous permit watch report (notify type 2, a
    // FileNotifyMessage::kPermitWatch*Mask) to taskId.
    void SendPermitWatchReport(int taskId, int wd, const std::string& path, unsigned int mask, unsigned long extParm);
    void ClearPermitWatch();

    // Reads the group whose (event) descriptor is fd. 0, or 1 for an
    // unknown descriptor. An overflow of the group's queue reaches each
    // task that watches through it as one loss report.
    int ReadEvents(int fd, char* buffer, int size);
    // Holds or releases the notification group (fd its descriptor); false
    // for any other descriptor: the permission group is never held.
    bool HoldReader(int fd, bool held);
    static int DoEventCallback(int fanotifyFd, bool block, struct fanotify_event_metadata* metadata, void* userData);
    int DoNotifyEvent(int fd, struct fanotify_event_metadata* metadata);
    int DoPermitEvent(int fd, struct fanotify_event_metadata* metadata);
    // One notify type 1 message to the record's task; eventFd is open during
    // the call (the file status is taken from it when asked).
    int SendEventMsg(Notify_WatchItem* watchItem, const std::string& eventFile, unsigned int mask, unsigned int pid,
                     int eventFd);
    // Asks the record's task and waits until the access's deadline at most
    // (never longer than kPermitTimeoutMs); isAllow is false only when its
    // deny reached the kernel in time. Always 0.
    int SendSyncEventMsg(Notify_WatchItem* watchItem, int wd, const std::string& eventFile, unsigned int mask,
                         unsigned int pid, bool& isAllow, std::chrono::steady_clock::time_point deadline, int eventFd);

    const FileNotifyWatchData& GetWatchData() const { return notifyWatchData; }

private:
    void LogUnavailable() const;
    void SendOverflowMsg(const FileFanotify& group);
    // Where event messages go: the owning task's.
    FileNotifyFlowControl& FlowControl();
    // After every change of permitWatchMap: the routes the reader and the
    // lookups match against.
    void PublishRoutes();
    void NoteMovedPermitWatch(const std::string& path, PermitWatchItem& record);

    // First, so it outlives the permission group's reader that calls it.
    std::unique_ptr<FileFanotifyPermitRouter> permitRouter;
    std::unique_ptr<FileFanotify> notifyFileFanotify;
    std::unique_ptr<FileFanotify> permitFileFanotify;
    std::map<int, FileFanotify*> fanotifyMap;
    std::map<std::string, std::unique_ptr<PermitWatchItem>> permitWatchMap;
    FileFanotifyPermitRouter::Routes permitRoutes;  // permitWatchMap's, in its order
    FileNotifyWatchData notifyWatchData;
    Framework::Task* task = nullptr;
    int nextWd = kFirstWatchId;
    WatchFailure lastFailure;
};

}  // namespace Engine
