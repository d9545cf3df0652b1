#include "sdk/ProcessUtils.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "sdk/FileUtils.h"

namespace SDK {

namespace {

constexpr char kDeletedSuffix[] = " (deleted)";
constexpr std::size_t kDeletedSuffixLen = sizeof(kDeletedSuffix) - 1;

bool EndsWithDeletedSuffix(const std::string& path) {
    return path.size() > kDeletedSuffixLen &&
           path.compare(path.size() - kDeletedSuffixLen, kDeletedSuffixLen, kDeletedSuffix) == 0;
}

// An executable may really be named "x (deleted)": it is then the very file
// the link points to, still in place.
bool IsSameFile(const std::string& exeLink, const std::string& path) {
    struct stat running {};
    struct stat named {};
    return ::stat(exeLink.c_str(), &running) == 0 && ::stat(path.c_str(), &named) == 0 &&
           running.st_dev == named.st_dev && running.st_ino == named.st_ino;
}

}  // namespace

bool ProcessUtils::GetProcessExePath(unsigned int pid, std::string& exePath, bool& deleted) {
    exePath.clear();
    deleted = false;
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    std::string target;
    if (!FileUtils::ReadLink(link, target)) return false;
    if (EndsWithDeletedSuffix(target) && !IsSameFile(link, target)) {
        target.resize(target.size() - kDeletedSuffixLen);
        deleted = true;
    }
    exePath = std::move(target);
    return true;
}

long long TimeUtils::GetCurrentSystemTickUsed() {
    struct timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace SDK
