#include "FileNotifyPath.h"

#include <limits.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <system_error>

#include "sdk/FileUtils.h"

namespace Engine {

namespace {

// The kernel's PATH_MAX, the NUL included.
constexpr std::size_t kPathMax = PATH_MAX;

}  // namespace

FileNotifyPath::PathCheck FileNotifyPath::CheckWatchPath(const std::string& path, std::string& reason) {
    reason.clear();
    if (path.empty()) {
        reason = "an empty path names nothing";
        return PathCheck::Refused;
    }
    if (path.size() >= kPathMax) {
        reason = "the path is " + std::to_string(path.size()) + " bytes long, longer than PATH_MAX (" +
                 std::to_string(kPathMax) + " with its end)";
        return PathCheck::Refused;
    }
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) return PathCheck::Exists;
    const int error = errno;
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return PathCheck::Missing;
        case EACCES:
            reason = "a folder above it may not be searched (" + std::generic_category().message(error) + ")";
            break;
        case ENAMETOOLONG:
            reason = "a part of the path is longer than NAME_MAX (" + std::generic_category().message(error) + ")";
            break;
        case ELOOP:
            reason = "its symbolic links loop (" + std::generic_category().message(error) + ")";
            break;
        default:
            reason = "stat failed: " + std::generic_category().message(error);
            break;
    }
    return PathCheck::Refused;
}

std::string FileNotifyPath::FormatFolderName(const std::string& path) {
    const std::size_t first = path.find_first_not_of(' ');
    if (first == std::string::npos) return std::string();
    std::string result = path.substr(first, path.find_last_not_of(' ') - first + 1);
    if (result.back() != '/' && SDK::DirUtils::IsDir(result)) result += '/';
    return result;
}

}  // namespace Engine
