#pragma once

#include <sys/inotify.h>

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "FileNotifyOpt.h"
#include "LogRateLimit.h"
#include "WatchFailure.h"

namespace Framework {
class Event;
class Task;
template <class T>
class EventCallback;
}  // namespace Framework

namespace Engine {

class FileNotifyLimit;
class FileNotifyTask;

// One decoded inotify record, handed from an instance to its receiver. Valid
// only during the callback: event points into the read buffer.
struct InotifyCallBackParm {
    enum Type : int {
        TYPE_EVENT = 0,         // one file event of a root watch
        TYPE_BATCH_END = 1,     // the descriptor has been drained
        TYPE_ROOT_REMOVED = 2,  // a watched root folder was deleted or moved away
        TYPE_OVERFLOW = 3,      // the kernel's queue overflowed: events of this instance were lost
        TYPE_WATCH_FAILED = 4,  // a folder new to the tree of rootWd could not be watched (filePath)
    };
    int type = TYPE_EVENT;
    int fd = 0;                                   // the instance's descriptor (0 for TYPE_BATCH_END)
    int rootWd = 0;                               // TYPE_EVENT: the root watch the event belongs to
    std::string filePath;                         // TYPE_EVENT: full path of the object
    const struct inotify_event* event = nullptr;  // TYPE_EVENT: the raw record (cookie, raw mask)
    int removedWd = 0;                            // TYPE_ROOT_REMOVED: the root watch that has gone
    unsigned int mask = 0;                        // TYPE_EVENT: the mask, IN_ISDIR added on folder self events
    bool found = false;  // TYPE_EVENT: no kernel event (event null): found in a folder new to the tree
};

// Receives decoded records; 0 for success. data is passed through unchanged.
using InotifyCallback = int (*)(const InotifyCallBackParm& parm, void* data);

// One inotify descriptor and everything known about the watches on it. A
// root watch covers one path and, when recursive, every folder below it: an
// event on any of those folders is reported with the root's descriptor and
// the full path. New and vanished folders are followed after each read
// batch. Watch counts are reported to the module's limits, and a tree that
// would exceed them is refused before any kernel watch is added.
//
// Used on the module task's thread only; nothing here is locked.
class FileInotify {
public:
    struct _WatchItem {
        int rootWd = 0;
        std::string path;       // as given to AddWatch
        unsigned int mask = 0;  // the caller's mask, without IN_DONT_FOLLOW
        bool watchChildFolder = false;
        bool watchSymLink = false;
        bool isFile = false;
    };
    // A watched subfolder, under its path (ending in "/") in _subFolderMap.
    struct _SubFolder {
        int wd = 0;
        bool swept = false;  // what it held when it came was reported
    };
    using SubFolderMap = std::map<std::string, _SubFolder>;
    // The descriptor of a watched subfolder, its root and its path: one
    // entry of _watchSubItemMap, which is sorted by wd.
    struct _WatchSubItem {
        int wd = 0;
        int rootWd = 0;
        SubFolderMap::iterator folder;
        const std::string& path() const { return folder->first; }
    };
    // Tree changes of one root, queued by events and applied once per batch.
    struct _RefreshWatchItem {
        _WatchItem* watchItem = nullptr;  // null once the root was removed meanwhile
        int rootWd = 0;
        bool reCreateWatch = false;
        bool removeSubWatch = false;
        bool addSubWatch = false;
        std::set<std::string> removeSubFolders;
        std::set<std::string> addSubFolders;
        // Of addSubFolders, those created or moved in from outside the tree:
        // what they hold is reported as found once they are watched.
        std::set<std::string> reportSubFolders;
        // Of addSubFolders, those that exist but could not be watched.
        std::set<std::string> failedSubFolders;
    };

    // limit is not owned and must outlive the instance. Opens the descriptor.
    explicit FileInotify(FileNotifyLimit* limit);
    ~FileInotify();
    FileInotify(const FileInotify&) = delete;
    FileInotify& operator=(const FileInotify&) = delete;

