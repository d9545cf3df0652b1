#include <algorithm>
#include <cstdint>
#include <cstring>
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

using Engine::InotifyCallBackParm;
using Engine::LOG_ERROR;
using Engine::LOG_WARNING;
using TestUtil::MakeDir;
using TestUtil::Touch;

namespace {

// One inotify instance read on the test thread.
class FileInotifyTest : public ::testing::Test {
protected:
    static int Collect(const InotifyCallBackParm& p, void* self) {
        static_cast<FileInotifyTest*>(self)->got.push_back(p);  // its event pointer is not kept valid
        return 0;
    }
    int Add(const std::string& path, bool recursive, bool followLinks = false) {
        int id = 0;
        const int result =
            inotify.AddWatch(path, IN_ALL_EVENTS, id, recursive, followLinks, !recursive && path.back() != '/');
        return result == 0 ? id : -result;
    }
    int Read() {
        got.clear();
        return inotify.ReadEvents(buffer, sizeof buffer, &Collect, this);
    }
    // The event records for this path.
    std::vector<InotifyCallBackParm> For(const std::string& path) const {
        std::vector<InotifyCallBackParm> out;
        std::copy_if(got.begin(), got.end(), std::back_inserter(out),
                     [&](const auto& r) { return r.type == InotifyCallBackParm::TYPE_EVENT && r.filePath == path; });
        return out;
    }
    long Count(int type) const {
        return std::count_if(got.begin(), got.end(), [&](const auto& r) { return r.type == type; });
    }
    int Used() const { return limit.GetLimitWatches() - limit.GetPermitWatchSize(); }

