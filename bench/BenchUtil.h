#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace BenchUtil {

// A fresh folder under base (e.g. "/dev/shm/"), removed with its contents.
// path() ends in "/", and is empty when the folder could not be made.
class TempDir {
public:
    TempDir(const char* base, const char* prefix) {
        std::string name = std::string(base) + prefix + "XXXXXX";
        if (::mkdtemp(name.data()) != nullptr) _path = name + "/";
    }
    ~TempDir() {
        std::error_code ignored;
        if (!_path.empty()) std::filesystem::remove_all(_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return _path; }

private:
    std::string _path;
};

// ---- kernel settings -------------------------------------------------------

// A /proc/sys setting raised for a run. The old text sits in a fixed buffer
// so that a signal handler can write it back without allocating.
struct Sysctl {
    const char* path;
    char saved[32];
    volatile std::sig_atomic_t raised;
};

inline bool WriteText(const char* path, const char* text, std::size_t length) {
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = ::write(fd, text, length) == static_cast<ssize_t>(length);
    ::close(fd);
    return written;
}

inline long ReadLong(const char* path) {
    std::ifstream in(path);
    long value = -1;
    in >> value;
    return value;
}

// Writes the old value back. Async-signal-safe; runs more than once harmlessly.
inline void RestoreSysctl(Sysctl& setting) {
    if (!setting.raised) return;
    setting.raised = 0;
    WriteText(setting.path, setting.saved, std::strlen(setting.saved));
}

// False when the setting is below value and cannot be raised. A setting
// already at value or above is left alone.
inline bool RaiseSysctl(Sysctl& setting, long value) {
    const long old = ReadLong(setting.path);
    if (old < 0) return false;
    if (old >= value) return true;
    std::snprintf(setting.saved, sizeof(setting.saved), "%ld\n", old);
    setting.raised = 1;  // before the write: a signal in between still restores
    const std::string text = std::to_string(value) + "\n";
    return WriteText(setting.path, text.c_str(), text.size()) && ReadLong(setting.path) == value;
}

}  // namespace BenchUtil
