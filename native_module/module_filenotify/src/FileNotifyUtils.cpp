#include "FileNotifyUtils.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>

#include <Poco/Logger.h>

#include "sdk/ProcessUtils.h"

#include "CpuYield.h"
#include "FileNotifyLog.h"
#include "sdk/FileUtils.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {

using DirPtr = std::unique_ptr<DIR, int (*)(DIR*)>;

// The kernel's PATH_MAX: a link target of this length or more cannot be a
// usable path, so such a result counts as a failure.
constexpr std::size_t kLinkBufferSize = 4096;

std::atomic<Poco::Logger*> g_logger{nullptr};

// readlink into a zero-filled buffer; false (errno kept) on failure or when
// the target does not fit.
bool ReadLinkTarget(const std::string& link, std::string& target) {
    std::array<char, kLinkBufferSize> buffer{};
    const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size());
    // Compared unsigned so that -1 fails as well.
    if (static_cast<std::size_t>(length) >= buffer.size()) return false;
    target.assign(buffer.data());
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

// One directory entry of a walk. Returns 0 to go on, 1 to abort the walk.
int VisitEntry(const std::string& child, std::vector<std::string>& out, FileNotifyUtils::_FolderTraverseLimit& limit,
               bool watchSymLink) {
    struct stat info {};
    // lstat: a link is never entered, which is what keeps link loops out of
    // the walk; the depth limit bounds everything else.
    if (::lstat(child.c_str(), &info) != 0) return 0;
    if (S_ISDIR(info.st_mode)) {
        const std::string folder = child + "/";
        if (FileNotifyUtils::TraverseSubFolder(folder, out, limit, watchSymLink) != 0) {
            FN_LOG(LOG_ERROR, "failed to TraverseSubFolder  %s", folder);
            return 1;
        }
        FN_LOG(LOG_DEBUG, "add file %s", folder);
        out.push_back(folder);
    } else if (watchSymLink && S_ISLNK(info.st_mode) && FileNotifyUtils::IsLinkFolder(child)) {
        out.push_back(child + "/");
    }
    return 0;
}

}  // namespace

Poco::Logger* FileNotifyUtils::GetLoggerPtr() {
    Poco::Logger* logger = g_logger.load(std::memory_order_acquire);
    if (logger != nullptr) return logger;
    try {
        logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", false);
    } catch (...) {
        return nullptr;
    }
    g_logger.store(logger, std::memory_order_release);
    return logger;
}

bool FileNotifyUtils::IsExistFilePath(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
}

bool FileNotifyUtils::IsIgnoreWatchEvent(int mask, const std::vector<unsigned int>& wantedMasks) {
    const auto eventBits = static_cast<unsigned int>(mask);
    for (unsigned int wanted : wantedMasks) {
        if ((wanted & eventBits) != 0) return false;
    }
    return true;
}

std::string FileNotifyUtils::FormatFolderName(const std::string& path) {
    const std::size_t first = path.find_first_not_of(' ');
    if (first == std::string::npos) return std::string();
    std::string result = path.substr(first, path.find_last_not_of(' ') - first + 1);
    if (result.back() != '/' && SDK::DirUtils::IsDir(result)) result += '/';
    return result;
}

bool FileNotifyUtils::IsLinkFolder(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        FN_LOG(LOG_ERROR, "No find file %s", path);
        return false;
    }
    std::string target;
    if (!ReadLinkTarget(path, target)) {
        const int error = errno;
        FN_LOG(LOG_ERROR, "Failed to call  readlink for %s, errno=%d", path, error);
        return false;
    }
    // The target is taken as it stands: a relative one is resolved against
    // the working directory, not the link's folder, and usually fails here.
    if (::stat(target.c_str(), &info) != 0) return false;
    return S_ISDIR(info.st_mode);
}

bool FileNotifyUtils::IsIgnoreWatchObject(const std::string& path, const _FileNotifyOpt& opt) {
    if (opt.watchChildFolder && MatchesIgnorePath(path, opt.ignorePath)) return true;
    if (opt.ignoreFileExt.empty() || SDK::DirUtils::IsDir(path)) return false;
    return MatchesIgnoreExt(path, opt.ignoreFileExt);
}

int FileNotifyUtils::TraverseSubFolder(const std::string& folder, std::vector<std::string>& out,
                                       _FolderTraverseLimit& limit, bool watchSymLink) {
    FN_LOG(LOG_DEBUG, "TraverseSubFolder filepath=%s", folder);
    FN_CPU_YIELD();
    ++limit.visitedCount;
    const int depth = ++limit.depth;
    if (depth > limit.MAX_DEPTH) {
        FN_LOG(LOG_ERROR, "limitData.depth %d > MAX_DEPTH %d", depth, limit.MAX_DEPTH);
        return 1;
    }
    DirPtr dir(::opendir(folder.c_str()), &::closedir);
    if (!dir) {
        FN_LOG(LOG_ERROR, "dir == NULL");
        return 1;
    }
    while (const dirent* entry = ::readdir(dir.get())) {  // NOLINT(concurrency-mt-unsafe): one stream per call
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        if (VisitEntry(folder + entry->d_name, out, limit, watchSymLink) != 0) return 1;
    }
    --limit.depth;
    return 0;
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
