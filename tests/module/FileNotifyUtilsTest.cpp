#include <fcntl.h>
#include <linux/capability.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "FileNotifyUtils.h"
#include "TestUtil.h"
#include "framework/UniqueFd.h"

using Engine::FileNotifyUtils;
using Framework::UniqueFd;
using TestUtil::TempDir;
using Limit = FileNotifyUtils::_FolderTraverseLimit;
using Paths = std::vector<std::string>;

namespace {

void MakeDirs(const TempDir& dir, const Paths& names) {
    for (const auto& name : names)
        ASSERT_EQ(0, ::mkdir((dir / name).c_str(), 0755)) << name;
}

// Capabilities belong to a thread: without the permission bypasses in this
// thread's effective set, mode bits bind under root too. Raised again at the end.
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
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved[2]{};
    bool dropped = false;
};

}  // namespace

TEST(FileNotifyUtilsTest, IgnoreWatchEvent) {
    const std::vector<unsigned int> wanted{IN_CREATE, IN_DELETE, 0x80000000u};
    EXPECT_TRUE(FileNotifyUtils::IsIgnoreWatchEvent(-1, {}));  // an empty list drops everything
    EXPECT_TRUE(FileNotifyUtils::IsIgnoreWatchEvent(IN_MODIFY, wanted));
    EXPECT_FALSE(FileNotifyUtils::IsIgnoreWatchEvent(IN_CREATE | IN_ISDIR, wanted));
    EXPECT_FALSE(FileNotifyUtils::IsIgnoreWatchEvent(IN_DELETE, wanted));
    EXPECT_FALSE(FileNotifyUtils::IsIgnoreWatchEvent(static_cast<int>(0x80000000u), wanted));  // the sign bit
}

TEST(FileNotifyUtilsTest, IgnoreWatchObjectTable) {
    TempDir tmp;
    MakeDirs(tmp, {"z.log"});
    Engine::_FileNotifyOpt byPath;
    byPath.ignorePath = {"/a/b"};
    Engine::_FileNotifyOpt byExt;
    byExt.ignoreFileExt = {".log", "txt", "an-ending-longer-than-the-path"};
    const struct {
        std::string path;
        bool recursive;
        const Engine::_FileNotifyOpt& opt;
        bool ignored;
    } cases[] = {
        {"/a/b", true, byPath, true},         {"/a/bc/x", true, byPath, true},  // a byte prefix
        {"/a/", true, byPath, false},         {"/c/a/b", true, byPath, false},
        {"/a/b/x", false, byPath, false},  // prefixes apply to recursive watches only
        {"/x/y.log", false, byExt, true},     {"/x/y.log", true, byExt, true},
        {"/x/atxt", false, byExt, true},      {"/x/y.LOG", false, byExt, false},
        {tmp / "z.log", false, byExt, false},  // a folder never matches by ending
    };
    for (const auto& c : cases) {
        Engine::_FileNotifyOpt opt = c.opt;
        opt.watchChildFolder = c.recursive;
        EXPECT_EQ(c.ignored, FileNotifyUtils::IsIgnoreWatchObject(c.path, opt)) << c.path << " " << c.recursive;
    }
}

TEST(FileNotifyUtilsTest, FormatFolderNameAndFilePathByFd) {
    TempDir tmp;
    MakeDirs(tmp, {"dir"});
    std::ofstream(tmp / "file") << "x";
    ASSERT_EQ(0, ::symlink((tmp / "dir").c_str(), (tmp / "link").c_str()));
    const std::string dir = tmp / "dir";
    const std::pair<std::string, std::string> cases[] = {
        {"  " + dir + "  ", dir + "/"},
        {dir + "/", dir + "/"},
        {tmp / "link", tmp / "link/"},
        {tmp / "file", tmp / "file"},
        {"   ", ""},
        {"\t" + dir, "\t" + dir},  // only " " is trimmed
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.second, FileNotifyUtils::FormatFolderName(c.first)) << c.first;

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

// root/a/b/c with links in c: "up" loops back to the root, the others lead
// to a file and nowhere. Root is level 1, so c is level 4.
TEST(FileNotifyUtilsTest, TraverseDepthOrderAndLinks) {
    TempDir tmp;
    MakeDirs(tmp, {"a", "a/b", "a/b/c"});
    std::ofstream(tmp / "f") << "x";
    ASSERT_EQ(0, ::symlink(tmp.path().c_str(), (tmp / "a/b/c/up").c_str()));
    ASSERT_EQ(0, ::symlink((tmp / "f").c_str(), (tmp / "a/b/c/to_f").c_str()));
    ASSERT_EQ(0, ::symlink((tmp / "gone").c_str(), (tmp / "a/b/c/dangling").c_str()));
    const std::string a = tmp / "a/", b = a + "b/", c = b + "c/";
    const struct {
        int maxDepth;
        bool watchSymLink;
        int result;
        Paths out;
    } cases[] = {
        {3, false, 1, {}},
        {4, false, 0, {c, b, a}},  // deepest first
        {4, true, 0, {c + "up/", c, b, a}},
    };
    for (const auto& row : cases) {
        Paths out;
        Limit limit{row.maxDepth, 0, 0};
        EXPECT_EQ(row.result, FileNotifyUtils::TraverseSubFolder(tmp.path(), out, limit, row.watchSymLink));
        EXPECT_EQ(row.out, out) << row.maxDepth << " " << row.watchSymLink;
        EXPECT_EQ(4, limit.visitedCount) << "links are never entered";
    }
}

// A folder that cannot be opened aborts the walk; an entry that cannot be
// lstat'ed (its folder is readable but not searchable) is skipped.
TEST(FileNotifyUtilsTest, TraverseAbortsOnUnreadableFolderAndSkipsUnstatableEntry) {
    TempDir tmp;
    MakeDirs(tmp, {"abort", "abort/locked", "skip", "skip/ok", "skip/ro", "skip/ro/inner"});
    ASSERT_EQ(0, ::chmod((tmp / "abort/locked").c_str(), 0));
    ASSERT_EQ(0, ::chmod((tmp / "skip/ro").c_str(), 0444));
    DropPermissionBypass asUnprivileged;
    if (UniqueFd(::open((tmp / "abort/locked").c_str(), O_RDONLY | O_CLOEXEC)).valid()) {
        GTEST_SKIP() << "mode 000 does not stop opening a folder here";
    }
    Paths out;
    Limit limit{20, 0, 0}, again{20, 0, 0};
    EXPECT_EQ(1, FileNotifyUtils::TraverseSubFolder(tmp / "abort/", out, limit, false));
    EXPECT_EQ(Paths{}, out);
    EXPECT_EQ(0, FileNotifyUtils::TraverseSubFolder(tmp / "skip/", out, again, false));
    std::sort(out.begin(), out.end());
    EXPECT_EQ((Paths{tmp / "skip/ok/", tmp / "skip/ro/"}), out);
    ::chmod((tmp / "skip/ro").c_str(), 0755);  // so that TempDir can empty it without root
}
