#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "FileNotifyLog.h"
#include "FileNotifyMask.h"
#include "FileNotifyPath.h"
#include "FileNotifyUtils.h"
#include "LogCapture.h"
#include "TestUtil.h"
#include "framework/UniqueFd.h"

using Engine::FileNotifyPath;
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

}  // namespace

// Event bits select, flags never do; a fanotify folder event also needs the
// folder flag; unmount and overflow reach every consumer.
TEST(FileNotifyUtilsTest, IgnoreWatchEventPassesOnlyWhatWasAskedFor) {
    using M = Engine::FileNotifyMask;
    const struct {
        std::vector<unsigned int> wanted;
        unsigned int event;
        bool fanotify;
        bool passes;
    } cases[] = {
        {{}, IN_CREATE, false, false},  // an empty list drops everything
        {{IN_CREATE, IN_DELETE}, IN_CREATE | IN_ISDIR, false, true},
        {{IN_CREATE, IN_DELETE}, IN_MODIFY, false, false},
        {{IN_MODIFY | IN_ISDIR}, IN_CREATE | IN_ISDIR, false, false},       // the folder flag selects nothing
        {{IN_MODIFY | IN_ISDIR}, IN_DELETE_SELF | IN_ISDIR, false, false},  // nor do self events the engine adds
        {{IN_MODIFY | IN_ONESHOT}, static_cast<unsigned int>(IN_ONESHOT), false, false},  // the sign bit
        {{IN_ISDIR}, IN_CREATE | IN_ISDIR, false, false},
        {{IN_MODIFY}, IN_UNMOUNT, false, true},
        {{IN_MODIFY}, IN_Q_OVERFLOW, false, true},
        {{IN_MODIFY}, IN_IGNORED, false, false},
        {{FAN_CLOSE_WRITE | FAN_EVENT_ON_CHILD}, FAN_CLOSE_WRITE, true, true},
        {{FAN_OPEN | FAN_EVENT_ON_CHILD}, FAN_CLOSE_NOWRITE, true, false},
        {{FAN_OPEN}, FAN_OPEN | FAN_ONDIR, true, false},  // fanotify reports folders to FAN_ONDIR only
        {{FAN_OPEN, FAN_ONDIR}, FAN_OPEN | FAN_ONDIR, true, true},
        {{FAN_OPEN | FAN_ONDIR}, FAN_CLOSE_NOWRITE | FAN_ONDIR, true, false},
        {{FAN_OPEN_PERM}, FAN_OPEN_PERM, true, true},
        {{FAN_OPEN_PERM}, FAN_ACCESS_PERM, true, false},
        {{M::kOpenExec}, FAN_OPEN_EXEC | FAN_OPEN, true, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(!c.passes, FileNotifyUtils::IsIgnoreWatchEvent(static_cast<int>(c.event), c.wanted, c.fanotify))
            << std::hex << c.event << " fanotify " << c.fanotify;
    }
}

// Each bit has one name; every name that may be asked for gives its bits back.
TEST(FileNotifyUtilsTest, MaskTableNamesEveryBitOnce) {
    using M = Engine::FileNotifyMask;
    unsigned int named = 0;
    unsigned int events = 0;
    for (const auto& entry : M::Table()) {
        if (entry.kind == M::Kind::Alias) {
            EXPECT_EQ(entry.bits, entry.bits & M::kEventBits) << entry.name;
        } else {
            EXPECT_EQ(0u, entry.bits & (entry.bits - 1)) << entry.name << " is not one bit";
            EXPECT_EQ(0u, named & entry.bits) << entry.name << " is named twice";
            named |= entry.bits;
        }
        if (entry.kind == M::Kind::Event) events |= entry.bits;
        if (entry.requestable) {
            EXPECT_EQ(entry.bits, M::BitsOfName(entry.name)) << entry.name;
        }
    }
    EXPECT_EQ(M::kEventBits, events);
    EXPECT_EQ(0u, M::BitsOfName("isdir"));  // a flag is no request
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
        EXPECT_EQ(c.second, FileNotifyPath::FormatFolderName(c.first)) << c.first;

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

// root/a/b/c with links in c: to the root, to "/", to a file and to nowhere.
// Root is level 1, so c is level 4. Links are never entered nor listed.
TEST(FileNotifyUtilsTest, TraverseDepthOrderAndLinks) {
    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    TempDir tmp;
    MakeDirs(tmp, {"a", "a/b", "a/b/c"});
    std::ofstream(tmp / "f") << "x";
    ASSERT_EQ(0, ::symlink(tmp.path().c_str(), (tmp / "a/b/c/up").c_str()));
    ASSERT_EQ(0, ::symlink("/", (tmp / "a/b/c/slash").c_str()));
    ASSERT_EQ(0, ::symlink((tmp / "f").c_str(), (tmp / "a/b/c/to_f").c_str()));
    ASSERT_EQ(0, ::symlink((tmp / "gone").c_str(), (tmp / "a/b/c/dangling").c_str()));
    const std::string a = tmp / "a/", b = a + "b/", c = b + "c/";
    const struct {
        int maxDepth;
        bool watchSymLink;
        Paths out;
        int visited;
    } cases[] = {
        {3, false, {b, a}, 3},     // c is skipped, the rest is kept
        {4, false, {c, b, a}, 4},  // deepest first
        {4, true, {c, b, a}, 4},
    };
    for (const auto& row : cases) {
        Paths out;
        Limit limit{row.maxDepth, 0, 0};
        EXPECT_EQ(0, FileNotifyUtils::TraverseSubFolder(tmp.path(), out, limit, row.watchSymLink));
        EXPECT_EQ(row.out, out) << row.maxDepth << " " << row.watchSymLink;
        EXPECT_EQ(row.visited, limit.visitedCount);
        EXPECT_EQ(0, limit.depth);
    }
    EXPECT_EQ((std::vector<std::string>{"TraverseSubFolder skips " + c + ": deeper than MAX_DEPTH 3"}),
              log.Texts(Engine::LOG_WARNING));
}

// Past what it cannot read the walk goes on: a folder it may not open, an
// entry it may not stat (its folder is readable but not searchable), a path
// that would reach PATH_MAX. Only a root it cannot open fails the walk.
TEST(FileNotifyUtilsTest, TraverseSkipsWhatItCannotWalkAndGoesOn) {
    TempDir tmp;
    MakeDirs(tmp, {"locked", "ok", "ok/deeper", "ro", "ro/inner", "long"});
    // Parts of 250 bytes: the 17th folder below long/ would pass PATH_MAX.
    const std::string part(250, 'p');
    std::string longest = tmp / "long/";
    {
        UniqueFd at(::open(longest.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (int level = 0; level < 17 && at.valid(); ++level) {
            ASSERT_EQ(0, ::mkdirat(at.get(), part.c_str(), 0755));
            at.reset(::openat(at.get(), part.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            longest += part + "/";
        }
        ASSERT_TRUE(at.valid());
    }
    ASSERT_EQ(0, ::chmod((tmp / "locked").c_str(), 0));
    ASSERT_EQ(0, ::chmod((tmp / "ro").c_str(), 0444));
    const TestUtil::AtScopeEnd cleanUp([&] {
        ::chmod((tmp / "ro").c_str(), 0755);  // so that TempDir can empty it without root
        // Too long for a path: emptied from the inside through descriptors.
        std::vector<UniqueFd> chain;
        chain.emplace_back(::open((tmp / "long").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (int level = 0; level < 16 && chain.back().valid(); ++level)
            chain.emplace_back(::openat(chain.back().get(), part.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        for (; !chain.empty(); chain.pop_back())
            ::unlinkat(chain.back().get(), part.c_str(), AT_REMOVEDIR);
    });
    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    TestUtil::DropPermissionBypass asUnprivileged;
    if (UniqueFd(::open((tmp / "locked").c_str(), O_RDONLY | O_CLOEXEC)).valid()) {
        GTEST_SKIP() << "mode 000 does not stop opening a folder here";
    }
    Paths out;
    Limit limit{20, 0, 0};
    EXPECT_EQ(0, FileNotifyUtils::TraverseSubFolder(tmp.path(), out, limit, false));
    const std::size_t listedLong = std::count_if(out.begin(), out.end(), [&](const std::string& path) {
        return FileNotifyUtils::HasPrefix(path, tmp / "long/");
    });
    EXPECT_EQ(17u, listedLong);  // long/ and 16 below it
    out.erase(std::remove_if(out.begin(), out.end(),
                             [&](const std::string& path) { return FileNotifyUtils::HasPrefix(path, tmp / "long"); }),
              out.end());
    std::sort(out.begin(), out.end());
    EXPECT_EQ((Paths{tmp / "ok/", tmp / "ok/deeper/", tmp / "ro/"}), out);
    // The two that could not be read share one warning: the second came within the second.
    const auto warnings = log.Texts(Engine::LOG_WARNING);
    ASSERT_EQ(2u, warnings.size()) << log.Dump();
    EXPECT_NE(std::count(warnings.begin(), warnings.end(),
                         "TraverseSubFolder skips " + longest + ": its path is longer than PATH_MAX"),
              0);
    EXPECT_EQ(0u, log.Count(Engine::LOG_ERROR)) << log.Dump();

    Limit root{20, 0, 0};
    EXPECT_EQ(1, FileNotifyUtils::TraverseSubFolder(tmp / "locked/", out, root, false));
    EXPECT_TRUE(log.Has(Engine::LOG_ERROR, "dir == NULL"));
}
