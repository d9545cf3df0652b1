#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "FileNotifyLimit.h"
#include "FileNotifyLog.h"
#include "FileNotifyMask.h"
#include "FileNotifyPath.h"
#include "FileNotifyUtils.h"
#include "FileNotifyWatchData.h"
#include "LogCapture.h"
#include "TestUtil.h"
#include "framework/ConfigManager.h"
#include "framework/UniqueFd.h"
#include "sdk/PathUtils.h"

using Engine::FileNotifyLimit;
using Engine::FileNotifyUtils;
using Engine::FileNotifyWatchData;
using Framework::UniqueFd;
using TestUtil::MakeDir;
using TestUtil::TempDir;

// Event bits select, flags never do; a fanotify folder event also needs the
// folder flag.
TEST(FileNotifyUtilsTest, IgnoreWatchEventPassesOnlyWhatWasAskedFor) {
    const auto passes = [](std::vector<unsigned int> wanted, unsigned int event, bool fanotify = false) {
        return !FileNotifyUtils::IsIgnoreWatchEvent(static_cast<int>(event), wanted, fanotify);
    };
    EXPECT_FALSE(passes({}, IN_CREATE));
    EXPECT_FALSE(passes({IN_MODIFY | IN_ONESHOT}, IN_ONESHOT));  // the sign bit
    EXPECT_FALSE(passes({IN_MODIFY | IN_ISDIR}, IN_CREATE | IN_ISDIR));
    EXPECT_FALSE(passes({FAN_OPEN}, FAN_OPEN | FAN_ONDIR, true));
    EXPECT_TRUE(passes({FAN_OPEN, FAN_ONDIR}, FAN_OPEN | FAN_ONDIR, true));
    EXPECT_FALSE(passes({FAN_OPEN | FAN_ONDIR}, FAN_CLOSE_NOWRITE | FAN_ONDIR, true));
    EXPECT_TRUE(passes({Engine::FileNotifyMask::kOpenExec}, FAN_OPEN_EXEC | FAN_OPEN, true));
}

TEST(FileNotifyUtilsTest, IgnoreWatchObject) {
    TempDir tmp;
    MakeDir(tmp / "z.log");
    Engine::_FileNotifyOpt opt;
    opt.ignorePath = {"/a/b"};
    opt.watchChildFolder = true;
    EXPECT_TRUE(FileNotifyUtils::IsIgnoreWatchObject("/a/bc/x", opt));  // a byte prefix
    EXPECT_FALSE(FileNotifyUtils::IsIgnoreWatchObject("/c/a/b", opt));
    opt.watchChildFolder = false;  // prefixes apply to recursive watches only
    EXPECT_FALSE(FileNotifyUtils::IsIgnoreWatchObject("/a/b/x", opt));
    opt.ignoreFileExt = {".log", "txt", "an-ending-longer-than-the-path"};
    EXPECT_TRUE(FileNotifyUtils::IsIgnoreWatchObject("/x/atxt", opt));
    EXPECT_FALSE(FileNotifyUtils::IsIgnoreWatchObject("/x/y.LOG", opt));
    EXPECT_FALSE(FileNotifyUtils::IsIgnoreWatchObject(tmp / "z.log", opt));  // a folder never matches by ending
}

