#include "sdk/PathUtils.h"

#include <unistd.h>

#include <filesystem>
#include <mutex>

#include "sdk/ProcessUtils.h"

namespace SDK {

namespace {

std::mutex g_installMutex;
std::string g_installPath;  // empty: derive from the executable

// Everything before the last "/" of a path without trailing "/";
// "/" for a top-level entry, "" when there is no "/".
std::string ParentOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return std::string();
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string WithTrailingSlash(std::string path) {
    if (path.empty() || path.back() != '/') path.push_back('/');
    return path;
}

}  // namespace

std::string PathUtils::GetFileNameFromPath(const std::string& path) {
    const auto end = path.find_last_not_of('/');
    if (end == std::string::npos) return std::string();  // "" or only slashes
    const auto slash = path.find_last_of('/', end);
    const auto begin = (slash == std::string::npos) ? 0 : slash + 1;
    return path.substr(begin, end - begin + 1);
}

std::string PathUtils::GetCanonicalizePath(const std::string& path) {
    std::string result = std::filesystem::path(path).lexically_normal().native();
    // lexically_normal leaves a "/" after a last "." or ".." part; the
    // input's own last "/" alone decides, and "/" and "." never get one.
    if (result.size() > 1 && result.back() == '/') result.pop_back();
    if (!path.empty() && path.back() == '/' && result != "/" && result != ".") result.push_back('/');
    return result;
}

bool PathUtils::GetInstallationPath(std::string& path) {
    {
        std::lock_guard<std::mutex> lock(g_installMutex);
        if (!g_installPath.empty()) {
            path = g_installPath;
            return true;
        }
    }
    std::string exe;
    bool deleted = false;
    if (!ProcessUtils::GetProcessExePath(static_cast<unsigned int>(::getpid()), exe, deleted)) return false;
    const std::string home = ParentOf(ParentOf(exe));
    if (home.empty()) return false;
    path = WithTrailingSlash(home);
    return true;
}

void PathUtils::SetInstallationPath(const std::string& path) {
    std::lock_guard<std::mutex> lock(g_installMutex);
    g_installPath = path.empty() ? std::string() : WithTrailingSlash(path);
}

}  // namespace SDK
