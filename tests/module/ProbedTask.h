#pragma once

#include "FileNotifyTask.h"

namespace TestUtil {

// A module task whose pending watch records and inotify engine a test may
// look at; call on the task's thread or while it does not run.
class ProbedTask : public Engine::FileNotifyTask {
public:
    const std::list<std::unique_ptr<Engine::_PendingWatchItem>>& PendingWatches() const { return pendingWatchList; }
    Engine::FileInotifyWatch& InotifyWatch() { return fileInotifyWatch; }
};

}  // namespace TestUtil
