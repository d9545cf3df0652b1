#include "FileInotifyWatch.h"

#include "FileNotifyLog.h"

namespace Engine {

int FileInotifyWatch::AddEventsWatch(Framework::Task* task, EventHandler /*handler*/) {
    notifyTask = task;
    return 0;
}

int FileInotifyWatch::ReadEvents(int fd, char* /*buffer*/, int /*length*/) {
    FN_LOG(LOG_DEBUG, "fd=%d", fd);
    FN_LOG(LOG_ERROR, "fileInotify == NULL");
    return 1;
}

}  // namespace Engine
