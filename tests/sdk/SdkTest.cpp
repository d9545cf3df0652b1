#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include "TestUtil.h"
#include "framework/ConfigManager.h"
#include "sdk/FileUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcessUtils.h"

namespace {

using namespace SDK;
using Poco::Message;
namespace fs = std::filesystem;

std::string ReadAll(const std::string& path) {
    std::string content;
    FileUtils::ReadFile(path, content, 1 << 20);
    return content;
}

TEST(PathUtilsTest, CanonicalPathsAndInstallation) {
    std::string deep;  // longer than PATH_MAX: no fixed-size buffer on the way
    for (int i = 0; i < 1000; ++i)
        deep += "/dir0123456";
    // The last "/" of the input alone decides the last "/" of the result; "/" and "." never get one.
    const char* const cases[][2] = {{"", ""},          {"//a//b/./c/.", "/a/b/c"}, {"/a/b//", "/a/b/"},
                                    {"/a/b/..", "/a"}, {"/a/b/../", "/a/"},        {"/..", "/"},
                                    {"./", "."}};
    for (const auto& c : cases)
        EXPECT_EQ(PathUtils::GetCanonicalizePath(c[0]), c[1]) << c[0];
    EXPECT_EQ(PathUtils::GetCanonicalizePath(deep + "/./x//../end"), deep + "/end");

    // Set, it ends with "/"; unset, it is the folder above the executable's.
    std::string path;
    PathUtils::SetInstallationPath("/opt/agent");
    EXPECT_TRUE(PathUtils::GetInstallationPath(path) && path == "/opt/agent/") << path;
    PathUtils::SetInstallationPath("");
    EXPECT_TRUE(PathUtils::GetInstallationPath(path) &&
                path == fs::read_symlink("/proc/self/exe").parent_path().parent_path().string() + "/")
        << path;
}

TEST(FileUtilsTest, KindsAndReads) {
    TestUtil::TempDir d;
    std::string big;
    while (big.size() < std::size_t{300} * 1024)
        big += std::to_string(big.size()) + ",";
    std::ofstream(d / "file") << "hello world";
    std::ofstream(d / "big") << big;
    TestUtil::MakeDir(d / "dir");
    ASSERT_EQ(::symlink("file", (d / "link").c_str()), 0);
    ASSERT_EQ(::mkfifo((d / "fifo").c_str(), 0644), 0);
    const long fdsBefore = TestUtil::CountEntries("/proc/self/fd");
    const struct {
        std::string path;
        bool isFile, isDir, readOk;
        std::size_t maxBytes;
        std::string content;
    } cases[] = {
        {d / "link", true, false, true, 100, "hello world"},
        {d / "big", true, false, true, 200 * 1024 + 7, big.substr(0, 200 * 1024 + 7)},  // several reads
        {d / "dir", false, true, false, 100, ""},
        // No writer: an open that waited for one would hang here until the test times out.
        {d / "fifo", false, false, false, 100, ""},
        // Reports size 0 but has content; a regular file whose read fails (page 0 is unmapped), even for root.
        {"/proc/self/status", true, false, true, 5, "Name:"},
        {"/proc/self/mem", true, false, false, 100, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FileUtils::IsFile(c.path), c.isFile) << c.path;
        EXPECT_EQ(DirUtils::IsDir(c.path), c.isDir) << c.path;
        std::string content = "stale";
        EXPECT_EQ(FileUtils::ReadFile(c.path, content, c.maxBytes), c.readOk) << c.path;
        EXPECT_TRUE(content == c.content) << c.path << " max " << c.maxBytes << ": " << content.size();
    }
    EXPECT_EQ(TestUtil::CountEntries("/proc/self/fd"), fdsBefore);
}

TEST(ProcessUtilsTest, ExeDeletedWhileRunning) {
    // The second name is a trap: a file really named "... (deleted)" is not deleted while it is there.
    for (const char* name : {"sleeper", "sleeper (deleted)"}) {
        TestUtil::TempDir dir;
        const std::string exe = dir / name;
        fs::copy_file("/bin/sleep", exe);
        char arg0[] = "sleeper", arg1[] = "30";
        char* argv[] = {arg0, arg1, nullptr};
        pid_t pid = -1;
        ASSERT_EQ(0, ::posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, environ)) << name;
        TestUtil::AtScopeEnd reap([pid] {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        });
        std::string path;
        bool deleted = true;
        const auto exeOf = [&] { return ProcessUtils::GetProcessExePath(static_cast<unsigned>(pid), path, deleted); };
        // posix_spawn may return before the child runs its new program.
        ASSERT_TRUE(TestUtil::WaitUntil([&] { return exeOf() && path == exe && !deleted; })) << name << ": " << path;
        ASSERT_EQ(::unlink(exe.c_str()), 0);
        EXPECT_TRUE(exeOf() && path == exe && deleted) << name << ": " << path;
    }
}

