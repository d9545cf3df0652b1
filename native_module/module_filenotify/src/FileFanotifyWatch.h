#pragma once

#include <sys/fanotify.h>

#include <map>
#include <memory>
#include <string>

#include "FileFanotify.h"
#include "FileNotifyOpt.h"
#include "FileNotifyWatchData.h"

namespace Framework {
class Task;
}

namespace Engine {

class FileNotifyTask;

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
    virtual ~FileFanotifyWatch();
    FileFanotifyWatch(const FileFanotifyWatch&) = delete;
    FileFanotifyWatch& operator=(const FileFanotifyWatch&) = delete;

    // Connects both groups to task's event waiter; task must be the
    // FileNotifyTask that owns this manager. Always 0.
    int AddEventsWatch(Framework::Task* task, EventHandler handler);
    // Closes both groups: no mark stays, no access waits for an answer.
    void CloseInstances();
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
    // By path; any task may remove it.
    int RemovePermitWatch(int taskId, const std::string& filePath);
    // The first record, in path order, whose path is a prefix of eventFile
    // or has eventFile as its prefix; null when none.
    Notify_WatchItem* GetPermitWatchItem(const std::string& eventFile);
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
    virtual int SendEventMsg(Notify_WatchItem* watchItem, const std::string& eventFile, unsigned int mask,
                             unsigned int pid, int eventFd);
    // Asks the record's task and waits up to kPermitTimeoutMs; isAllow is
    // false only when it answered 2. Always 0.
    int SendSyncEventMsg(Notify_WatchItem* watchItem, int wd, const std::string& eventFile, unsigned int mask,
                         unsigned int pid, bool& isAllow);

    const FileNotifyWatchData& GetWatchData() const { return notifyWatchData; }

private:
    void LogUnavailable() const;
    void SendOverflowMsg(const FileFanotify& group);

    std::unique_ptr<FileFanotify> notifyFileFanotify;
    std::unique_ptr<FileFanotify> permitFileFanotify;
    std::map<int, FileFanotify*> fanotifyMap;
    std::map<std::string, std::unique_ptr<Notify_WatchItem>> permitWatchMap;
    FileNotifyWatchData notifyWatchData;
    Framework::Task* task = nullptr;
    int nextWd = kFirstWatchId;
};

}  // namespace Engine
