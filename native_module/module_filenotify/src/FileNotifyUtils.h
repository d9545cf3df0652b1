#pragma once

#include <functional>
#include <string>
#include <vector>

#include "FileNotifyOpt.h"

namespace Engine {

// Path and event helpers shared by both engines and the watch registry.
// Stateless but for the CPU yield ticks; meant for the module task's thread.
// Failures are reported by the result and a log record; no operation throws
// for a file-system failure.
class FileNotifyUtils {
public:
    // The bounds of one folder walk, owned by the caller and passed through
    // the whole walk; depth is back to 0 after it.
    struct _FolderTraverseLimit {
        int MAX_DEPTH = 0;     // deepest folder level that may be opened; the root (level 1) always is
        int depth = 0;         // level of the folder being read (0 before and after the walk)
        int visitedCount = 0;  // folders the walk tried to open, the root included
    };

    // text begins with prefix (bytes; equal strings included).
    static bool HasPrefix(const std::string& text, const std::string& prefix) {
        return prefix.size() <= text.size() && text.compare(0, prefix.size(), prefix) == 0;
    }

    // stat() succeeds; follows links.
    static bool IsExistFilePath(const std::string& path);

    // True when the consumer did not ask for the event, so it is dropped:
    // FileNotifyMask::Selects with the union of wantedMasks (event bits
    // select, flags do not; a fanotify folder event needs the folder flag).
    // An empty list drops everything.
    static bool IsIgnoreWatchEvent(int mask, const std::vector<unsigned int>& wantedMasks, bool fanotifyEvent = false);

    // True when the event's file matches the watch's ignore rules: a path
    // prefix of ignorePath (recursive watches only) or an ending of
    // ignoreFileExt (folders are never matched by ending).
    static bool IsIgnoreWatchObject(const std::string& path, const _FileNotifyOpt& opt);

    // Appends the subfolders below folder (which ends in "/") to out, each
    // with a trailing "/", deepest first (post-order). Returns 0 whenever
    // folder itself was read, 1 only when it cannot be opened ("dir == NULL").
    // What cannot be walked is skipped and the walk goes on: a subfolder that
    // vanished (a debug record), one that cannot be opened or an entry that
    // cannot be stat'ed (a warning, at most one a second), a subfolder deeper
    // than limit.MAX_DEPTH or whose path would reach PATH_MAX (one warning
    // naming it); skipped folders are not listed. Links, whatever
    // watchSymLink says, are never entered nor listed: a link to a folder of
    // the tree would only rename that folder's events, and any other leads
    // out of the tree or into a loop.
    static int TraverseSubFolder(const std::string& folder, std::vector<std::string>& out, _FolderTraverseLimit& limit,
                                 bool watchSymLink);
    // The same walk, handing each subfolder to visit instead of keeping a list.
    using FolderVisitor = std::function<void(const std::string& folder)>;
    static int TraverseSubFolder(const std::string& folder, const FolderVisitor& visit, _FolderTraverseLimit& limit);

    // The path behind an open descriptor (/proc/self/fd), with "/" appended
    // for a folder. Returns 0, or 1 for fd < 1 or an unreadable link.
    static int GetFilePathByFd(int fd, std::string& out);
    // The executable of process pid, empty when unknown or pid is 0.
    static std::string GetExePath(unsigned int pid);
    // The same without a log record (for threads that must not log); false
    // for fd < 1 or an unreadable link, with errno kept.
    static bool ReadPathOfFd(int fd, std::string& out);
};

}  // namespace Engine
