#pragma once

#include <set>
#include <string>
#include <vector>

#include "framework/UniqueFd.h"

namespace Engine {

// The mount points of this process, and which of them came or went since
// the last look. A mount changes what a path names without any inotify
// event on the path: a watched folder covered by a new mount sees nothing of
// it. /proc/self/mountinfo reports a change as EPOLLPRI.
//
// Used on the module task's thread only.
class FileNotifyMountWatch {
public:
    FileNotifyMountWatch();

    // Wait on it for EPOLLPRI; -1 when the mount table cannot be read.
    int GetFd() const { return _fd.get(); }
    // Reads the table again; the mount points added or removed since the
    // last call (or since construction), sorted, each ending in "/".
    std::vector<std::string> TakeChanges();

    // The mount points listed in a mountinfo text, each ending in "/".
    static std::set<std::string> Parse(const std::string& mountinfo);

private:
    std::set<std::string> Read();

    Framework::UniqueFd _fd;
    std::set<std::string> _mounts;
};

}  // namespace Engine
