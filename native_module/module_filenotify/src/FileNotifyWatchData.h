#pragma once

#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "FileNotifyOpt.h"

namespace Engine {

// One consumer task's watch on one path in one notify instance.
struct Notify_WatchItem {
    int taskId = 0;
    unsigned int mask = 0;  // the task's own mask, in the bits of the engine that holds the watch
    int fd = 0;             // descriptor of the inotify or fanotify instance
    int wd = 0;             // watch descriptor that instance gave for the path
    std::string filePath;   // as registered; folders end in "/"
    _FileNotifyOpt opt;     // the request's options
};

enum VerifyType : int {
    VERIFY_NO_WATCH = 0,   // nothing related is watched
    VERIFY_SAME_TASK = 1,  // this task already watches the very path
    VERIFY_SAME_FILE = 2,  // other tasks watch the very path
    VERIFY_RELATIVE = 3,   // a watched folder lies above or below the path
};

// The answer of the registry's same-path and related-folder checks; the
// caller creates it zeroed.
struct _VerifyWatchResult {
    int verifyType = VERIFY_NO_WATCH;
    unsigned int mask = 0;            // VERIFY_SAME_FILE: OR of the other tasks' masks
    int wd = 0;                       // VERIFY_SAME_TASK / VERIFY_SAME_FILE: the path's wd
    std::vector<int> relativeFdList;  // VERIFY_RELATIVE: fd of each related folder, in path order
};

// The registry of the consumers' watch records of one watch manager: which
// records hang on one kernel watch (fd, wd), which watch covers an event's
// path, and whether a path is watched already. Owns every record given to
// AddWatch. Not locked: used on the module task's thread only.
class FileNotifyWatchData {
public:
    using WatchKey = std::pair<int, int>;  // (fd, wd)
    using PathMap = std::map<std::string, WatchKey>;
    using WatchItemList = std::list<Notify_WatchItem*>;

    FileNotifyWatchData() = default;
    ~FileNotifyWatchData();
    FileNotifyWatchData(const FileNotifyWatchData&) = delete;
    FileNotifyWatchData& operator=(const FileNotifyWatchData&) = delete;

    // Takes ownership of watchItem. 1 for null, else 0.
    int AddWatch(Notify_WatchItem* watchItem);
    // Deletes the record of taskId (the first one only), or every record for
    // allTaskId, on (fd, wd). Always 0.
    int RemoveWatch(int taskId, int fd, int wd);
    int RemoveWatchAllItem(int fd, int wd) { return RemoveWatch(allTaskId, fd, wd); }
    using OwnedList = std::list<std::unique_ptr<Notify_WatchItem>>;

    // The records on (fd, wd), in the order they were added; null when none.
    // Valid until the registry changes.
    const OwnedList* FindWatchItems(int fd, int wd) const {
        auto found = watchItemMap.find(WatchKey(fd, wd));
        return found == watchItemMap.end() ? nullptr : &found->second;
    }
    // Adds the task of every record of instance fd to taskIds.
    void GetTaskIdSet(int fd, std::set<int>& taskIds) const;
    // Appends the records on (fd, wd) to watchItemList, which is not cleared.
    // The records stay owned by the registry.
    int GetWatchItemList(int fd, int wd, WatchItemList& watchItemList) const;

    // Recursive: eventFile begins with watchFile. Otherwise the same path, or
    // a direct child of the folder watchFile (which ends in "/").
    static bool IsEventFileMatchedWatchFile(const std::string& eventFile, const std::string& watchFile, bool recursive);
    // wd of the first watch of instance fd in pathMap that has eventFile as
    // itself or a direct child. 0 when found, 1 otherwise.
    int GetEventWd(int fd, const std::string& eventFile, int& wd, const PathMap& pathMap) const;
    // GetEventWd on the folder map, then on the file map.
    int GetEventWdSet(int fd, const std::string& eventFile, std::set<int>& wdSet) const;
    // Every folder watch of instance fd that is a prefix of eventFile.
    int GetEventWdSetForMount(int fd, const std::string& eventFile, std::set<int>& wdSet) const;

    // taskId's record on the very path, or null.
    Notify_WatchItem* GetModuleFileWatch(int taskId, const std::string& filePath, const PathMap& pathMap) const;
    // Looks in the file map, the folder map, or both, by what the path is now.
    Notify_WatchItem* GetModuleFileWatch(int taskId, const std::string& filePath) const;

    // Same-path check in pathMap, or in the map that fits what the path is now.
    int CheckSameFileWatch(int taskId, const std::string& filePath, _VerifyWatchResult& result,
                           const PathMap& pathMap) const;
    int CheckSameFileWatch(int taskId, const std::string& filePath, _VerifyWatchResult& result) const;
    // Watched folders above or below the folder filePath (ending in "/").
    int CheckRelativeFileWatch(const std::string& filePath, _VerifyWatchResult& result) const;

    // Deletes every record. Always 0.
    int ClearCache();

    const PathMap& GetFileWatchMap() const { return fileWatchMap; }
    const PathMap& GetFolderWatchMap() const { return folderWatchMap; }
    bool Empty() const { return watchItemMap.empty(); }

private:
    void ErasePathOf(const std::string& path);

    std::map<WatchKey, OwnedList> watchItemMap;
    PathMap fileWatchMap;    // paths that were regular files when first added
    PathMap folderWatchMap;  // every other path, missing ones included
    const int allTaskId = -1;
};

}  // namespace Engine
