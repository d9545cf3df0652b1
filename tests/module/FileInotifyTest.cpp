#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FileInotify.h"
#include "FileNotifyLimit.h"
#include "FileNotifyLog.h"
#include "InotifyTestUtil.h"
#include "LogCapture.h"
#include "TestUtil.h"

using Engine::FileInotify;
using Engine::InotifyCallBackParm;
using Engine::LOG_DEBUG;
using Engine::LOG_ERROR;
using Engine::LOG_WARNING;
using TestUtil::InotifyCollector;
using TestUtil::MakeDir;
using TestUtil::Touch;

namespace {

class FileInotifyTest : public ::testing::Test {
protected:
    int Add(const std::string& path, bool recursive, bool followLinks = false) {
        int id = 0;
        const int result =
            inotify.AddWatch(path, IN_ALL_EVENTS, id, recursive, followLinks, !recursive && path.back() != '/');
        return result == 0 ? id : -result;
    }
    int Read() {
        got.records.clear();
        return inotify.ReadEvents(buffer, sizeof buffer, &InotifyCollector::Callback, &got);
    }
    int Used() const { return limit.GetLimitWatches() - limit.GetPermitWatchSize(); }

    TestUtil::LogCapture log{Engine::GetLoggerPtr()};  // first in, last out
    TestUtil::TempDir dir;
    Engine::FileNotifyLimit limit;
    FileInotify inotify{&limit};
    InotifyCollector got;
    alignas(struct inotify_event) char buffer[5120];
};

TEST_F(FileInotifyTest, RecursiveWatchCoversTheTreeAndReportsItsSize) {
    MakeDir(dir / "a");
    MakeDir(dir / "a/b");
    MakeDir(dir / "a/b/c");
    Touch(dir / "a/file");
    const int root = Add(dir.path(), true);
    ASSERT_GT(root, 0) << log.Dump();
    EXPECT_EQ(4, Used());  // the root and three folders; files need no watch
    for (const char* sub : {"a/", "a/b/", "a/b/c/"})
        EXPECT_TRUE(inotify.PathInSubFolderMap(dir / sub)) << sub;

    // An event in the deepest folder comes with the root's watch and the full path.
    Touch(dir / "a/b/c/new file");
    ASSERT_EQ(0, Read());
    const auto created = got.For(dir / "a/b/c/new file");
    ASSERT_FALSE(created.empty()) << log.Dump();
    EXPECT_EQ(root, created[0].rootWd);
    EXPECT_EQ(inotify.GetFd(), created[0].fd);
    EXPECT_EQ(IN_CREATE, created[0].mask);
    EXPECT_EQ(1, got.Count(InotifyCallBackParm::TYPE_BATCH_END));

    EXPECT_EQ(0, inotify.RemoveWatch(root));
    EXPECT_EQ(0, Used());
    EXPECT_FALSE(inotify.PathInSubFolderMap(dir / "a/"));
}

TEST_F(FileInotifyTest, SingleWatchesAddOneKernelWatch) {
    MakeDir(dir / "a");
    Touch(dir / "f");
    EXPECT_GT(Add(dir.path(), false), 0);
    EXPECT_GT(Add(dir / "f", false), 0);
    EXPECT_EQ(2, Used());
    EXPECT_FALSE(inotify.PathInSubFolderMap(dir / "a/"));
    // Nothing was read yet: no batch-end record either.
    EXPECT_EQ(0, inotify.ReadEvents(buffer, sizeof buffer, &InotifyCollector::Callback, &got));
    EXPECT_TRUE(got.records.empty());
}

TEST_F(FileInotifyTest, TooLargeTreesAreRefusedBeforeAnyWatchTooDeepOnesAreCut) {
    // Six further watches allowed; the kernel files say the same when re-read.
    TestUtil::TempDir kernel;
    std::ofstream(kernel / "watches") << "20\n";
    Engine::FileNotifyLimit::KernelFiles files;
    files.maxUserWatches = kernel / "watches";
    Engine::FileNotifyLimit small(files);
    small.CalculateLimitParam(30, 0, 0, 20);
    FileInotify limited(&small);
    for (int i = 0; i < 6; ++i)
        MakeDir(dir / ("d" + std::to_string(i)));
    int id = 0;
    EXPECT_EQ(1, limited.AddWatch(dir.path(), IN_CREATE, id, true, false, false));
    EXPECT_TRUE(log.Has(LOG_ERROR, "new Watch size 7 is over than max size  6")) << log.Dump();
    const Engine::WatchFailure& failure = limited.LastFailure();
    EXPECT_EQ(Engine::WatchFailure::Reason::LimitReached, failure.reason);
    EXPECT_EQ((std::vector<int>{7, 6, 20, 30}),
              (std::vector<int>{failure.needed, failure.allowed, failure.kernelLimit, failure.percent}));
    EXPECT_EQ(6, small.GetPermitWatchSize());

    // The root is level 1: levels 2 to 20 are watched, 21 is named and cut.
    std::string deep = dir / "deep/";
    std::string cut;
    MakeDir(deep);
    for (int level = 2; level <= 22; ++level) {
        deep += "l/";
        MakeDir(deep);
        if (level == 21) cut = deep;
    }
    EXPECT_GT(Add(dir / "deep/", true), 0);
    EXPECT_TRUE(log.Has(LOG_WARNING, "TraverseSubFolder skips " + cut + ": deeper than MAX_DEPTH 20")) << log.Dump();
    EXPECT_EQ(20, Used());
}

TEST_F(FileInotifyTest, SelfEventsOfSubfoldersAndRootsAreTold) {
    MakeDir(dir / "r");
    MakeDir(dir / "r/sub");
    const int root = Add(dir / "r/", true);
    ASSERT_GT(root, 0);

    ASSERT_EQ(0, ::chmod((dir / "r/sub").c_str(), 0700));  // attributes of a subfolder itself: dropped
    ASSERT_EQ(0, ::rmdir((dir / "r/sub").c_str()));
    ASSERT_EQ(0, Read());
    EXPECT_TRUE(got.For(dir / "r/sub/").empty());  // its own self event makes no record
    std::vector<unsigned int> masks;               // the parent's records do
    for (const auto& r : got.For(dir / "r/sub"))
        masks.push_back(r.mask);
    EXPECT_EQ((std::vector<unsigned int>{IN_ATTRIB | IN_ISDIR, IN_DELETE | IN_ISDIR}), masks) << log.Dump();
    EXPECT_FALSE(inotify.PathInSubFolderMap(dir / "r/sub/"));
    EXPECT_EQ(1, Used());

    ASSERT_EQ(0, ::rmdir((dir / "r").c_str()));
    ASSERT_EQ(0, Read());
    const auto self = got.For(dir / "r/");
    ASSERT_EQ(1u, self.size()) << log.Dump();
    EXPECT_EQ(IN_DELETE_SELF | IN_ISDIR, self[0].mask);
    ASSERT_EQ(InotifyCallBackParm::TYPE_ROOT_REMOVED, got.records.back().type);
    EXPECT_EQ(root, got.records.back().removedWd);
    EXPECT_EQ(InotifyCallBackParm::TYPE_BATCH_END, got.records[got.records.size() - 2].type);
    EXPECT_EQ(0, Used());
}

TEST_F(FileInotifyTest, TreeFollowsFoldersCreatedMovedInAndMovedOut) {
    TestUtil::TempDir outside;
    MakeDir(outside / "in");
    MakeDir(outside / "in/deeper");
    MakeDir(dir / "gone");
    MakeDir(dir / "gone/below");
    const int root = Add(dir.path(), true);
    ASSERT_GT(root, 0);

    // One burst (as mkdir -p): the walk of a/ at the end of the batch finds b/ and c/.
    MakeDir(dir / "a");
    MakeDir(dir / "a/b");
    MakeDir(dir / "a/b/c");
    TestUtil::Rename(outside / "in", dir / "in");
    TestUtil::Rename(dir / "gone", outside / "gone");
    ASSERT_EQ(0, Read());
    for (const char* sub : {"a/", "a/b/", "a/b/c/", "in/", "in/deeper/"})
        EXPECT_TRUE(inotify.PathInSubFolderMap(dir / sub)) << sub << "\n" << log.Dump();
    EXPECT_FALSE(inotify.PathInSubFolderMap(dir / "gone/"));
    EXPECT_FALSE(inotify.PathInSubFolderMap(dir / "gone/below/"));
    EXPECT_EQ(6, Used());

    Touch(dir / "a/b/c/x");
    Touch(dir / "in/deeper/y");
    Touch(outside / "gone/below/z");
    ASSERT_EQ(0, Read());
    EXPECT_FALSE(got.For(dir / "a/b/c/x").empty());
    EXPECT_FALSE(got.For(dir / "in/deeper/y").empty());
    for (const auto& r : got.records)
        EXPECT_EQ(std::string::npos, r.path.find("below")) << r.path;
}

// Following links, a tree still ends at its own folders: a link back to the
// root, out of the tree or to a folder of the tree is an entry, not entered,
// and events keep the real paths.
TEST_F(FileInotifyTest, FollowedLinksNeverLeaveTheTree) {
    TestUtil::TempDir outside;
    MakeDir(dir / "a");
    MakeDir(dir / "b");
    ASSERT_EQ(0, ::symlink(dir.path().c_str(), (dir / "a/loop").c_str()));
    ASSERT_EQ(0, ::symlink(outside.path().c_str(), (dir / "a/out").c_str()));
    ASSERT_EQ(0, ::symlink((dir / "b").c_str(), (dir / "a/to_b").c_str()));
    const int root = Add(dir.path(), true, true);
    ASSERT_GT(root, 0) << log.Dump();
    EXPECT_EQ(3, Used());
    for (const char* link : {"a/loop/", "a/out/", "a/to_b/"})
        EXPECT_FALSE(inotify.PathInSubFolderMap(dir / link)) << link;
    Touch(outside / "o");
    Touch(dir / "x");
    Touch(dir / "b/y");
    ASSERT_EQ(0, Read());
    std::vector<std::string> paths;
    for (const auto& r : got.records)
        if (r.type == InotifyCallBackParm::TYPE_EVENT && (r.mask & IN_CREATE) != 0) paths.push_back(r.path);
    EXPECT_EQ((std::vector<std::string>{dir / "x", dir / "b/y"}), paths) << log.Dump();
    EXPECT_EQ(root, got.For(dir / "x")[0].rootWd);
}

TEST_F(FileInotifyTest, RemovingWatchesTheKernelDroppedIsNoError) {
    MakeDir(dir / "a");
    const int root = Add(dir.path(), true);
    ASSERT_EQ(0, ::rmdir((dir / "a").c_str()));
    // Removal before the batch is read: the subfolder's kernel watch is gone,
    // which a changing tree does all the time: no warning.
    EXPECT_EQ(0, inotify.RemoveWatch(root));
    EXPECT_EQ(0, log.Count(LOG_WARNING)) << log.Dump();
    EXPECT_EQ(0, Used());
    // Its queued events now name watches nobody knows: logged and dropped.
    ASSERT_EQ(0, Read());
    EXPECT_EQ(0, got.Count(InotifyCallBackParm::TYPE_EVENT));
    EXPECT_TRUE(log.Has(LOG_ERROR, "No find the WatchRootItem for rootWd=" + std::to_string(root))) << log.Dump();
}

TEST_F(FileInotifyTest, KeepRootWatchRemovesOnlyTheBookkeeping) {
    const int root = Add(dir.path(), false);
    EXPECT_EQ(0, inotify.RemoveWatch(root, false));
    EXPECT_EQ(0, Used());
    Touch(dir / "x");  // the kernel still reports on the root
    ASSERT_EQ(0, Read());
    EXPECT_EQ(0, got.Count(InotifyCallBackParm::TYPE_EVENT));
    EXPECT_EQ(1, got.Count(InotifyCallBackParm::TYPE_BATCH_END));
}

// Raw buffers: what the decoder does with records the kernel would not write.
TEST_F(FileInotifyTest, DecoderCopesWithDamagedBuffers) {
    const int root = Add(dir.path(), false);
    const int unknown = root + 1000;
    struct Case {
        const char* name;
        TestUtil::RawInotifyBuffer buffer;
        std::vector<std::string> delivered;
        const char* errorText;
    };
    std::vector<Case> cases;
    cases.push_back({"ignored unknown watch", TestUtil::RawInotifyBuffer().Add(unknown, IN_IGNORED), {}, nullptr});
    cases.push_back(
        {"overflow in the middle",
         TestUtil::RawInotifyBuffer().Add(root, IN_CREATE, "one").Add(-1, IN_Q_OVERFLOW).Add(root, IN_CREATE, "three"),
         {"one", "(overflow)"},
         "IN_Q_OVERFLOW inotify queue overflow"});
    cases.push_back({"cut record",
                     TestUtil::RawInotifyBuffer().Add(root, IN_CREATE, "one").Add(root, IN_CREATE, "two").Cut(4),
                     {"one"},
                     "bad inotify record at offset 32 of 60 bytes"});
    cases.push_back({"odd length misaligns the next",
                     TestUtil::RawInotifyBuffer().Add(root, IN_CREATE, "odd", 5).Add(root, IN_CREATE, "two"),
                     {"odd"},
                     "bad inotify record at offset 21 of 53 bytes"});
    cases.push_back(
        {"unknown watch", TestUtil::RawInotifyBuffer().Add(unknown, IN_CREATE, "x"), {}, "call DoWithEvent failed"});
    for (auto& c : cases) {
        got.records.clear();
        TestUtil::LogCapture caseLog(Engine::GetLoggerPtr());
        EXPECT_EQ(0, inotify.DoWithEvents(c.buffer.data(), c.buffer.size(), &InotifyCollector::Callback, &got));
        std::vector<std::string> delivered;
        for (const auto& r : got.records)
            delivered.push_back(
                r.type == Engine::InotifyCallBackParm::TYPE_OVERFLOW ? "(overflow)" : r.path.substr(dir.path().size()));
        EXPECT_EQ(c.delivered, delivered) << c.name;
        if (c.errorText != nullptr) {
            EXPECT_TRUE(caseLog.Has(LOG_ERROR, c.errorText)) << c.name << "\n" << caseLog.Dump();
        } else {
            EXPECT_EQ(0, caseLog.Count(LOG_ERROR)) << c.name << "\n" << caseLog.Dump();
            EXPECT_TRUE(caseLog.Has(LOG_DEBUG, "IN_IGNORED remove watch wd " + std::to_string(unknown)));
        }
    }
}

}  // namespace
