#include "FileNotifyUtils.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <utility>

#include "sdk/ProcessUtils.h"

#include "CpuYield.h"
#include "FileNotifyLog.h"
#include "FileNotifyMask.h"
#include "sdk/FileUtils.h"

namespace Engine {

namespace {

using DirPtr = std::unique_ptr<DIR, int (*)(DIR*)>;

// The kernel's PATH_MAX, the NUL included: a path or link target of this
// length or more cannot be used, so such a result counts as a failure.
constexpr std::size_t kPathMax = PATH_MAX;

// The link's target; false (errno set) on failure or when it is too long
// for the kernel to take back.
bool ReadLinkTarget(const std::string& link, std::string& target) {
    std::string read;
    if (!SDK::FileUtils::ReadLink(link, read)) return false;
    if (read.size() >= kPathMax) {
        errno = ENAMETOOLONG;
        return false;
    }
    target = std::move(read);
    return true;
}

bool HasSuffix(const std::string& path, const std::string& suffix) {
    return suffix.size() <= path.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool MatchesIgnorePath(const std::string& path, const std::vector<std::string>& prefixes) {
    for (const std::string& prefix : prefixes) {
        FN_CPU_YIELD();
        if (!FileNotifyUtils::HasPrefix(path, prefix)) continue;
        FN_LOG(LOG_DEBUG, "IsIgnoreWatchObject  eventFile=%s,ignorePath=%s", path, prefix);
        return true;
    }
    return false;
}

bool MatchesIgnoreExt(const std::string& path, const std::vector<std::string>& endings) {
    for (const std::string& ending : endings) {
        FN_CPU_YIELD();
        if (!HasSuffix(path, ending)) continue;
        FN_LOG(LOG_DEBUG, "IsIgnoreWatchObject  eventFile=%s,ignoreFileExt=%s", path, ending);
        return true;
    }
    return false;
}

// A walk goes on past what it cannot read, and says so at most once a
// second: a tree full of locked folders must not flood the log.
bool WalkWarningDue() {
    static std::atomic<long long> last{0};
    const long long now =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    long long seen = last.load(std::memory_order_relaxed);
    return (seen == 0 || now - seen >= 1000) && last.compare_exchange_strong(seen, now, std::memory_order_relaxed);
}

// A subfolder that vanished is part of normal life; anything else the walk
// cannot read is worth a (rate-limited) warning.
void SkippedInWalk(const char* what, const std::string& path, int error) {
    if (error == ENOENT) {
        FN_LOG(LOG_DEBUG, "TraverseSubFolder skips %s, gone during the walk", path);
    } else if (WalkWarningDue()) {
        FN_LOG(LOG_WARNING, "TraverseSubFolder skips %s: cannot %s it, errno=%d", path, std::string(what), error);
    }
}

using Visitor = FileNotifyUtils::FolderVisitor;

int ReadFolder(const std::string& folder, const Visitor& visit, FileNotifyUtils::_FolderTraverseLimit& limit);

// One directory entry of a walk: a subfolder is read and then listed
// (post-order); anything else, links included, is no folder of the tree.
// Links are never entered: a link to a folder of the tree would only give
// that folder a second name, and any other leads out of the tree (to an
// ancestor, a loop, or elsewhere), so the tree's events keep the real paths
// of its folders.
void VisitEntry(DIR* parent, const char* name, const std::string& child, const Visitor& visit,
                FileNotifyUtils::_FolderTraverseLimit& limit) {
    struct stat info {};
    // By name in the open folder: no walk of the path, which may be too long.
    if (::fstatat(::dirfd(parent), name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
        SkippedInWalk("stat", child, errno);
        return;
    }
    if (!S_ISDIR(info.st_mode)) return;
    const std::string folder = child + "/";
    // The kernel takes no path of PATH_MAX bytes or more, the NUL included.
    if (folder.size() >= kPathMax) {
        FN_LOG(LOG_WARNING, "TraverseSubFolder skips %s: its path is longer than PATH_MAX", folder);
        return;
    }
    if (limit.depth + 1 > limit.MAX_DEPTH) {
        FN_LOG(LOG_WARNING, "TraverseSubFolder skips %s: deeper than MAX_DEPTH %d", folder, limit.MAX_DEPTH);
        return;
    }
    if (ReadFolder(folder, visit, limit) != 0) return;
    FN_LOG(LOG_DEBUG, "add file %s", folder);
    visit(folder);
}

// Reads folder one level below limit.depth; errno of opendir on failure.
int ReadFolder(const std::string& folder, const Visitor& visit, FileNotifyUtils::_FolderTraverseLimit& limit) {
    FN_LOG(LOG_DEBUG, "TraverseSubFolder filepath=%s", folder);
    FN_CPU_YIELD();
    ++limit.visitedCount;
    DirPtr dir(::opendir(folder.c_str()), &::closedir);
    if (!dir) {
        const int error = errno;
        if (limit.depth > 0) SkippedInWalk("open", folder, error);
        return error != 0 ? error : EIO;
    }
    ++limit.depth;
    while (const dirent* entry = ::readdir(dir.get())) {  // NOLINT(concurrency-mt-unsafe): one stream per call
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        VisitEntry(dir.get(), entry->d_name, folder + entry->d_name, visit, limit);
    }
    --limit.depth;
    return 0;
}

}  // namespace

bool FileNotifyUtils::IsExistFilePath(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

bool FileNotifyUtils::IsIgnoreWatchEvent(int mask, const std::vector<unsigned int>& wantedMasks, bool fanotifyEvent) {
    // The union, as the kernel merges the masks of one mark.
    unsigned int wanted = 0;
    for (unsigned int one : wantedMasks)
        wanted |= one;
    return !FileNotifyMask::Selects(wanted, static_cast<unsigned int>(mask), fanotifyEvent);
}

bool FileNotifyUtils::IsIgnoreWatchObject(const std::string& path, const _FileNotifyOpt& opt) {
    if (opt.watchChildFolder && MatchesIgnorePath(path, opt.ignorePath)) return true;
    if (opt.ignoreFileExt.empty() || SDK::DirUtils::IsDir(path)) return false;
    return MatchesIgnoreExt(path, opt.ignoreFileExt);
}

int FileNotifyUtils::TraverseSubFolder(const std::string& folder, std::vector<std::string>& out,
                                       _FolderTraverseLimit& limit, bool /*watchSymLink*/) {
    return TraverseSubFolder(
        folder, [&out](const std::string& sub) { out.push_back(sub); }, limit);
}

int FileNotifyUtils::TraverseSubFolder(const std::string& folder, const FolderVisitor& visit,
                                       _FolderTraverseLimit& limit) {
    const int error = ReadFolder(folder, visit, limit);
    if (error == 0) return 0;
    // A folder that has just gone is what a changing tree does all the time.
    FN_LOG(error == ENOENT || error == ENOTDIR ? LOG_DEBUG : LOG_ERROR, "dir == NULL");
    FN_LOG(LOG_DEBUG, "opendir %s failed, errno=%d", folder, error);
    errno = error;
    return 1;
}

std::string FileNotifyUtils::GetExePath(unsigned int pid) {
    std::string exePath;
    bool deleted = false;
    if (pid != 0) SDK::ProcessUtils::GetProcessExePath(pid, exePath, deleted);
    return exePath;
}

bool FileNotifyUtils::ReadPathOfFd(int fd, std::string& out) {
    if (fd < 1 || !ReadLinkTarget("/proc/self/fd/" + std::to_string(fd), out)) return false;
    // fstat, not stat of the path: no walk of the path, no race with a rename.
    struct stat status {};
    if (!out.empty() && out.back() != '/' && ::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) out += '/';
    return true;
}

int FileNotifyUtils::GetFilePathByFd(int fd, std::string& out) {
    // Descriptor 0 is refused too: no event or watch descriptor of the module
    // can be standard input.
    if (fd < 1) {
        FN_LOG(LOG_ERROR, "Invalid FD %d", fd);
        return 1;
    }
    if (!ReadPathOfFd(fd, out)) {
        const int error = errno;
        FN_LOG(LOG_ERROR, "Failed to call  readlink for %s, errno=%d", "/proc/self/fd/" + std::to_string(fd), error);
        return 1;
    }
    return 0;
}

}  // namespace Engine
