#include "sdk/PathUtils.h"

#include <unistd.h>

#include <mutex>
#include <string_view>
#include <vector>

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
    if (path.empty()) return std::string();
    const bool absolute = path.front() == '/';
    const bool trailingSlash = path.back() == '/';

    // Views into path: no copy per component, whatever the path length.
    std::vector<std::string_view> parts;
    const std::string_view whole(path);
    std::size_t pos = 0;
    while (pos < whole.size()) {
        auto next = whole.find('/', pos);
        if (next == std::string_view::npos) next = whole.size();
        const std::string_view part = whole.substr(pos, next - pos);
        pos = next + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            if (!parts.empty() && parts.back() != "..") {
                parts.pop_back();
            } else if (!absolute) {
                parts.push_back(part);  // above the start of a relative path
            }
            // "/.." is "/": nothing is above the root
            continue;
        }
        parts.push_back(part);
    }

    if (parts.empty()) return absolute ? "/" : ".";
    std::string result;
    result.reserve(path.size());
    for (const auto& part : parts) {
        if (absolute || !result.empty()) result.push_back('/');
        result.append(part);
    }
    if (trailingSlash) result.push_back('/');
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