long long ThreadCpuMs() {
    struct timespec ts {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

TEST(InnerCpuCtrlUtilsTest, SleepTable) {
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());  // off by default
    // On a fresh thread each, so that no earlier adjustment counts. started: a starting point is taken
    // first; elsewhere: another thread burns the CPU meanwhile.
    const struct {
        int share;
        bool started, elsewhere;
        long long cpuMs, minMs, maxMs;
        const char* what;
    } cases[] = {
        {0, true, false, 40, 0, 0, "off: never sleeps"},
        {20, false, false, 40, 0, 0, "a thread's first adjustment only starts the count"},
        {20, true, false, 60, 220, 999, "60 ms of CPU at 20 % asks for 240 ms"},
        {20, true, true, 80, 0, 59, "another thread's CPU is not charged (else about 320 ms)"},
        {1, true, false, 30, 900, 1900, "capped: 30 ms at 1 % would ask for 2970 ms"},
    };
    for (const auto& c : cases) {
        InnerCpuCtrlUtils::SetCpuShare(c.share);
        const auto adjust = [] { return InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", 0, 0); };
        const auto spin = [&] {
            for (const long long until = ThreadCpuMs() + c.cpuMs; ThreadCpuMs() < until;)
                continue;
        };
        long long slept = -1;
        std::thread([&] {
            if (c.started) adjust();
            c.elsewhere ? std::thread(spin).join() : spin();
            slept = adjust();
        }).join();
        EXPECT_GE(slept, c.minMs) << c.what;
        EXPECT_LE(slept, c.maxMs) << c.what;
    }
    InnerCpuCtrlUtils::SetCpuShare(0);
}

TEST(LoggerUtilsTest, RotatingFileAtTheLevelSet) {
    LoggerUtils* const utils = LoggerUtils::GetInstance();
    TestUtil::TempDir dir;
    // Closes the test's file before the folder goes; back to the start-up settings.
    TestUtil::AtScopeEnd restore([&] {
        utils->UseConsole();
        utils->SetLevel(Message::PRIO_WARNING);
    });
    Poco::Logger* logger = utils->GetModuleLogger("rotating", false);
    utils->SetLevel(Message::PRIO_ERROR);  // also for the loggers handed out before

    const std::string path = dir / "agent.log";
    ASSERT_TRUE(utils->UseRotatingFile(path, 300, 2));
    for (int i = 0; i < 40; ++i)
        poco_error(*logger, "record-" + std::to_string(i));
    poco_warning(*logger, "below-level");
    const std::string live = ReadAll(path);
    // Time with milliseconds, priority, source logger, file:line, text.
    EXPECT_TRUE(std::regex_search(live, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} .*)"
                                                   R"(Error.*rotating.*SdkTest\.cpp:\d+.*record-39\n)")))
        << live;
    EXPECT_EQ(std::string::npos, live.find("below-level")) << live;
    // Rotated at 300 bytes, two archives kept (POCO purges the oldest by file time): bounded disk use.
    std::size_t archives = 0;
    for (const auto& entry : fs::directory_iterator(dir.path()))
        archives += entry.path().filename().string().rfind("agent.log.", 0) == 0 ? 1 : 0;
    EXPECT_EQ(archives, 2u);
    // A file that cannot be opened keeps the current one.
    EXPECT_FALSE(utils->UseRotatingFile(dir / "no/such/agent.log"));
    poco_error(*logger, "after-bad-file");
    EXPECT_NE(std::string::npos, ReadAll(path).find("after-bad-file"));
}

// Values are strict whole numbers ("#" starts a comment, "${...}" is not
// expanded); absent or 0 is "not configured"; a bad value spoils only itself.
TEST(ConfigManagerTest, Percentages) {
    const struct {
        const char* content;  // nullptr: no file
        int inotify, cpu;
        bool ok;
    } cases[] = {
        {"inotify = 30\ncpu = 100\n", 30, 100, true},
        {"#inotify = 50\ncpu = 0\n", 0, 0, true},
        {"inotify = +9\ncpu = 20  # percent\n", 9, 20, true},
        {"inotify = 101\ncpu = 20\n", 0, 20, false},
        {"inotify = 30\ncpu = -1\n", 30, 0, false},
        {"inotify = 12abc\ncpu = +-3\n", 0, 0, false},
        {"inotify = 4294967326\ncpu = ${inotify}\n", 0, 0, false},
        {nullptr, 0, 0, false},
    };
    TestUtil::TempDir dir;
    const std::string path = dir / "resource.conf";
    auto* manager = Framework::ConfigManager::GetInstance();
    for (const auto& c : cases) {
        c.content != nullptr ? (void)(std::ofstream(path) << c.content) : (void)::unlink(path.c_str());
        manager->SetResourceConfig(Framework::ResourceConfig{55, 55});  // an earlier load must not shine through
        SCOPED_TRACE(c.content != nullptr ? c.content : "no file");
        EXPECT_EQ(manager->LoadResourceConfig(path), c.ok);
        EXPECT_EQ(manager->GetResourceConfig().inotifyPercent, c.inotify);
        EXPECT_EQ(manager->GetResourceConfig().cpuPercent, c.cpu);
    }
    // The file shipped in the tree.
    EXPECT_TRUE(manager->LoadResourceConfig(FN_SOURCE_DIR "/conf/resource.conf"));
    EXPECT_EQ(manager->GetResourceConfig().inotifyPercent, 30);
    EXPECT_EQ(manager->GetResourceConfig().cpuPercent, 0);
    manager->SetResourceConfig(Framework::ResourceConfig());
}

}  // namespace
