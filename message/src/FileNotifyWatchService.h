#pragma once

#include <string>

#include "FileNotifyExport.h"
#include "FileNotifyOpt.h"
#include "WatchFailure.h"

namespace Framework {
class Task;
}

namespace Engine {

struct Notify_WatchItem;

// What a watch request asks of the module's task: its dispatch and
// pending-watch operations. The module's task implements it; the request
// reaches it from the Framework::Task* it is handed, with a checked cast, so
// that consumers link the message library without linking the module.
// Every operation runs on the module task's thread and returns 0 for
// success, otherwise the engine's error.
class FILENOTIFY_API FileNotifyWatchService {
public:
    virtual int AddFileNotifyMsgConsumer(int taskId, Framework::Task* watcher) = 0;
    // The live task taskId receives its own events from now on; 1 (logged)
    // when no such task lives any more.
    virtual int AddSenderAsConsumer(int taskId) = 0;
    virtual int AddInotifyWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                                int& watchId) = 0;
    virtual int AddNotifyWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                               int& watchId) = 0;
    virtual int AddPermitWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                               int& watchId) = 0;
    // Why the last of the three adds above that returned non-zero failed.
    virtual const WatchFailure& LastWatchFailure() const = 0;
    virtual int RemoveInotifyWatch(int taskId, const std::string& path) = 0;
    // Null when the task has no fanotify notify watch on path.
    virtual Notify_WatchItem* GetNotifyWatch(int taskId, const std::string& path) = 0;
    // Accepts null.
    virtual int RemoveNotifyWatch(Notify_WatchItem* item) = 0;
    virtual int RemovePermitWatch(int taskId, const std::string& path) = 0;
    // notifyType: 0 inotify, 1 fanotify notify, 2 fanotify permit.
    virtual int AddPendingWatch(int taskId, const std::string& path, unsigned int mask, const _FileNotifyOpt& opt,
                                int notifyType) = 0;
    virtual int RemovePendingWatch(int taskId, const std::string& path, bool& found) = 0;

protected:
    // Never deleted through this interface: the task is reference counted.
    virtual ~FileNotifyWatchService();
};

}  // namespace Engine
