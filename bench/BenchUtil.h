#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
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

// ---- text and command lines ------------------------------------------------

inline std::string ErrnoText(const char* call) {
    return std::string(call) + ": " + std::strerror(errno);
}

// Whole milliseconds, clamped to a day: a poll time-out.
inline int Milliseconds(std::chrono::steady_clock::duration duration) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
    return static_cast<int>(std::clamp<decltype(ms)>(ms, 0, decltype(ms){24} * 3600 * 1000));
}

// 1234567 -> "1,234,567"
inline std::string Grouped(long value) {
    std::string digits = std::to_string(value < 0 ? -value : value);
    for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3)
        digits.insert(static_cast<std::size_t>(at), ",");
    return value < 0 ? "-" + digits : digits;
}

// The text on one line, shortened.
inline std::string OneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    if (text.size() > 300) text = text.substr(0, 300) + "...";
    return text;
}

// What a tool wrote to stderr after its ready line.
inline std::string StderrBeyondReady(const std::string& text, const char* readyText) {
    std::size_t from = text.find(readyText);
    if (from != std::string::npos) from = text.find('\n', from);
    return from == std::string::npos ? std::string() : OneLine(text.substr(from + 1));
}

// Whether argv[i] is the option `name` followed by a whole number from 1 to
// limit; then value takes the number and i moves onto it.
inline bool NumberOption(int argc, char** argv, int& i, const char* name, long limit, long& value) {
    if (std::strcmp(argv[i], name) != 0 || i + 1 >= argc) return false;
    const char* text = argv[i + 1];
    char* end = nullptr;
    errno = 0;
    const long parsed = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || parsed <= 0 || parsed > limit) return false;
    value = parsed;
    ++i;
    return true;
}

}  // namespace BenchUtil
