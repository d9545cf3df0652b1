#include "FileNotifyMountWatch.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <sstream>

namespace Engine {

namespace {

// mountinfo writes a blank, tab, newline and backslash of a path as \ooo.
std::string Unescape(const std::string& field) {
    std::string path;
    for (std::size_t i = 0; i < field.size(); ++i) {
        const bool octal = field[i] == '\\' && i + 3 < field.size() &&
                           std::all_of(field.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                                       field.begin() + static_cast<std::ptrdiff_t>(i) + 4,
                                       [](char c) { return c >= '0' && c <= '7'; });
        if (octal) {
            path += static_cast<char>(((field[i + 1] - '0') << 6) | ((field[i + 2] - '0') << 3) | (field[i + 3] - '0'));
            i += 3;
        } else {
            path += field[i];
        }
    }
    return path;
}

}  // namespace

FileNotifyMountWatch::FileNotifyMountWatch() : _fd(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {
    _mounts = Read();
}

std::set<std::string> FileNotifyMountWatch::Parse(const std::string& mountinfo) {
    std::set<std::string> mounts;
    std::istringstream lines(mountinfo);
    std::string line;
    while (std::getline(lines, line)) {
        // id, parent id, major:minor, root, mount point, ...
        std::istringstream fields(line);
        std::string field;
        for (int i = 0; i < 5 && fields >> field; ++i) {
            if (i < 4) continue;
            std::string path = Unescape(field);
            if (path.empty() || path.front() != '/') break;
            if (path.back() != '/') path += '/';
            mounts.insert(std::move(path));
        }
    }
    return mounts;
}

std::set<std::string> FileNotifyMountWatch::Read() {
    if (!_fd.valid()) return {};
    std::string text;
    char buffer[8192];
    off_t at = 0;
    for (;;) {
        const ssize_t length = ::pread(_fd.get(), buffer, sizeof buffer, at);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) break;
        text.append(buffer, static_cast<std::size_t>(length));
        at += length;
    }
    return Parse(text);
}

std::vector<std::string> FileNotifyMountWatch::TakeChanges() {
    std::set<std::string> now = Read();
    std::vector<std::string> changed;
    std::set_symmetric_difference(_mounts.begin(), _mounts.end(), now.begin(), now.end(), std::back_inserter(changed));
    _mounts = std::move(now);
    return changed;
}

}  // namespace Engine
