#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <linux/capability.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

namespace TestUtil {

// A fresh folder under base (/tmp, or the tmpfs /dev/shm for many files),
// removed with everything in it at the end. path() ends with "/".
class TempDir {
public:
    explicit TempDir(const std::string& base = "/tmp") {
        std::string tmpl = base + "/fn_test_XXXXXX";
        const char* made = ::mkdtemp(tmpl.data());
        if (made != nullptr) _path = std::string(made) + "/";
    }
    ~TempDir() {
        if (_path.empty()) return;
        ::nftw(
            _path.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return _path; }
    std::string operator/(const std::string& name) const { return _path + name; }

private:
    std::string _path;
};

// Entries of a folder such as /proc/self/fd or /proc/self/task, to compare
// before and after: what a piece of code opened or started and left behind.
inline long CountEntries(const char* folder) {
    long n = 0;
    for (auto it = std::filesystem::directory_iterator(folder); it != std::filesystem::directory_iterator(); ++it)
        ++n;
    return n;
}

// Polls cond until it holds or the time-out passes; for state that another
// thread changes. Returns the last result of cond.
inline bool WaitUntil(const std::function<bool()>& cond,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline) return cond();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Runs a function when the scope ends, also when an assertion returns
// early: stops threads that use a test's locals before the locals go.
class AtScopeEnd {
public:
    explicit AtScopeEnd(std::function<void()> run) : _run(std::move(run)) {}
    ~AtScopeEnd() { _run(); }
    AtScopeEnd(const AtScopeEnd&) = delete;
    AtScopeEnd& operator=(const AtScopeEnd&) = delete;

private:
    std::function<void()> _run;
};

// File-system actions that must succeed for a test to mean anything.
inline void MakeDir(const std::string& path) {
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0755)) << path;
}
inline void Touch(const std::string& path) {
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << path;
    ::close(fd);
}
inline void Rename(const std::string& from, const std::string& to) {
    ASSERT_EQ(0, ::rename(from.c_str(), to.c_str())) << from << " -> " << to;
}

// The integer at the start of a file such as /proc/sys/fs/inotify/*; -1
// when it cannot be read.
inline int ReadIntFile(const std::string& path) {
    std::ifstream in(path);
    int value = -1;
    in >> value;
    return in ? value : -1;
}

// A /proc/sys setting changed for as long as the object lives. ok() is
// false when it could not be changed (no privilege): skip with reason().
class ScopedSysctl {
public:
    // Tests run in parallel processes: one setting is changed by one of them
    // at a time, or a later one would save the earlier one's value and
    // "restore" it for good.
    ScopedSysctl(const std::string& path, int value)
        : _lock(::open("/tmp/fn_test_sysctl.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600)), _path(path) {
        if (_lock >= 0) ::flock(_lock, LOCK_EX);
        _old = ReadIntFile(path);
        std::ofstream(path) << value << "\n";
        _ok = _old >= 0 && ReadIntFile(path) == value;
    }
    ~ScopedSysctl() {
        if (_old >= 0) std::ofstream(_path) << _old << "\n";
        if (_lock >= 0) ::close(_lock);  // and with it the lock
    }
    ScopedSysctl(const ScopedSysctl&) = delete;
    ScopedSysctl& operator=(const ScopedSysctl&) = delete;
    bool ok() const { return _ok; }
    std::string reason() const { return "cannot set " + _path + " (needs root)"; }

private:
    int _lock;
    std::string _path;
    int _old = -1;
    bool _ok = false;
};

// Capabilities belong to a thread: without the permission bypasses in this
// thread's effective set, mode bits bind under root too. Raised again at the
// end. Threads started meanwhile keep the lowered set.
struct DropPermissionBypass {
    DropPermissionBypass() {
        dropped = ::syscall(SYS_capget, &header, saved) == 0;
        __user_cap_data_struct lowered[2] = {saved[0], saved[1]};
        lowered[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        dropped = dropped && ::syscall(SYS_capset, &header, lowered) == 0;
    }
    ~DropPermissionBypass() {
        if (dropped) ::syscall(SYS_capset, &header, saved);
    }
    DropPermissionBypass(const DropPermissionBypass&) = delete;
    DropPermissionBypass& operator=(const DropPermissionBypass&) = delete;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved[2]{};
    bool dropped = false;
};

}  // namespace TestUtil
