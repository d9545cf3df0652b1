#include "FileNotifyTask.h"

#include <sys/inotify.h>

#include "FileNotifyLog.h"

namespace Engine {

FileNotifyTask::FileNotifyTask()
    : Framework::Task("filenotify_task", "filenotify_feature", Framework::TaskCondition::TASK_TYPE_RESIDENT,
                      kQueueCapacity) {}

FileNotifyTask::~FileNotifyTask() {
    // Pending records go before the engines; the members then unwind in
    // reverse order: the fanotify manager first, then the inotify manager.
    ClearCache();
}

int FileNotifyTask::Init() {
    if (fileInotifyWatch.AddEventsWatch(this, &FileNotifyTask::InotifyEventAction) != 0) {
        FN_LOG(LOG_ERROR, "fileInotifyWatch.AddEventsWatch failed");
    }
    if (fileFanotifyWatch.AddEventsWatch(this, &FileNotifyTask::FanotifyEventAction) != 0) {
        FN_LOG(LOG_ERROR, "fileFanotifyWatch.AddEventsWatch failed");
    }
    return Framework::Task::Init();
}

void FileNotifyTask::UnInit() {
    Framework::Task::UnInit();
}

int FileNotifyTask::InotifyEventAction(int fd, unsigned int /*events*/, void* /*arg*/) {
    // Aligned for the inotify_event records the kernel writes into it.
    alignas(struct inotify_event) char buffer[kEventReadBufferSize];
    fileInotifyWatch.ReadEvents(fd, buffer, eventBufferSize);
    return 0;
}

int FileNotifyTask::FanotifyEventAction(int fd, unsigned int /*events*/, void* /*arg*/) {
    alignas(8) char buffer[kEventReadBufferSize];
    fileFanotifyWatch.ReadEvents(fd, buffer, eventBufferSize);
    return 0;
}

int FileNotifyTask::Run() {
    passCount = 0;
    for (;;) {
        if (IsCancelling()) return 0;
        // Negative: messages are waiting (or the wait timed out): drain now.
        if (GetEventWaiter().WaitAndHandleEvent(waitTimeout, 128) < 0) BulkConsumeMsg(bulkMsgCount);
        // The timer counts passes, not time: idle, a pass is one full wait.
        if (++passCount >= timerPassThreshold) {
            TimerSchduler();
            passCount = 0;
        }
    }
}

int FileNotifyTask::AddFileNotifyMsgConsumer(int taskId, Framework::Task* watcher) {
    FN_LOG(LOG_DEBUG, "AddFileNotifyMsgConsumer AddConsumer taskId=%d", taskId);
    if (watcher == nullptr) {
        FN_LOG(LOG_ERROR, "watcher is NULL taskId=%d", taskId);
        return 0;
    }
    const int result = AddConsumer(taskId, "f", watcher);
    if (result != 0) {
        FN_LOG(LOG_ERROR, "Task::AddConsumer failed taskId=%d", taskId);
        return result;
    }
    return 0;
}

void FileNotifyTask::TimerSchduler() {
    // Nothing adds pending records yet; their walk arrives with the pending
    // watch operations.
    if (pendingWatchList.empty() || timerSuspended) return;
}

void FileNotifyTask::ClearCache() {
    FN_LOG(LOG_DEBUG, "call ClearCache");
    pendingWatchList.clear();
}

}  // namespace Engine
