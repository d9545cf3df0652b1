#include "FileNotifyWatchData.h"

#include <climits>

#include "CpuYield.h"
#include "FileNotifyLog.h"
#include "FileNotifyUtils.h"
#include "sdk/FileUtils.h"

namespace Engine {

FileNotifyWatchData::~FileNotifyWatchData() {
    ClearCache();
}

int FileNotifyWatchData::AddWatch(Notify_WatchItem* watchItem) {
    if (watchItem == nullptr) return 1;
    std::unique_ptr<Notify_WatchItem> owned(watchItem);
    FN_LOG(LOG_DEBUG, "Fanotify add watch, fd=%d, wd=%d", owned->fd, owned->wd);
    const WatchKey key(owned->fd, owned->wd);
    auto found = watchItemMap.find(key);
    if (found != watchItemMap.end()) {
        found->second.push_back(std::move(owned));
        FN_LOG(LOG_DEBUG, "WatchItem Append");
        return 0;
    }
    const bool isFile = SDK::FileUtils::IsFile(owned->filePath);
    const std::string path = owned->filePath;
    watchItemMap[key].push_back(std::move(owned));
    // emplace keeps an existing entry: the first (fd, wd) of a path stays.
    (isFile ? fileWatchMap : folderWatchMap).emplace(path, key);
    FN_LOG(LOG_DEBUG, "WatchItem first Add");
    return 0;
}

int FileNotifyWatchData::RemoveWatch(int taskId, int fd, int wd) {
    auto found = watchItemMap.find(WatchKey(fd, wd));
    if (found == watchItemMap.end()) return 0;
    OwnedList& items = found->second;
    std::string path;
    for (auto it = items.begin(); it != items.end();) {
        if (taskId != allTaskId && taskId != (*it)->taskId) {
            ++it;
            continue;
        }
        path = (*it)->filePath;
        it = items.erase(it);
        FN_LOG(LOG_DEBUG, "delete task %d watch watchItem->filePath = %s", taskId, path);
        if (taskId != allTaskId) break;
    }
    if (!items.empty()) return 0;
    watchItemMap.erase(found);
    FN_LOG(LOG_DEBUG, "delete watchItemList of filepath %s", path);
    ErasePathOf(path);
    return 0;
}

// By name alone: the entry may point at another (fd, wd) of the same path.
void FileNotifyWatchData::ErasePathOf(const std::string& path) {
    if (fileWatchMap.erase(path) != 0) {
        FN_LOG(LOG_DEBUG, "delete fd+wd map of filepath %s", path);
    } else if (folderWatchMap.erase(path) != 0) {
        FN_LOG(LOG_DEBUG, "delete fd+wd map of folderpath %s", path);
    }
}

void FileNotifyWatchData::GetTaskIdSet(int fd, std::set<int>& taskIds) const {
    for (auto it = watchItemMap.lower_bound(WatchKey(fd, INT_MIN)); it != watchItemMap.end() && it->first.first == fd;
         ++it) {
        for (const auto& record : it->second)
            taskIds.insert(record->taskId);
    }
}

int FileNotifyWatchData::GetWatchItemList(int fd, int wd, WatchItemList& watchItemList) const {
    auto found = watchItemMap.find(WatchKey(fd, wd));
    if (found == watchItemMap.end()) return 0;
    for (const auto& item : found->second)
        watchItemList.push_back(item.get());
    return 0;
}

bool FileNotifyWatchData::IsEventFileMatchedWatchFile(const std::string& eventFile, const std::string& watchFile,
                                                      bool recursive) {
    if (recursive) return FileNotifyUtils::HasPrefix(eventFile, watchFile);
    if (eventFile == watchFile) return true;
    if (eventFile.size() <= watchFile.size() || watchFile.empty() || watchFile.back() != '/') return false;
    if (!FileNotifyUtils::HasPrefix(eventFile, watchFile)) return false;
    return eventFile.find('/', watchFile.size()) == std::string::npos;
}

int FileNotifyWatchData::GetEventWd(int fd, const std::string& eventFile, int& wd, const PathMap& pathMap) const {
    if (eventFile.empty()) return 1;
    for (const auto& [watchFile, key] : pathMap) {
        FN_CPU_YIELD();
        if (key.first != fd || !IsEventFileMatchedWatchFile(eventFile, watchFile, false)) continue;
        wd = key.second;
        FN_LOG(LOG_DEBUG, "get event wd=%d, filePath=%s", wd, watchFile);
        return 0;
    }
    return 1;
}

int FileNotifyWatchData::GetEventWdSet(int fd, const std::string& eventFile, std::set<int>& wdSet) const {
    int wd = 0;
    if (GetEventWd(fd, eventFile, wd, folderWatchMap) == 0) wdSet.insert(wd);
    if (GetEventWd(fd, eventFile, wd, fileWatchMap) == 0) wdSet.insert(wd);
    return 0;
}

int FileNotifyWatchData::GetEventWdSetForMount(int fd, const std::string& eventFile, std::set<int>& wdSet) const {
    if (eventFile.empty()) return 0;
    for (const auto& [watchFile, key] : folderWatchMap) {
        FN_CPU_YIELD();
        if (key.first != fd || !IsEventFileMatchedWatchFile(eventFile, watchFile, true)) continue;
        FN_LOG(LOG_DEBUG, "get event wd=%d, filePath=%s", key.second, watchFile);
        wdSet.insert(key.second);
    }
    return 0;
}

Notify_WatchItem* FileNotifyWatchData::GetModuleFileWatch(int taskId, const std::string& filePath,
                                                          const PathMap& pathMap) const {
    FN_LOG(LOG_DEBUG, "taskId=%d,filepath=%s", taskId, filePath);
    auto path = pathMap.find(filePath);
    if (path == pathMap.end()) return nullptr;
    auto items = watchItemMap.find(path->second);
    if (items == watchItemMap.end()) return nullptr;
    for (const auto& item : items->second) {
        if (item->taskId == taskId) return item.get();
    }
    return nullptr;
}

Notify_WatchItem* FileNotifyWatchData::GetModuleFileWatch(int taskId, const std::string& filePath) const {
    const bool exists = FileNotifyUtils::IsExistFilePath(filePath);
    const bool isFile = SDK::FileUtils::IsFile(filePath);
    // A missing path may have been either when it was added: files first.
    if (!exists || isFile) {
        if (Notify_WatchItem* item = GetModuleFileWatch(taskId, filePath, fileWatchMap)) return item;
    }
    if (!isFile) return GetModuleFileWatch(taskId, filePath, folderWatchMap);
    return nullptr;
}

int FileNotifyWatchData::CheckSameFileWatch(int taskId, const std::string& filePath, _VerifyWatchResult& result,
                                            const PathMap& pathMap) const {
    if (pathMap.empty()) return 0;
    FN_LOG(LOG_DEBUG, "CheckSameFileWatch taskId=%d,filepath=%s", taskId, filePath);
    auto path = pathMap.find(filePath);
    if (path == pathMap.end()) return 0;
    auto items = watchItemMap.find(path->second);
    if (items == watchItemMap.end()) return 0;
    result.wd = path->second.second;
    result.verifyType = VERIFY_SAME_FILE;
    for (const auto& item : items->second) {
        if (item->taskId == taskId) {
            result.verifyType = VERIFY_SAME_TASK;
            result.mask = 0;
            break;
        }
        result.mask |= item->mask;
    }
    return 0;
}

int FileNotifyWatchData::CheckSameFileWatch(int taskId, const std::string& filePath, _VerifyWatchResult& result) const {
    return CheckSameFileWatch(taskId, filePath, result,
                              SDK::FileUtils::IsFile(filePath) ? fileWatchMap : folderWatchMap);
}

int FileNotifyWatchData::CheckRelativeFileWatch(const std::string& filePath, _VerifyWatchResult& result) const {
    if (filePath.empty() || !SDK::DirUtils::IsDir(filePath)) return 0;
    FN_LOG(LOG_DEBUG, "CheckRelativeFileWatch filepath=%s", filePath);
    for (const auto& [watchFile, key] : folderWatchMap) {
        FN_CPU_YIELD();
        if (filePath.size() < watchFile.size() && FileNotifyUtils::HasPrefix(watchFile, filePath)) {
            FN_LOG(LOG_DEBUG, "CheckRelativeFileWatch watchFile=%s filepath=%s", watchFile, filePath);
        } else if (FileNotifyUtils::HasPrefix(filePath, watchFile)) {
            FN_LOG(LOG_DEBUG, "CheckRelativeFileWatch filepath=%s watchFile=%s", filePath, watchFile);
        } else {
            continue;
        }
        result.relativeFdList.push_back(key.first);
        result.verifyType = VERIFY_RELATIVE;
    }
    return 0;
}

int FileNotifyWatchData::ClearCache() {
    watchItemMap.clear();
    fileWatchMap.clear();
    folderWatchMap.clear();
    return 0;
}

}  // namespace Engine