    int Initialize();
    // Closes the descriptor (and drops its event registration); the maps stay.
    void Finalize();
    int GetFd() const { return _fd; }

    // watchId >= 1: add path and its subfolders to that existing root
    // (subfolder-only mode). Otherwise add a new root and write its
    // descriptor to watchId. Folders that vanish or cannot be read meanwhile
    // are skipped. 0, or a failure code with every kernel watch that the
    // call added removed again.
    int AddWatch(const std::string& path, unsigned int mask, int& watchId, const _FileNotifyOpt& opt);
    int AddWatch(const std::string& path, unsigned int mask, int& watchId, bool watchChildFolder, bool watchSymLink,
                 bool isFile);
    // Walks the tree once, keeping nothing but a count, and tells whether its
    // folders not watched yet (and the root) fit the permitted number of
    // further watches.
    bool TreeFitsLimit(const std::string& path, unsigned int mask, bool watchChildFolder, bool watchSymLink,
                       bool isFile);
    int AddWatchImpl(const std::string& path, unsigned int mask, int& wd);
    // Why the last add that returned non-zero failed.
    const WatchFailure& LastFailure() const { return _lastFailure; }
    // A folder gone since the walk, or one without read permission, is
    // skipped (0). placed, when given, collects the kernel watches new to
    // this instance.
    int AddSubFolderWatch(const std::string& path, unsigned int mask, _WatchItem* item,
                          std::vector<int>* placed = nullptr);

    // Removes a root watch with its subfolders; the root's kernel watch only
    // when removeRootWatch (false when the kernel has dropped it already).
    int RemoveWatch(int watchId, bool removeRootWatch);
    int RemoveWatch(int watchId) { return RemoveWatch(watchId, true); }
    // 0 also when the kernel has already dropped wd.
    int RemoveWatchImpl(int wd);
    int RemoveSubFolderWatch(int wd);
    int DeleteSubFolderCache(int wd);
    // Removes every watch. Once the descriptor is closed (Finalize), or while
    // it is being closed (closing), the kernel drops them all: only the
    // bookkeeping goes, in bulk.
    int ClearWatch(bool closing = false);
    bool PathInSubFolderMap(const std::string& path) const { return _subFolderMap.count(path) != 0; }
    void UpdateWatchSize();
    // IN_Q_OVERFLOW records seen: each one means events were lost.
    unsigned long GetOverflowCount() const { return _overflowCount; }
    // A held instance reads nothing more (its events wait in the kernel's
    // queue) and its descriptor is not reported ready, until released.
    void SetHeld(bool held);

    // Registers the descriptor with the task's event waiter; callback becomes
    // owned by the registration. 0, or the waiter's error code.
    int AddEventWatch(Framework::Task* task, Framework::EventCallback<FileNotifyTask>* callback);
    // Drains the descriptor into buffer (capacity size), hands every record
    // to callback, then one TYPE_BATCH_END, then applies the tree changes.
    int ReadEvents(char* buffer, int size, InotifyCallback callback, void* data);
    // Walks the records in buffer[0, length). Always 0.
    int DoWithEvents(const char* buffer, int length, InotifyCallback callback, void* data);
    int DoWithOneEvent(const struct inotify_event* event, InotifyCallback callback, void* data);
    // Maps an event to its root watch and full path. False for an unknown
    // descriptor; true with item null for an event to drop.
    bool GetNotifyCallbackPara(const struct inotify_event* event, int& wd, std::string& path, bool& selfEvent,
                               _WatchItem** item);