TEST(FileNotifyUtilsTest, FormatFolderNameAndFilePathByFd) {
    TempDir tmp;
    MakeDir(tmp / "dir");
    std::ofstream(tmp / "file") << "x";
    ASSERT_EQ(0, ::symlink((tmp / "dir").c_str(), (tmp / "link").c_str()));
    const std::string dir = tmp / "dir";
    const std::pair<std::string, std::string> cases[] = {
        {"  " + dir + "  ", dir + "/"}, {tmp / "link", tmp / "link/"}, {tmp / "file", tmp / "file"}, {"   ", ""},
        {"\t" + dir, "\t" + dir},  // only " " is trimmed
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.second, Engine::FileNotifyPath::FormatFolderName(c.first)) << c.first;

    UniqueFd file(::open((tmp / "file").c_str(), O_RDONLY | O_CLOEXEC));
    UniqueFd folder(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int closed = ::fcntl(file.get(), F_DUPFD_CLOEXEC, 900);  // a free number, closed again
    ASSERT_TRUE(file.valid() && folder.valid() && closed >= 900 && ::close(closed) == 0);
    std::string path = "kept";
    EXPECT_EQ(1, FileNotifyUtils::GetFilePathByFd(0, path));  // never standard input
    EXPECT_EQ(1, FileNotifyUtils::GetFilePathByFd(closed, path));
    EXPECT_EQ("kept", path);
    EXPECT_EQ(0, FileNotifyUtils::GetFilePathByFd(folder.get(), path));
    EXPECT_EQ(dir + "/", path);
    EXPECT_EQ(0, FileNotifyUtils::GetFilePathByFd(file.get(), path));
    EXPECT_EQ(tmp / "file", path);
}

// Past what it cannot read the walk goes on: a folder it may not open, an
// entry it may not stat (its folder is readable but not searchable). Only a
// root it cannot open fails the walk.
TEST(FileNotifyUtilsTest, TraverseSkipsWhatItCannotWalkAndGoesOn) {
    TempDir tmp;
    for (const char* name : {"locked", "ok", "ok/deeper", "ro", "ro/inner"})
        MakeDir(tmp / name);
    ASSERT_EQ(0, ::chmod((tmp / "locked").c_str(), 0));
    ASSERT_EQ(0, ::chmod((tmp / "ro").c_str(), 0444));
    // So that TempDir can empty it without root.
    const TestUtil::AtScopeEnd cleanUp([&] { ::chmod((tmp / "ro").c_str(), 0755); });
    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    TestUtil::DropPermissionBypass asUnprivileged;
    if (UniqueFd(::open((tmp / "locked").c_str(), O_RDONLY | O_CLOEXEC)).valid()) {
        GTEST_SKIP() << "mode 000 does not stop opening a folder here";
    }
    std::vector<std::string> out;
    FileNotifyUtils::_FolderTraverseLimit limit{20, 0, 0};
    EXPECT_EQ(0, FileNotifyUtils::TraverseSubFolder(tmp.path(), out, limit, false));
    std::sort(out.begin(), out.end());
    EXPECT_EQ((std::vector<std::string>{tmp / "ok/", tmp / "ok/deeper/", tmp / "ro/"}), out);
    EXPECT_EQ(0, limit.depth);
    // The two that could not be read share one warning: the second came within the second.
    EXPECT_EQ(1u, log.Count(Engine::LOG_WARNING)) << log.Dump();
    EXPECT_EQ(0u, log.Count(Engine::LOG_ERROR)) << log.Dump();

    EXPECT_EQ(1, FileNotifyUtils::TraverseSubFolder(tmp / "locked/", out, limit, false));
    EXPECT_TRUE(log.Has(Engine::LOG_ERROR, "dir == NULL"));
}

// Kernel limit files of our own. The framework's percentage is used at
// start, conf/resource.conf of the installation when the limit is scaled
// again; 30 % when neither says. Both go back to their defaults afterwards.
TEST(FileNotifyLimitTest, PercentOfTheKernelValuesFromTheConfiguration) {
    TempDir proc, install;
    const FileNotifyLimit::KernelFiles files{proc / "instances", proc / "file-max", proc / "watches"};
    const TestUtil::AtScopeEnd restore([] {
        Framework::ConfigManager::GetInstance()->SetResourceConfig({});
        SDK::PathUtils::SetInstallationPath("");
    });
    const auto limitsAt = [&](int percent) {
        Framework::ConfigManager::GetInstance()->SetResourceConfig({percent, 0});
        FileNotifyLimit limit(files);
        return std::vector<int>{limit.GetLimitInstances(), limit.GetPermitFileSize(), limit.GetLimitWatches()};
    };
    const auto kernel = [&](const char* instances, const char* fileMax, const char* watches) {
        std::ofstream(files.maxUserInstances) << instances;
        std::ofstream(files.fileMax) << fileMax;
        std::ofstream(files.maxUserWatches) << watches;
    };
    kernel("", "x", "0");
    EXPECT_EQ((std::vector<int>{10, 1024, 1024}), limitsAt(50));  // unreadable values keep the defaults
    kernel("  128 max", "100000\n", "8192 ");
    EXPECT_EQ((std::vector<int>{38, 30000, 2457}), limitsAt(0));
    EXPECT_EQ((std::vector<int>{64, 50000, 4096}), limitsAt(50));

    // Scaled again, the framework's 80 % no longer counts.
    ASSERT_EQ(6553, limitsAt(80)[2]);
    MakeDir(install / "conf");
    SDK::PathUtils::SetInstallationPath(install.path());
    const std::string conf = install / "conf/resource.conf";
    for (const auto& [text, watches] : std::vector<std::pair<const char*, int>>{
             {"inotify = 50\n", 4096}, {"inotify = -10\n", 2457}, {nullptr, 2457}}) {
        ::unlink(conf.c_str());
        if (text != nullptr) std::ofstream(conf) << text;
        FileNotifyLimit limit(files);
        limit.AutoScaleLimit();
        EXPECT_EQ(watches, limit.GetLimitWatches()) << (text != nullptr ? text : "no file");
    }
}

TEST(FileNotifyWatchData, EventPathMatching) {
    const struct {
        const char* event;
        const char* watch;
        bool recursive;
        bool matches;
    } cases[] = {
        {"/a/", "/a/", false, true},   {"/a/b", "/a/", false, true},   {"/a/b/c", "/a/", false, false},
        {"/a/b/c", "/a/", true, true}, {"/ab", "/a", false, false},    {"/a/b", "/a", false, false},
        {"/a", "/a/", false, false},   {"/a/b/", "/a/", false, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.matches, FileNotifyWatchData::IsEventFileMatchedWatchFile(c.event, c.watch, c.recursive))
            << c.event << " in " << c.watch << (c.recursive ? " (recursive)" : "");
}

TEST(FileNotifyWatchData, PathMapsKeepTheFirstWatchAndSortByWhatThePathWas) {
    TempDir dir;
    TestUtil::Touch(dir / "file");
    FileNotifyWatchData data;
    data.AddWatch(new Engine::Notify_WatchItem{1, 0x2, 3, 1, dir / "file", {}});
    data.AddWatch(new Engine::Notify_WatchItem{1, 0x2, 3, 2, dir / "missing", {}});
    data.AddWatch(new Engine::Notify_WatchItem{2, 0x2, 4, 7, dir / "file", {}});  // the same path in another instance
    EXPECT_EQ(std::make_pair(3, 1), data.GetFileWatchMap().at(dir / "file"));
    EXPECT_EQ(1u, data.GetFolderWatchMap().count(dir / "missing"));
    // A missing path is looked for in both maps; once it is a file, only in
    // the file map, where it never was.
    EXPECT_NE(nullptr, data.GetModuleFileWatch(1, dir / "missing"));
    TestUtil::Touch(dir / "missing");
    EXPECT_EQ(nullptr, data.GetModuleFileWatch(1, dir / "missing"));

    // Emptying either key erases the path entry by name, records of the other stay.
    data.RemoveWatch(2, 4, 7);
    EXPECT_EQ(0u, data.GetFileWatchMap().count(dir / "file"));
    FileNotifyWatchData::WatchItemList list;
    data.GetWatchItemList(3, 1, list);
    EXPECT_EQ(1u, list.size());
}