    TestUtil::LogCapture log{Engine::GetLoggerPtr()};  // first in, last out
    TestUtil::TempDir dir;
    Engine::FileNotifyLimit limit;
    Engine::FileInotify inotify{&limit};
    std::vector<InotifyCallBackParm> got;
    alignas(struct inotify_event) char buffer[5120];
};

// A recursive watch covers the folders of its tree, also those that come
// later, and no others: links are not entered even when followed, and
// folders moved out are let go. Events come with the root's watch and the
// real path.
TEST_F(FileInotifyTest, ATreeWatchCoversItsOwnFoldersOnly) {
    TestUtil::TempDir outside;
    for (const std::string& folder :
         {dir / "a", dir / "a/b", dir / "gone", dir / "gone/below", outside / "in", outside / "in/deeper"})
        MakeDir(folder);
    for (const auto& [target, link] : {std::pair<std::string, const char*>{dir.path(), "a/loop"},
                                       {outside.path(), "a/out"},
                                       {dir / "a/b", "a/to_b"},
                                       {dir / "no", "a/dangling"}})
        ASSERT_EQ(0, ::symlink(target.c_str(), (dir / link).c_str())) << link;
    const int single = Add(dir.path(), false);
    EXPECT_EQ(1, Used());
    EXPECT_FALSE(inotify.PathInSubFolderMap(dir / "a/"));
    // Nothing was read yet: no batch-end record either.
    EXPECT_EQ(0, inotify.ReadEvents(buffer, sizeof buffer, &Collect, this));
    EXPECT_TRUE(got.empty());
    ASSERT_EQ(0, inotify.RemoveWatch(single));

    const int root = Add(dir.path(), true, true);
    ASSERT_GT(root, 0) << log.Dump();
    EXPECT_EQ(5, Used());
    // One burst (as mkdir -p): the walk of x/ at the end of the batch finds y/.
    MakeDir(dir / "x");
    MakeDir(dir / "x/y");
    TestUtil::Rename(outside / "in", dir / "in");
    TestUtil::Rename(dir / "gone", outside / "gone");
    ASSERT_EQ(0, Read());
    for (const char* sub : {"a/", "a/b/", "x/", "x/y/", "in/", "in/deeper/"})
        EXPECT_TRUE(inotify.PathInSubFolderMap(dir / sub)) << sub << "\n" << log.Dump();
    for (const char* sub : {"a/loop/", "a/to_b/", "gone/below/"})
        EXPECT_FALSE(inotify.PathInSubFolderMap(dir / sub)) << sub;
    EXPECT_EQ(7, Used());

    for (const std::string& file :
         {outside / "o", outside / "gone/below/z", dir / "x/y/f", dir / "in/deeper/f", dir / "a/b/f"})
        Touch(file);
    ASSERT_EQ(0, Read());
    std::vector<std::string> created;
    for (const auto& r : got) {
        if (r.type != InotifyCallBackParm::TYPE_EVENT || (r.mask & IN_CREATE) == 0) continue;
        created.push_back(r.filePath);
        EXPECT_EQ(root, r.rootWd);
        EXPECT_EQ(inotify.GetFd(), r.fd);
    }
    EXPECT_EQ((std::vector<std::string>{dir / "x/y/f", dir / "in/deeper/f", dir / "a/b/f"}), created) << log.Dump();
    EXPECT_EQ(1, Count(InotifyCallBackParm::TYPE_BATCH_END));
}

TEST_F(FileInotifyTest, TooDeepTreesAreCut) {
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
    EXPECT_TRUE(For(dir / "r/sub/").empty());  // its own self event makes no record
    std::vector<unsigned int> masks;           // the parent's records do
    for (const auto& r : For(dir / "r/sub"))
        masks.push_back(r.mask);
    EXPECT_EQ((std::vector<unsigned int>{IN_ATTRIB | IN_ISDIR, IN_DELETE | IN_ISDIR}), masks) << log.Dump();
    EXPECT_FALSE(inotify.PathInSubFolderMap(dir / "r/sub/"));
    EXPECT_EQ(1, Used());

    ASSERT_EQ(0, ::rmdir((dir / "r").c_str()));
    ASSERT_EQ(0, Read());
    const auto self = For(dir / "r/");
    ASSERT_EQ(1u, self.size()) << log.Dump();
    EXPECT_EQ(IN_DELETE_SELF | IN_ISDIR, self[0].mask);
    ASSERT_EQ(InotifyCallBackParm::TYPE_ROOT_REMOVED, got.back().type);
    EXPECT_EQ(root, got.back().removedWd);
    EXPECT_EQ(InotifyCallBackParm::TYPE_BATCH_END, got[got.size() - 2].type);
    EXPECT_EQ(0, Used());
}

TEST_F(FileInotifyTest, RemovingWatches) {
    MakeDir(dir / "a");
    const int tree = Add(dir.path(), true);
    ASSERT_EQ(0, ::rmdir((dir / "a").c_str()));
    // Removal before the batch is read: the subfolder's kernel watch is gone,
    // which a changing tree does all the time: no warning.
    EXPECT_EQ(0, inotify.RemoveWatch(tree));
    EXPECT_EQ(0, log.Count(LOG_WARNING)) << log.Dump();
    EXPECT_EQ(0, Used());
    // Its queued events now name watches nobody knows: logged and dropped.
    ASSERT_EQ(0, Read());
    EXPECT_EQ(0, Count(InotifyCallBackParm::TYPE_EVENT));
    EXPECT_TRUE(log.Has(LOG_ERROR, "No find the WatchRootItem for rootWd=" + std::to_string(tree))) << log.Dump();

    // Keeping the kernel's root watch removes only the bookkeeping.
    EXPECT_EQ(0, inotify.RemoveWatch(Add(dir.path(), false), false));
    EXPECT_EQ(0, Used());
    Touch(dir / "x");
    ASSERT_EQ(0, Read());
    EXPECT_EQ(0, Count(InotifyCallBackParm::TYPE_EVENT));
    EXPECT_EQ(1, Count(InotifyCallBackParm::TYPE_BATCH_END));
}

// Raw buffers: what the decoder does with records the kernel would not write.
TEST_F(FileInotifyTest, DecoderCopesWithDamagedBuffers) {
    const int root = Add(dir.path(), false);
    std::string raw;
    const auto add = [&](int wd, std::uint32_t mask, const std::string& name = "", std::uint32_t len = 0) {
        if (len == 0 && !name.empty()) len = (name.size() + 16) / 16 * 16;
        const inotify_event header{wd, mask, 0, len};
        raw.append(reinterpret_cast<const char*>(&header), sizeof header).append(name.substr(0, len));
        raw.append(len - std::min<std::size_t>(name.size(), len), '\0');
    };
    const auto decode = [&](std::size_t cut = 0) {
        got.clear();
        std::memcpy(buffer, raw.data(), raw.size());
        EXPECT_EQ(0, inotify.DoWithEvents(buffer, static_cast<int>(raw.size() - cut), &Collect, this));
        std::vector<std::string> names;
        for (const auto& r : got)
            names.push_back(r.filePath.substr(dir.path().size()));
        raw.clear();
        return names;
    };
    using Names = std::vector<std::string>;
    add(root, IN_CREATE, "one");
    add(root, IN_CREATE, "two");
    EXPECT_EQ(Names{"one"}, decode(4));
    EXPECT_TRUE(log.Has(LOG_ERROR, "bad inotify record at offset 32 of 60 bytes")) << log.Dump();
    add(root, IN_CREATE, "odd", 5);  // misaligns the next
    add(root, IN_CREATE, "two");
    EXPECT_EQ(Names{"odd"}, decode());
    EXPECT_TRUE(log.Has(LOG_ERROR, "bad inotify record at offset 21 of 53 bytes")) << log.Dump();
}

}  // namespace
