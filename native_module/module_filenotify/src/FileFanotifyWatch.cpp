#include "FileFanotifyWatch.h"

#include "FileNotifyLog.h"

namespace Engine {

int FileFanotifyWatch::AddEventsWatch(Framework::Task* notifyTask, EventHandler /*handler*/) {
    task = notifyTask;
    return 0;
}

int FileFanotifyWatch::ReadEvents(int fd, char* /*buffer*/, int /*size*/) {
    FN_LOG(LOG_DEBUG, "Fanotify Get fd=%d", fd);
    FN_LOG(LOG_ERROR, "Get fanotify instance failed, fd=%d", fd);
    return 1;
}

}  // namespace Engine
