#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
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
#include "sdk/ConfigUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcessUtils.h"

extern char** environ;

namespace {

using namespace SDK;
using Framework::ConfigManager;
using Framework::ResourceConfig;
using Poco::Message;
namespace fs = std::filesystem;

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
    ASSERT_TRUE(out.good()) << path;
}

std::string ReadAll(const std::string& path) {
    std::string content;
    FileUtils::ReadFile(path, content, 1 << 20);
    return content;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

struct PathCase {
    std::string input, expected;
};

TEST(PathUtilsTest, CanonicalizeTable) {
    // Longer than PATH_MAX: no fixed-size buffer on the way.
    std::string deep, up;
    for (int i = 0; i < 1000; ++i)
        deep += "/dir0123456", up += "/..";
    const PathCase cases[] = {
        {"", ""},
        {"//a//b/./c/.", "/a/b/c"},
        {"/a/b//", "/a/b/"},
        {"/a/b/..", "/a"},
        {"/a/b/../", "/a/"},
        {"/a/b/../../..", "/"},
        {"/..", "/"},
        {"/../../a/", "/a/"},
        {"./", "."},
        {"a/..", "."},
        {"../a", "../a"},
        {"a/../../b", "../b"},
        {"../../x/..", "../.."},
        {"/.../.a/..b/b..", "/.../.a/..b/b.."},
        {"/a\nb/../c", "/c"},
        {"/x/\xff\xfe/./y", "/x/\xff\xfe/y"},
        {std::string("/a/\0b/./c", 9), std::string("/a/\0b/c", 7)},
        {deep + "/./x//../end", deep + "/end"},
        {deep + up + "/../x", "/x"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(PathUtils::GetCanonicalizePath(c.input), c.expected) << c.input;
}

TEST(PathUtilsTest, FileNameTable) {
    const PathCase cases[] = {{"/a/b/c.txt", "c.txt"}, {"/a/b//", "b"},      {"c", "c"}, {"/", ""}, {"", ""},
                              {"/a/..", ".."},         {"/a/b\n c", "b\n c"}};
    for (const auto& c : cases)
        EXPECT_EQ(PathUtils::GetFileNameFromPath(c.input), c.expected) << c.input;
}

TEST(PathUtilsTest, InstallationPath) {
    const std::string defaultPath = fs::read_symlink("/proc/self/exe").parent_path().parent_path().string() + "/";
    std::string path;
    EXPECT_TRUE(PathUtils::GetInstallationPath(path) && path == defaultPath) << path;
    for (const char* set : {"/opt/agent", "/opt/agent/"}) {
        PathUtils::SetInstallationPath(set);
        EXPECT_TRUE(PathUtils::GetInstallationPath(path) && path == "/opt/agent/") << set << " -> " << path;
    }
    PathUtils::SetInstallationPath("");
    EXPECT_TRUE(PathUtils::GetInstallationPath(path) && path == defaultPath) << path;
}

TEST(FileUtilsTest, KindsAndReads) {
    TestUtil::TempDir d;
    std::string big;
    while (big.size() < 300 * 1024)
        big += std::to_string(big.size()) + ",";
    WriteFile(d / "file", "hello world");
    WriteFile(d / "big", big);
    ASSERT_EQ(::mkdir((d / "dir").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("file", (d / "lfile").c_str()), 0);
    ASSERT_EQ(::symlink("dir", (d / "ldir").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", (d / "dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo((d / "fifo").c_str(), 0644), 0);

    const long fdsBefore = TestUtil::CountEntries("/proc/self/fd");
    const struct {
        std::string path;
        bool isFile, isDir, readOk;
        std::size_t maxBytes;
        std::string content;
    } cases[] = {
        {d / "file", true, false, true, 5, "hello"},
        {d / "lfile", true, false, true, 100, "hello world"},
        {d / "file", true, false, true, 0, ""},
        {d / "big", true, false, true, 1 << 20, big},
        {d / "big", true, false, true, 200 * 1024 + 7, big.substr(0, 200 * 1024 + 7)},
        {d / "dir", false, true, false, 100, ""},
        {d / "ldir", false, true, false, 100, ""},
        {d / "dangling", false, false, false, 100, ""},
        {d / "file/below", false, false, false, 100, ""},
        {d / "fifo", false, false, false, 100, ""},
        {"/dev/null", false, false, false, 100, ""},
        // Reports size 0 but has content; a regular file whose read fails (page 0 is unmapped), even for root.
        {"/proc/self/status", true, false, true, 5, "Name:"},
        {"/proc/self/mem", true, false, false, 100, ""},
    };
    // No writer: ReadFile must refuse the FIFO at once. Should it wait for one instead, a writer frees it.
    std::atomic<bool> done{false};
    std::thread reader([&] {
        std::string content;
        FileUtils::ReadFile(d / "fifo", content, 100);
        done = true;
    });
    const bool quick = TestUtil::WaitUntil([&] { return done.load(); }, std::chrono::seconds(2));
    TestUtil::WaitUntil([&] { return done || (::close(::open((d / "fifo").c_str(), O_WRONLY | O_NONBLOCK)), false); });
    reader.join();
    ASSERT_TRUE(quick) << "ReadFile waited for a writer of the FIFO";
    for (const auto& c : cases) {
        EXPECT_EQ(FileUtils::IsFile(c.path), c.isFile) << c.path;
        EXPECT_EQ(DirUtils::IsDir(c.path), c.isDir) << c.path;
        std::string content = "stale";
        EXPECT_EQ(FileUtils::ReadFile(c.path, content, c.maxBytes), c.readOk) << c.path;
        EXPECT_TRUE(content == c.content) << c.path << " max " << c.maxBytes << ": " << content.size();
    }
    EXPECT_EQ(TestUtil::CountEntries("/proc/self/fd"), fdsBefore);
}

// A copy of sleep, run in a child process that is killed and reaped however the test ends.
struct Child {
    pid_t pid = -1;
    explicit Child(const std::string& exe) {
        char arg0[] = "sleeper", arg1[] = "30";
        char* argv[] = {arg0, arg1, nullptr};
        if (::posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, environ) != 0) pid = -1;
    }
    ~Child() {
        if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
    }
};

bool ExeOf(pid_t pid, std::string& path, bool& deleted) {
    path = "stale";
    deleted = true;
    return ProcessUtils::GetProcessExePath(static_cast<unsigned int>(pid), path, deleted);
}

TEST(ProcessUtilsTest, ExeOfExitedChild) {
    // An exited child: first a zombie (no executable any more), then reaped.
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) ::_exit(0);
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    std::string path;
    bool deleted;
    const auto gone = [&] { return !ExeOf(pid, path, deleted) && path.empty() && !deleted; };
    EXPECT_TRUE(gone()) << "zombie";
    ASSERT_EQ(::waitpid(pid, nullptr, 0), pid);
    EXPECT_TRUE(gone()) << "reaped";
}

TEST(ProcessUtilsTest, ExeDeletedWhileRunning) {
    // The second name is a trap: a file really named "... (deleted)" is not deleted while it is there.
    for (const char* name : {"sleeper", "sleeper (deleted)"}) {
        TestUtil::TempDir dir;
        const std::string exe = dir / name;
        fs::copy_file("/bin/sleep", exe);
        Child child(exe);
        ASSERT_GT(child.pid, 0) << name;
        std::string path;
        bool deleted;
        // posix_spawn may return before the child runs its new program.
        ASSERT_TRUE(TestUtil::WaitUntil([&] { return ExeOf(child.pid, path, deleted) && path == exe && !deleted; }))
            << name << ": " << path << " deleted " << deleted;
        ASSERT_EQ(::unlink(exe.c_str()), 0);
        EXPECT_TRUE(ExeOf(child.pid, path, deleted) && path == exe && deleted) << name << ": " << path;
    }
}

long long ThreadCpuMs() {
    struct timespec ts {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Burns cpuMs of the calling thread's CPU time, however long that takes.
void Spin(long long cpuMs) {
    for (const long long until = ThreadCpuMs() + cpuMs; ThreadCpuMs() < until;)
        continue;
}

long long Adjust() {
    return InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", 0, 0);
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
        long long slept = -1;
        std::thread worker([&] {
            if (c.started) Adjust();
            c.elsewhere ? std::thread([&] { Spin(c.cpuMs); }).join() : Spin(c.cpuMs);
            slept = Adjust();
        });
        worker.join();
        EXPECT_GE(slept, c.minMs) << c.what;
        EXPECT_LE(slept, c.maxMs) << c.what;
    }
    InnerCpuCtrlUtils::SetCpuShare(0);
}

void Log(Poco::Logger* logger, Message::Priority priority, const std::string& text) {
    logger->log(Message(logger->name(), text, priority, __FILE__, 1234));
}

class LoggerUtilsTest : public ::testing::Test {
protected:
    // Closes the test's files before the folder goes; back to the start-up settings.
    void TearDown() override {
        _utils->UseConsole();
        _utils->SetLevel(Message::PRIO_WARNING);
    }

    LoggerUtils* const _utils = LoggerUtils::GetInstance();
    TestUtil::TempDir _dir;
};

TEST_F(LoggerUtilsTest, LevelReachesEarlierAndLaterLoggers) {
    EXPECT_EQ(_utils->GetLevel(), Message::PRIO_WARNING);  // the default
    // Made outside LoggerUtils with its own level: handing it out aligns it. (A new name on each run.)
    static int run = 0;
    const std::string outsiderName = "level_outsider" + std::to_string(++run);
    Poco::Logger::get("agent." + outsiderName).setLevel(Message::PRIO_FATAL);
    Poco::Logger* early = _utils->GetModuleLogger("level_early", false);
    Poco::Logger* outsider = _utils->GetModuleLogger(outsiderName, false);
    EXPECT_EQ(outsider->getLevel(), Message::PRIO_WARNING);
    const int cases[][2] = {{Message::PRIO_DEBUG, 7}, {Message::PRIO_ERROR, 3}, {100, 8}, {-3, 0}};
    for (const auto& c : cases) {
        _utils->SetLevel(c[0]);
        Poco::Logger* late = _utils->GetModuleLogger("level_late_" + std::to_string(c[0] + 10), false);
        EXPECT_EQ(_utils->GetLevel(), c[1]) << c[0];
        for (Poco::Logger* logger : {early, outsider, late})
            EXPECT_EQ(logger->getLevel(), c[1]) << logger->name();
    }
}

TEST_F(LoggerUtilsTest, RotatingFile) {
    const std::string path = _dir / "agent.log";
    ASSERT_TRUE(_utils->UseRotatingFile(path, 300, 2));
    Poco::Logger* logger = _utils->GetModuleLogger("file_mod", false);
    for (int i = 0; i < 40; ++i)
        Log(logger, Message::PRIO_WARNING, "record-" + std::to_string(i));
    Log(logger, Message::PRIO_INFORMATION, "below-level");

    const std::string live = ReadAll(path);
    // Time with milliseconds, priority, source logger, file:line, text.
    EXPECT_TRUE(std::regex_search(live, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} .*)"
                                                   R"(Warning.*file_mod.*SdkTest\.cpp:1234.*record-39\n)")))
        << live;
    EXPECT_FALSE(Contains(live, "below-level")) << live;
    // Rotated past 300 bytes, two archives kept (POCO purges the oldest by file time): bounded disk use.
    std::size_t archives = 0;
    for (const auto& entry : fs::directory_iterator(_dir.path())) {
        EXPECT_LT(entry.file_size(), 600u) << entry.path();
        archives += entry.path().filename().string().rfind("agent.log.", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(archives, 2u);

    // A file that cannot be opened keeps the current one.
    EXPECT_FALSE(_utils->UseRotatingFile(_dir / "no/such/agent.log"));
    Log(logger, Message::PRIO_ERROR, "after-bad-file");
    EXPECT_TRUE(Contains(ReadAll(path), "after-bad-file"));
}

TEST_F(LoggerUtilsTest, OwnFileBesideAgentLog) {
    // Asked for before any file is configured: gets its file when one is.
    Poco::Logger* early = _utils->GetModuleLogger("own_early", true);
    ASSERT_TRUE(_utils->UseRotatingFile(_dir / "agent.log"));
    Poco::Logger* own = _utils->GetModuleLogger("own_mod", true);
    ASSERT_EQ(_utils->GetModuleLogger("own_mod", false), own);  // asked again without ownFile: unchanged
    Poco::Logger* common = _utils->GetModuleLogger("common_mod", false);
    for (Poco::Logger* logger : {early, own, common})
        Log(logger, Message::PRIO_ERROR, "from " + logger->name());

    const std::string agent = ReadAll(_dir / "agent.log");
    EXPECT_TRUE(Contains(agent, "from agent.common_mod") && !Contains(agent, "from agent.own")) << agent;
    const std::string ownLog = ReadAll(_dir / "own_mod.log");
    EXPECT_TRUE(Contains(ownLog, "from agent.own_mod") && !Contains(ownLog, "from agent.common_mod")) << ownLog;
    EXPECT_TRUE(Contains(ReadAll(_dir / "own_early.log"), "from agent.own_early"));

    // Back on the console (the default), from warning up, no record reaches the files any more.
    _utils->UseConsole();
    ::testing::internal::CaptureStderr();
    Log(own, Message::PRIO_WARNING, "own-on-console");
    Log(common, Message::PRIO_INFORMATION, "info-on-console");
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(Contains(err, "own-on-console") && !Contains(err, "info-on-console")) << err;
    EXPECT_FALSE(Contains(ReadAll(_dir / "own_mod.log"), "own-on-console"));
}

TEST(ConfigUtilsTest, IntValueTable) {
    const int def = -777;
    const struct {
        const char *key, *value;
        int expected;
    } cases[] = {
        {"plain", "42", 42},   {"negative", "-5", -5},     {"plus", "+9", 9},     {"inline", "20  # percent", 20},
        {"alpha", "abc", def}, {"trailing", "12abc", def}, {"float", "1.5", def}, {"over", "2147483648", def},
        {"signs", "+-3", def}, {"ref", "${plain}", def},
    };
    TestUtil::TempDir dir;
    std::string text = "# hidden = 5\n! hidden2 = 6\n";
    for (const auto& c : cases)
        text += std::string(c.key) + " = " + c.value + "\n";
    WriteFile(dir / "test.conf", text);
    ConfigUtils config;
    ASSERT_TRUE(config.LoadConfigFile(dir / "test.conf"));
    for (const auto& c : cases)
        EXPECT_EQ(config.GetIntValue(c.key, def), c.expected) << c.key;
    for (const char* key : {"hidden", "hidden2", "missing", "PLAIN"})
        EXPECT_EQ(config.GetIntValue(key, def), def);

    // A failed load drops what was loaded before.
    for (const std::string& bad : {dir / "missing", dir.path(), std::string("/dev/null")}) {
        ASSERT_TRUE(config.LoadConfigFile(dir / "test.conf"));
        EXPECT_FALSE(config.LoadConfigFile(bad)) << bad;
        EXPECT_EQ(config.GetIntValue("plain", def), def) << bad;
    }
}

TEST(ConfigManagerTest, RangeTable) {
    const struct {
        const char* content;
        int inotify, cpu;
        bool ok;
    } cases[] = {
        // content nullptr: no file
        {"inotify = 30\ncpu = 20\n", 30, 20, true},
        {"inotify = 1\ncpu = 100\n", 1, 100, true},
        {"#inotify = 50\n", 0, 0, true},
        {"inotify = 0\ncpu = 0\n", 0, 0, true},
        {"inotify = 101\ncpu = 20\n", 0, 20, false},
        {"inotify = -1\ncpu = 20\n", 0, 20, false},
        {"inotify = abc\ncpu = 50\n", 0, 50, false},
        {"inotify = 30\ncpu = 20%\n", 30, 0, false},
        {"inotify =\n", 0, 0, false},
        {nullptr, 0, 0, false},
    };
    TestUtil::TempDir dir;
    const std::string path = dir / "resource.conf";
    auto* manager = ConfigManager::GetInstance();
    for (const auto& c : cases) {
        c.content != nullptr ? WriteFile(path, c.content) : (void)::unlink(path.c_str());
        manager->SetResourceConfig(ResourceConfig{55, 55});  // an earlier load must not shine through
        SCOPED_TRACE(c.content != nullptr ? c.content : "no file");
        EXPECT_EQ(manager->LoadResourceConfig(path), c.ok);
        EXPECT_EQ(manager->GetResourceConfig().inotifyPercent, c.inotify);
        EXPECT_EQ(manager->GetResourceConfig().cpuPercent, c.cpu);
    }

    // From <installation>/conf/resource.conf, and the file shipped in the tree.
    ASSERT_EQ(::mkdir((dir / "conf").c_str(), 0755), 0);
    WriteFile(dir / "conf/resource.conf", "inotify = 12\ncpu = 34\n");
    PathUtils::SetInstallationPath(dir.path());
    EXPECT_TRUE(manager->LoadFromInstallation() && manager->GetResourceConfig().cpuPercent == 34);
    PathUtils::SetInstallationPath("");
    EXPECT_TRUE(manager->LoadResourceConfig(FN_SOURCE_DIR "/conf/resource.conf"));
    EXPECT_EQ(manager->GetResourceConfig().inotifyPercent, 30);
    EXPECT_EQ(manager->GetResourceConfig().cpuPercent, 0);
    manager->SetResourceConfig(ResourceConfig());
}

}  // namespace
