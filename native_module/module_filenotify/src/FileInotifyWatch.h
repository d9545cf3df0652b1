#pragma once

#include <map>
#include <memory>
#include <string>

#include "FileInotify.h"
#include "FileNotifyLimit.h"
#include "FileNotifyOpt.h"
#include "FileNotifyWatchData.h"
#include "WatchFailure.h"

namespace Framework {
class Task;
}

namespace Engine {

class FileNotifyFlowControl;
class FileNotifyTask;

// The module's manager of inotify watches. Owns two instances, one for
// single-path watches and one for recursive ones, the consumers' watch
// records, and the cache that pairs the two halves of a rename. Tasks that
// watch the same path share one kernel watch with the union of their masks;
// each still receives only the events its own masks and ignore rules allow.
// Used on the module task's thread only.
class FileInotifyWatch {
public:
    using EventHandler = int (FileNotifyTask::*)(int fd, unsigned int events, void* arg);

    // One event on its way to the consumers; after a merge, eventFile is the
    // old name and movetoFile the new one.
    struct _EventItem {
        int fd = 0;
        int wd = 0;
        std::string eventFile;
        std::string movetoFile;
        unsigned int mask = 0;
        bool isMoveEvent = false;
        bool found = false;  // found in a new folder, not reported by the kernel
    };

    FileInotifyWatch();
    ~FileInotifyWatch();
    FileInotifyWatch(const FileInotifyWatch&) = delete;
    FileInotifyWatch& operator=(const FileInotifyWatch&) = delete;

    // Connects both instances to task's event waiter with handler. task must
    // be the FileNotifyTask that owns this manager. 0 or the first error.
    int AddEventsWatch(Framework::Task* task, EventHandler handler);

    // Adds taskId's watch on filePath; wd receives the watch descriptor.
    // 1 when the task watches the path already or a recursive watch covers it.
    int AddWatch(int taskId, const std::string& filePath, unsigned int mask, const _FileNotifyOpt& opt, int& wd);
    // Why the last AddWatch that returned non-zero failed.
    const WatchFailure& LastFailure() const { return lastFailure; }
    int RemoveWatch(int taskId, const std::string& filePath);
    int RemoveWatch(int fd, int wd);
    FileInotify* GetFileInotify(int fd);

    // Reads and delivers the events of descriptor fd into buffer (capacity
    // length). 0, the instance's error, or 1 when fd is none of ours.
    int ReadEvents(int fd, char* buffer, int length);
    // Mounts came or went at these points: both instances read what they
    // have (into buffer) and look again.
    void ResyncUnder(const std::vector<std::string>& mountPoints, char* buffer, int length);

    // Holds or releases the instance whose descriptor is fd; false when fd is
    // none of ours.
    bool HoldReader(int fd, bool held);

    const FileNotifyLimit& GetLimit() const { return fileNotifyLimit; }
    const FileNotifyWatchData& GetWatchData() const { return notifyWatchData; }

private:
    // Turns the records on (fd, wd) into pending watches at task; filePath
    // receives their path. Always 0.
    int ChangeToPendingWatch(FileNotifyTask* task, int fd, int wd, std::string& filePath);
    // A watched root has gone: its records become pending watches, made again
    // at once if the path is back already.
    int ChangeAndRemoveWatchItems(int fd, int oldWd);

    static int DoEventCallback(const InotifyCallBackParm& parm, void* context);
    int DoEvent(int fd, int wd, const InotifyCallBackParm& parm);
    // Caches a moved-from event (isCached), or merges a moved-to event with
    // its cached half. Always 0.
    int MergeMoveEvent(_EventItem* eventItem, const struct inotify_event* event, bool& isCached);
    // Sends the moved-from events that found no partner in this batch.
    int DoEventMsgCache();
    // The kernel's queue of instance fd overflowed: one loss report to each
    // task that watches through it.
    int SendOverflowMsg(int fd);
    // A folder new to the tree of (fd, wd) could not be watched: a watch
    // failure report to each task of that root, at most one a second.
    int SendWatchFailedMsg(int fd, int wd, const std::string& folder);
    // One FileNotifyMessage to each task whose options let the event through.
    int SendEventMsg(const _EventItem* eventItem);

    // Where event messages go: the owning task's.
    FileNotifyFlowControl& FlowControl();

    FileNotifyLimit fileNotifyLimit;
    std::unique_ptr<FileInotify> singleFileInotify;
    std::unique_ptr<FileInotify> fullFileInotify;
    std::map<int, FileInotify*> fileInotifyMap;
    FileNotifyWatchData notifyWatchData;
    LogRateLimit watchFailedLimit;  // the watch failure reports
    std::map<int, std::unique_ptr<_EventItem>> eventItemMap;
    Framework::Task* notifyTask = nullptr;
    WatchFailure lastFailure;
};

}  // namespace Engine
