#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/prctl.h>
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
#include <vector>

#include "framework/UniqueFd.h"

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

// A child process of this program running args (args[0] a path), stdin
// from /dev/null, stdout and stderr into non-blocking pipes (stdout's sized
// pipeBytes, as far as the kernel allows). It dies with this program.
struct PipedChild {
    pid_t pid = -1;
    Framework::UniqueFd out, err;
};

// An empty string, or what went wrong.
inline std::string SpawnPiped(const std::vector<std::string>& args, int pipeBytes, PipedChild& child) {
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    if (::pipe2(out, O_CLOEXEC) != 0) return ErrnoText("pipe2");
    Framework::UniqueFd outRead(out[0]), outWrite(out[1]);
    if (::pipe2(err, O_CLOEXEC) != 0) return ErrnoText("pipe2");
    Framework::UniqueFd errRead(err[0]), errWrite(err[1]);
    const Framework::UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!null.valid()) return ErrnoText("open /dev/null");
    ::fcntl(outRead.get(), F_SETPIPE_SZ, pipeBytes);  // best effort: the default also works
    std::vector<char*> argv;
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) return ErrnoText("fork");
    if (pid == 0) {
        // Async-signal-safe calls only until exec: this program has threads.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        ::dup2(null.get(), 0);
        ::dup2(outWrite.get(), 1);
        ::dup2(errWrite.get(), 2);
        ::execv(argv[0], argv.data());
        static const char kFailed[] = "benchmark: exec failed\n";
        (void)!::write(2, kFailed, sizeof(kFailed) - 1);
        ::_exit(127);
    }
    ::fcntl(outRead.get(), F_SETFL, O_NONBLOCK);
    ::fcntl(errRead.get(), F_SETFL, O_NONBLOCK);
    child.pid = pid;
    child.out = std::move(outRead);
    child.err = std::move(errRead);
    return std::string();
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
