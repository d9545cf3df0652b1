#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FileNotifyLog.h"
#include "FileNotifyUtils.h"
#include "LogCapture.h"
#include "TestUtil.h"
#include "framework/UniqueFd.h"

using Engine::FileNotifyUtils;
using Engine::LOG_DEBUG;
using Engine::LOG_ERROR;
using TestUtil::LogCapture;
using TestUtil::TempDir;
using Limit = FileNotifyUtils::_FolderTraverseLimit;
using Paths = std::vector<std::string>;

namespace {

void MakeDirs(const TempDir& dir, const Paths& names) {
    for (const auto& name : names) ASSERT_EQ(0, ::mkdir((dir / name).c_str(), 0755)) << name;
}

void Touch(const std::string& path) { std::ofstream(path) << "x"; }

void Link(const std::string& target, const std::string& link) {
    ASSERT_EQ(0, ::symlink(target.c_str(), link.c_str())) << link;
}

Paths Sorted(Paths paths) {
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::ptrdiff_t IndexOf(const Paths& paths, const std::string& path) {
    return std::find(paths.begin(), paths.end(), path) - paths.begin();
}

// Capabilities belong to a thread: dropping the permission bypasses from this
// thread's effective set makes mode bits bind even when the tests run as root.
// The permitted set keeps them, so the destructor can raise them again.
class DropFilePermissionBypass {
public:
    DropFilePermissionBypass() {
        if (::syscall(SYS_capget, &_header, _saved) != 0) return;
        __user_cap_data_struct lowered[2];
        std::memcpy(lowered, _saved, sizeof lowered);
        lowered[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
        _dropped = ::syscall(SYS_capset, &_header, lowered) == 0;
    }
    ~DropFilePermissionBypass() {
        if (_dropped) ::syscall(SYS_capset, &_header, _saved);
    }

private:
    __user_cap_header_struct _header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct _saved[2]{};
    bool _dropped = false;
};

}  // namespace

TEST(FileNotifyUtilsTest, LoggerIsTheModuleLoggerAndCached) {
    Poco::Logger* logger = FileNotifyUtils::GetLoggerPtr();
    ASSERT_NE(nullptr, logger);
    EXPECT_NE(std::string::npos, logger->name().find("filenotify_module"));
    EXPECT_EQ(logger, FileNotifyUtils::GetLoggerPtr());
}

TEST(FileNotifyUtilsTest, IgnoreWatchEventTable) {
    const std::vector<unsigned int> createDelete{IN_CREATE, IN_DELETE};
    struct Case {
        const char* name;
        int mask;
        std::vector<unsigned int> wanted;
        bool ignored;
    } cases[] = {
        {"empty list drops create", IN_CREATE, {}, true},
        {"empty list drops everything", -1, {}, true},
        {"create on a folder is wanted", static_cast<int>(IN_CREATE | IN_ISDIR), createDelete, false},
        {"second entry matches", IN_DELETE, createDelete, false},
        {"modify is not asked for", IN_MODIFY, createDelete, true},
        {"no bits at all", 0, createDelete, true},
        {"sign bit compares as a bit", static_cast<int>(0x80000000u), {0x80000000u}, false},
    };
    for (const auto& c : cases) EXPECT_EQ(c.ignored, FileNotifyUtils::IsIgnoreWatchEvent(c.mask, c.wanted)) << c.name;
}

TEST(FileNotifyUtilsTest, FormatFolderNameTable) {
    TempDir tmp;
    MakeDirs(tmp, {"dir"});
    Touch(tmp / "file");
    Link(tmp / "dir", tmp / "dirlink");
    const std::string dir = tmp / "dir";
    struct Case {
        std::string in;
        std::string out;
    } cases[] = {
        {"  " + dir + "  ", dir + "/"},
        {dir + "/", dir + "/"},
        {tmp / "dirlink", tmp / "dirlink/"},
        {tmp / "file", tmp / "file"},
        {tmp / "missing", tmp / "missing"},
        {"    ", ""},
        {"", ""},
        {"\t" + dir, "\t" + dir},  // only " " is trimmed
        {" /tmp ", "/tmp/"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.out, FileNotifyUtils::FormatFolderName(c.in)) << "[" << c.in << "]";
}

TEST(FileNotifyUtilsTest, ExistenceAndLinkFolderTable) {
    TempDir tmp;
    MakeDirs(tmp, {"dir"});
    Touch(tmp / "file");
    Link(tmp / "dir", tmp / "to_dir");
    Link(tmp / "file", tmp / "to_file");
    Link(tmp / "gone", tmp / "dangling");
    Link("to_self", tmp / "to_self");
    // stat() resolves a relative target against the link's folder, where it
    // exists; IsLinkFolder resolves it against the working directory, where
    // this unique name does not.
    const std::string relativeName = tmp.path().substr(5, tmp.path().size() - 6) + "_rel";
    MakeDirs(tmp, {relativeName});
    Link(relativeName, tmp / "relative");
    struct Case {
        std::string name;
        bool exists;
        bool linkFolder;
    } cases[] = {
        {"to_dir", true, true},   {"to_file", true, false},   {"dangling", false, false},
        {"to_self", false, false}, {"dir", true, false},       {"file", true, false},
        {"missing", false, false}, {"relative", true, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.exists, FileNotifyUtils::IsExistFilePath(tmp / c.name)) << c.name;
        EXPECT_EQ(c.linkFolder, FileNotifyUtils::IsLinkFolder(tmp / c.name)) << c.name;
    }
}

TEST(FileNotifyUtilsTest, LinkFolderLogsWhyItFailed) {
    TempDir tmp;
    MakeDirs(tmp, {"dir"});
    LogCapture log;
    EXPECT_FALSE(FileNotifyUtils::IsLinkFolder(tmp / "missing"));
    EXPECT_TRUE(log.Has(LOG_ERROR, "No find file " + tmp / "missing")) << log.Dump();
    EXPECT_FALSE(FileNotifyUtils::IsLinkFolder(tmp / "dir"));
    EXPECT_TRUE(log.Has(LOG_ERROR, "Failed to call  readlink for " + tmp / "dir" + ", errno=" +
                                       std::to_string(EINVAL)))
        << log.Dump();
}

TEST(FileNotifyUtilsTest, IgnoreWatchObjectTable) {
    TempDir tmp;
    MakeDirs(tmp, {"z.log"});
    Engine::_FileNotifyOpt byPath;
    byPath.ignorePath = {"/a/b"};
    Engine::_FileNotifyOpt byExt;
    byExt.ignoreFileExt = {".log", "txt", "a-very-long-ending-longer-than-the-path"};
    struct Case {
        const char* name;
        std::string path;
        bool recursive;
        const Engine::_FileNotifyOpt& opt;
        bool ignored;
    } cases[] = {
        {"prefix itself", "/a/b", true, byPath, true},
        {"byte prefix, not a folder prefix", "/a/bc/x", true, byPath, true},
        {"below the prefix", "/a/b/x", true, byPath, true},
        {"shorter than the prefix", "/a/", true, byPath, false},
        {"other tree", "/c/a/b", true, byPath, false},
        {"prefix needs a recursive watch", "/a/b/x", false, byPath, false},
        {"ending", "/x/y.log", false, byExt, true},
        {"ending applies to recursive watches too", "/x/y.log", true, byExt, true},
        {"ending without dot", "/x/atxt", false, byExt, true},
        {"ending is case-sensitive", "/x/y.LOG", false, byExt, false},
        {"folder is never matched by ending", tmp / "z.log/", false, byExt, false},
        {"folder without slash either", tmp / "z.log", false, byExt, false},
    };
    for (const auto& c : cases) {
        Engine::_FileNotifyOpt opt = c.opt;
        opt.watchChildFolder = c.recursive;
        EXPECT_EQ(c.ignored, FileNotifyUtils::IsIgnoreWatchObject(c.path, opt)) << c.name;
    }

    LogCapture log;
    byPath.watchChildFolder = true;
    ASSERT_TRUE(FileNotifyUtils::IsIgnoreWatchObject("/a/b/x", byPath));
    ASSERT_TRUE(FileNotifyUtils::IsIgnoreWatchObject("/x/y.log", byExt));
    EXPECT_TRUE(log.Has(LOG_DEBUG, "IsIgnoreWatchObject  eventFile=/a/b/x,ignorePath=/a/b")) << log.Dump();
    EXPECT_TRUE(log.Has(LOG_DEBUG, "IsIgnoreWatchObject  eventFile=/x/y.log,ignoreFileExt=.log")) << log.Dump();
}

TEST(FileNotifyUtilsTest, TraverseStopsBelowMaxDepthWithRootAsLevelOne) {
    TempDir tmp;
    MakeDirs(tmp, {"a", "a/b", "a/b/c"});
    {
        LogCapture log;
        Paths out;
        Limit limit{3, 0, 0};
        EXPECT_EQ(1, FileNotifyUtils::TraverseSubFolder(tmp.path(), out, limit, false));
        EXPECT_TRUE(log.Has(LOG_ERROR, "limitData.depth 4 > MAX_DEPTH 3")) << log.Dump();
        EXPECT_TRUE(log.Has(LOG_ERROR, "failed to TraverseSubFolder  " + tmp / "a/b/c/")) << log.Dump();
        EXPECT_EQ(4, limit.visitedCount);
    }
    Paths out{"kept"};
    Limit limit{4, 0, 0};
    ASSERT_EQ(0, FileNotifyUtils::TraverseSubFolder(tmp.path(), out, limit, false));
    EXPECT_EQ((Paths{"kept", tmp / "a/b/c/", tmp / "a/b/", tmp / "a/"}), out);
    EXPECT_EQ(0, limit.depth);
    EXPECT_EQ(4, limit.visitedCount);
}

TEST(FileNotifyUtilsTest, TraverseListsPostOrderAndLinksOnlyOnRequest) {
    TempDir tmp;
    MakeDirs(tmp, {"a", "a/x", "a/y", "b"});
    Touch(tmp / "f");
    Link(tmp / "a", tmp / "to_a");   // listed, never entered
    Link(tmp.path(), tmp / "b/up");  // a loop back to the root
    Link(tmp / "f", tmp / "to_f");
    Link(tmp / "gone", tmp / "dangling");
    const Paths folders{tmp / "a/x/", tmp / "a/y/", tmp / "a/", tmp / "b/"};
    struct Case {
        bool watchSymLink;
        Paths expected;
    } cases[] = {
        {false, folders},
        {true, {tmp / "a/x/", tmp / "a/y/", tmp / "a/", tmp / "b/", tmp / "b/up/", tmp / "to_a/"}},
    };
    for (const auto& c : cases) {
        Paths out;
        Limit limit{20, 0, 0};
        ASSERT_EQ(0, FileNotifyUtils::TraverseSubFolder(tmp.path(), out, limit, c.watchSymLink));
        EXPECT_EQ(Sorted(c.expected), Sorted(out)) << "watchSymLink=" << c.watchSymLink;
        EXPECT_LT(IndexOf(out, tmp / "a/x/"), IndexOf(out, tmp / "a/"));
        EXPECT_LT(IndexOf(out, tmp / "a/y/"), IndexOf(out, tmp / "a/"));
        EXPECT_EQ(5, limit.visitedCount);  // root, a, a/x, a/y, b: links are not entered
    }
}

TEST(FileNotifyUtilsTest, TraverseAbortsOnUnreadableSubfolder) {
    TempDir tmp;
    MakeDirs(tmp, {"open", "locked"});
    ASSERT_EQ(0, ::chmod((tmp / "locked").c_str(), 0));
    DropFilePermissionBypass asUnprivileged;
    if (DIR* probe = ::opendir((tmp / "locked").c_str())) {
        ::closedir(probe);
        GTEST_SKIP() << "mode 000 does not stop opendir here (permission bypass could not be dropped)";
    }
    LogCapture log;
    Paths out;
    Limit limit{20, 0, 0};
    EXPECT_EQ(1, FileNotifyUtils::TraverseSubFolder(tmp.path(), out, limit, false));
    EXPECT_TRUE(log.Has(LOG_ERROR, "dir == NULL")) << log.Dump();
    EXPECT_TRUE(log.Has(LOG_ERROR, "failed to TraverseSubFolder  " + tmp / "locked/")) << log.Dump();
    ::chmod((tmp / "locked").c_str(), 0755);
}

TEST(FileNotifyUtilsTest, TraverseOfMissingFolderFails) {
    TempDir tmp;
    LogCapture log;
    Paths out;
    Limit limit{20, 0, 0};
    EXPECT_EQ(1, FileNotifyUtils::TraverseSubFolder(tmp / "vanished/", out, limit, true));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(1, limit.visitedCount);
    EXPECT_TRUE(log.Has(LOG_ERROR, "dir == NULL")) << log.Dump();
}

// An entry that cannot be lstat'ed is skipped, unlike a folder that cannot be
// opened. A path longer than PATH_MAX is the one such entry that can be made
// reliably: the walk's root sits just below the limit and the entry crosses it.
TEST(FileNotifyUtilsTest, TraverseSkipsEntryThatCannotBeStated) {
    TempDir tmp;
    std::string root = tmp.path();
    const std::string component(250, 'd');
    while (root.size() + component.size() + 1 < 4040) {
        root += component + "/";
        ASSERT_EQ(0, ::mkdir(root.c_str(), 0755));
    }
    MakeDirs(tmp, {root.substr(tmp.path().size()) + "s"});
    Framework::UniqueFd rootFd(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(rootFd.valid());
    const std::string longName(200, 'n');
    ASSERT_EQ(0, ::mkdirat(rootFd.get(), longName.c_str(), 0755));

    Paths out;
    Limit limit{20, 0, 0};
    EXPECT_EQ(0, FileNotifyUtils::TraverseSubFolder(root, out, limit, false));
    EXPECT_EQ(Paths{root + "s/"}, out);
    ::unlinkat(rootFd.get(), longName.c_str(), AT_REMOVEDIR);
}

TEST(FileNotifyUtilsTest, FilePathByFdTable) {
    TempDir tmp;
    MakeDirs(tmp, {"dir"});
    Touch(tmp / "file");
    Framework::UniqueFd fileFd(::open((tmp / "file").c_str(), O_RDONLY | O_CLOEXEC));
    Framework::UniqueFd dirFd(::open((tmp / "dir").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(fileFd.valid() && dirFd.valid());
    // A descriptor number far above the ones in use, closed again at once.
    const int closedFd = ::fcntl(fileFd.get(), F_DUPFD_CLOEXEC, 900);
    ASSERT_GE(closedFd, 900);
    ::close(closedFd);

    LogCapture log;
    struct Case {
        int fd;
        int result;
        std::string path;
    } cases[] = {
        {fileFd.get(), 0, tmp / "file"},
        {dirFd.get(), 0, tmp / "dir/"},
        {0, 1, "unchanged"},
        {-1, 1, "unchanged"},
        {closedFd, 1, "unchanged"},
    };
    for (const auto& c : cases) {
        std::string path = "unchanged";
        EXPECT_EQ(c.result, FileNotifyUtils::GetFilePathByFd(c.fd, path)) << c.fd;
        EXPECT_EQ(c.path, path) << c.fd;
    }
    EXPECT_TRUE(log.Has(LOG_ERROR, "Invalid FD 0")) << log.Dump();
    EXPECT_TRUE(log.Has(LOG_ERROR, "Failed to call  readlink for /proc/self/fd/" + std::to_string(closedFd) +
                                       ", errno=" + std::to_string(ENOENT)))
        << log.Dump();
}