    int AddRefreshWatchTask(_WatchItem* item, const std::string& path, const struct inotify_event* event,
                            bool selfEvent);
    // After an overflow: every root whose watch is gone is made again, and
    // every tree is walked again for the folders that came meanwhile.
    void QueueResync();
    // The mounts at these points (folders, ending in "/") came or went: the
    // roots at, above or around them are checked and walked again at once.
    int ResyncUnder(const std::vector<std::string>& mountPoints, InotifyCallback callback, void* data);
    int RefreshWatch(InotifyCallback callback, void* data);
    int RefreshAddSubWatch(_RefreshWatchItem* refreshItem);
    int RefreshRemoveSubWatch(const _RefreshWatchItem* refreshItem);
    int ClearRefreshWatch();

private:
    // Whether a batch may read on: a rename's first half is waiting for its
    // second and the read-on time that began at readOnEnd's first use is not
    // over.
    bool MayReadOn(std::chrono::steady_clock::time_point& readOnEnd) const;
    bool WaitReadable(std::chrono::steady_clock::time_point end) const;
    _RefreshWatchItem& RefreshItemOf(_WatchItem* item);
    bool IsStillWatched(const _WatchItem& item) const;
    // Queues the root's re-creation when its path names another folder now,
    // else a walk of its tree for folders not watched yet.
    void QueueResync(_WatchItem& item);
    // Removes the kernel watches of a failed add, last first; newRootWd (0:
    // none) is the root the add made.
    void Undo(const std::vector<int>& placed, int newRootWd);
    // An errno of a path that changed under us, not a failure.
    static bool IsChurn(int error);
    // Watches every folder below folder (ends in "/") not watched yet, each
    // before it is read, and with a callback reports every file and folder
    // there as created (found); depth counts the levels walked. Without a
    // callback a watch that fails for another reason than a changing tree
    // ends the sweep with its code; placed collects the watches added.
    int Sweep(const std::string& folder, int rootWd, int depth, InotifyCallback callback, void* data,
              std::vector<int>* placed = nullptr);
    const _WatchSubItem* FindSub(int wd) const;
    // Forgets the subfolders of these descriptors, in one pass.
    void ForgetSubFolders(std::vector<int> wds);
    // Kernel watch and bookkeeping of each subfolder of wds.
    void RemoveSubFolderWatches(const std::vector<int>& wds);
    // The paths of a tree's folders are remembered as read by the module
    // itself only when the tree's consumers may hear of reads.
    void NoteOwnRead(unsigned int mask, const std::string& folder);
    // An event on a path reported as found in the last refresh: the kernel's
    // report of the same creation is dropped, once.
    bool IsFoundAlready(const std::string& path, unsigned int mask);
    // The watch limit as a failure: needed watches for the tree, 0 when the
    // kernel refused one (ENOSPC).
    WatchFailure LimitFailure(int needed) const;
    // The open, read or close of a folder that a sweep read since the last
    // refresh: the module's own doing.
    bool IsOwnRead(const std::string& path, unsigned int mask) const;

    int _fd = -1;
    int _initError = 0;  // errno of a failed inotify_init1
    WatchFailure _lastFailure;
    std::unique_ptr<Framework::Event> _event;
    std::map<int, std::unique_ptr<_WatchItem>> _watchItemMap;
    // Sorted by wd. The kernel hands out ever larger descriptors, so an add
    // appends; removals are gathered and done in one pass.
    std::vector<_WatchSubItem> _watchSubItemMap;
    std::map<int, std::unique_ptr<_RefreshWatchItem>> _refreshWatchMap;
    SubFolderMap _subFolderMap;
    int _watchSize = 0;
    FileNotifyLimit* _limit;
    unsigned long _overflowCount = 0;
    bool _held = false;
    LogRateLimit _skipLimit;                // the warnings of folders skipped for lack of permission
    std::set<unsigned int> _unpairedMoves;  // cookies of moved-from records of this batch without partner
    std::set<unsigned int> _movedFrom;      // cookies of the moved-from records of this batch
    std::set<std::string> _found;           // paths reported as found by the last refresh
    std::set<std::string> _ownReads;        // folders read by sweeps since the last refresh, without "/"
    std::set<std::string> _kernelCreated;   // creations the kernel reported in this batch
};

}  // namespace Engine
