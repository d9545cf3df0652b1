#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "TestUtil.h"
#include "sdk/ProcessUtils.h"

extern char** environ;

namespace {

using SDK::ProcessUtils;
using SDK::TimeUtils;

// A child process, killed and reaped however the test ends.
class Child {
public:
    explicit Child(const std::string& program) {
        char arg0[] = "sleeper";
        char arg1[] = "30";
        char* argv[] = {arg0, arg1, nullptr};
        if (::posix_spawn(&_pid, program.c_str(), nullptr, nullptr, argv, environ) != 0) _pid = -1;
    }
    ~Child() {
        if (_pid <= 0) return;
        ::kill(_pid, SIGKILL);
        ::waitpid(_pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return _pid; }

private:
    pid_t _pid = -1;
};

std::string CopyExecutable(const TestUtil::TempDir& dir, const std::string& name) {
    const std::string path = dir / name;
    std::filesystem::copy_file("/bin/sleep", path);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

// posix_spawn may return before the child has run its new program.
bool WaitForExe(pid_t pid, const std::string& expected) {
    return TestUtil::WaitUntil([&] {
        std::string path;
        bool deleted = true;
        return ProcessUtils::GetProcessExePath(static_cast<unsigned int>(pid), path, deleted) && path == expected &&
               !deleted;
    });
}

TEST(ProcessUtilsTest, ExeOfSelf) {
    std::string path;
    bool deleted = true;
    ASSERT_TRUE(ProcessUtils::GetProcessExePath(static_cast<unsigned int>(::getpid()), path, deleted));
    EXPECT_EQ(path, std::filesystem::read_symlink("/proc/self/exe").string());
    EXPECT_FALSE(deleted);
}

TEST(ProcessUtilsTest, ExeOfExitedChild) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) ::_exit(0);

    // Exited but not yet reaped: a zombie has no executable any more.
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    std::string path = "stale";
    bool deleted = true;
    EXPECT_FALSE(ProcessUtils::GetProcessExePath(static_cast<unsigned int>(pid), path, deleted));
    EXPECT_TRUE(path.empty());
    EXPECT_FALSE(deleted);

    // Reaped: the process is gone altogether.
    ASSERT_EQ(::waitpid(pid, nullptr, 0), pid);
    path = "stale";
    EXPECT_FALSE(ProcessUtils::GetProcessExePath(static_cast<unsigned int>(pid), path, deleted));
    EXPECT_TRUE(path.empty());
}

TEST(ProcessUtilsTest, ExeDeletedWhileRunning) {
    // The second name is a trap: a file really called "... (deleted)".
    const char* names[] = {"sleeper", "sleeper (deleted)"};
    for (const char* name : names) {
        TestUtil::TempDir dir;
        const std::string exe = CopyExecutable(dir, name);
        Child child(exe);
        ASSERT_GT(child.pid(), 0) << name;
        ASSERT_TRUE(WaitForExe(child.pid(), exe)) << name;

        ASSERT_EQ(::unlink(exe.c_str()), 0);
        std::string path;
        bool deleted = false;
        ASSERT_TRUE(ProcessUtils::GetProcessExePath(static_cast<unsigned int>(child.pid()), path, deleted));
        EXPECT_EQ(path, exe) << name;
        EXPECT_TRUE(deleted) << name;
    }
}

TEST(ProcessUtilsTest, ExeNamedLikeDeletedButPresent) {
    TestUtil::TempDir dir;
    const std::string exe = CopyExecutable(dir, "sleeper (deleted)");
    // The name without the suffix exists too: only the file identity tells.
    CopyExecutable(dir, "sleeper");
    Child child(exe);
    ASSERT_GT(child.pid(), 0);
    EXPECT_TRUE(WaitForExe(child.pid(), exe));
}

TEST(TimeUtilsTest, MonotonicMilliseconds) {
    using std::chrono::duration_cast;
    using std::chrono::milliseconds;
    const auto steadyMs = [] {
        return duration_cast<milliseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
    };

    // Same clock as steady_clock, in milliseconds.
    const long long before = steadyMs();
    const long long tick = TimeUtils::GetCurrentSystemTickUsed();
    const long long after = steadyMs();
    EXPECT_GE(tick, before);
    EXPECT_LE(tick, after);

    long long last = tick;
    for (int i = 0; i < 10000; ++i) {
        const long long now = TimeUtils::GetCurrentSystemTickUsed();
        ASSERT_GE(now, last);
        last = now;
    }

    const long long start = TimeUtils::GetCurrentSystemTickUsed();
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_GE(TimeUtils::GetCurrentSystemTickUsed() - start, 19);
}

}  // namespace
