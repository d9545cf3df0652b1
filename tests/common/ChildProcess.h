#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/fanotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

#include "TestUtil.h"

namespace TestUtil {

// A child process that opens one file and exits with 0 or the errno of the
// open. Fork without exec: the child only calls async-signal-safe functions.
// A child still running when the object goes is killed (SIGKILL frees a
// process held by a permission event) and reaped.
class OpeningChild {
public:
    explicit OpeningChild(const std::string& path, int flags = O_RDONLY) {
        _pid = ::fork();
        if (_pid == 0) {
            // Not a holder of the parent's descriptors: a fanotify group
            // kept open by its own waiting child would never be released.
            if (::syscall(SYS_close_range, 3U, ~0U, 0U) != 0) {
                for (int fd = 3; fd < 4096; ++fd)
                    ::close(fd);
            }
            const int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0644);
            ::_exit(fd < 0 ? errno : 0);
        }
    }
    ~OpeningChild() {
        if (_pid <= 0 || _done) return;
        ::kill(_pid, SIGKILL);
        int status = 0;
        ::waitpid(_pid, &status, 0);
    }
    OpeningChild(const OpeningChild&) = delete;
    OpeningChild& operator=(const OpeningChild&) = delete;

    pid_t pid() const { return _pid; }
    // Waits up to timeout for the child; true when it has exited, and then
    // result() is its open's errno (0 for success).
    bool Wait(std::chrono::milliseconds timeout) {
        WaitUntil(
            [&] {
                int status = 0;
                if (_done || ::waitpid(_pid, &status, WNOHANG) != _pid) return _done;
                _done = true;
                _result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                return true;
            },
            timeout);
        return _done;
    }
    int result() const { return _result; }

private:
    pid_t _pid = -1;
    bool _done = false;
    int _result = -1;
};

// The errno of an open of path by a child (0: allowed); -1 when the open is
// not answered within 5 s.
inline int OpenFromChild(const std::string& path) {
    OpeningChild child(path);
    return child.Wait(std::chrono::milliseconds(5000)) ? child.result() : -1;
}

// Why this process cannot open a fanotify permission group (it needs
// CAP_SYS_ADMIN), or empty when it can: tests skip with this reason.
inline std::string FanotifyMissing() {
    const int fd = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
    if (fd < 0) return "fanotify_init refused (" + std::generic_category().message(errno) + "): needs CAP_SYS_ADMIN";
    ::close(fd);
    return std::string();
}

}  // namespace TestUtil
