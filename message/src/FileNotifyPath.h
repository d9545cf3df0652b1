#pragma once

#include <string>

#include "FileNotifyExport.h"

namespace Engine {

// What a watch request makes of its path, in the consumer's process as well
// as on the module task's thread. Stateless; any thread; no operation throws
// for a file-system failure.
class FILENOTIFY_API FileNotifyPath {
public:
    // What a watch request can make of path.
    enum class PathCheck {
        Exists,   // stat succeeds: watch it now
        Missing,  // a part is not there (ENOENT) or no folder (ENOTDIR): it may appear, keep it pending
        Refused,  // no creation of the path would make it watchable: refuse the request
    };
    // Refused, with a reason for people in reason, for an empty path, one of
    // PATH_MAX bytes or more, one with a part longer than NAME_MAX, one below
    // a folder that may not be searched (EACCES), a loop of links (ELOOP), and
    // any other failure of stat. Follows links.
    static PathCheck CheckWatchPath(const std::string& path, std::string& reason);

    // Blanks (" " only) trimmed at both ends; "/" appended to an existing
    // folder (links followed). A missing path or a file gets no "/".
    static std::string FormatFolderName(const std::string& path);
};

}  // namespace Engine
