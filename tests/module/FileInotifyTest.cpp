#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>

#include "FileInotify.h"
#include "FileNotifyLimit.h"
#include "FileNotifyLog.h"
#include "FileNotifyMountWatch.h"
#include "InotifyTestUtil.h"
#include "LogCapture.h"
#include "ProbedTask.h"
#include "RecordingConsumer.h"
#include "TestUtil.h"
#include "framework/TaskRunner.h"

using Engine::InotifyCallBackParm;
using Engine::LOG_ERROR;
using Engine::LOG_WARNING;
using TestUtil::MakeDir;
using TestUtil::RecordingConsumer;
using TestUtil::Rename;
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
    // Nothing was read yet: no batch-end record either.
    EXPECT_EQ(0, inotify.ReadEvents(buffer, sizeof buffer, &Collect, this));
    EXPECT_TRUE(got.empty());
    const int root = Add(dir.path(), true, true);
    ASSERT_GT(root, 0) << log.Dump();
    EXPECT_EQ(5, Used());
    // One burst (as mkdir -p): the walk of x/ at the end of the batch finds y/.
    MakeDir(dir / "x");
    MakeDir(dir / "x/y");
    Rename(outside / "in", dir / "in");
    Rename(dir / "gone", outside / "gone");
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

TEST_F(FileInotifyTest, TooLargeTreesAreRefusedBeforeAnyWatchTooDeepOnesAreCut) {
    // Six further watches allowed, also when the kernel's files are read again.
    TestUtil::TempDir kernel;
    std::ofstream(kernel / "watches") << "20\n";
    Engine::FileNotifyLimit::KernelFiles files;
    files.maxUserWatches = kernel / "watches";
    Engine::FileNotifyLimit small(files);
    small.CalculateLimitParam(30, 0, 0, 20);
    Engine::FileInotify limited(&small);
    for (int i = 0; i < 6; ++i)
        MakeDir(dir / ("d" + std::to_string(i)));
    int id = 0;
    EXPECT_EQ(1, limited.AddWatch(dir.path(), IN_CREATE, id, true, false, false));
    EXPECT_EQ(Engine::WatchFailure::Reason::LimitReached, limited.LastFailure().reason);
    EXPECT_EQ(0, TestUtil::KernelInotifyWatches());

    // The root is level 1: levels 2 to 20 are watched, 21 is named and cut.
    std::string deep = dir / "deep/", cut;
    MakeDir(deep);
    for (int level = 2; level <= 22; ++level) {
        MakeDir(deep += "l/");
        if (level == 21) cut = deep;
    }
    EXPECT_GT(Add(dir / "deep/", true), 0);
    EXPECT_TRUE(log.Has(LOG_WARNING, "TraverseSubFolder skips " + cut + ": deeper than MAX_DEPTH 20")) << log.Dump();
    EXPECT_EQ(20, Used());
}

// A subfolder that goes: its own self events make no record, its parent's
// do. A tree removed before the kernel's word on its gone subfolders is
// read: no warning, and the queued events of its watches are dropped.
TEST_F(FileInotifyTest, VanishingSubfolders) {
    for (const char* sub : {"sub", "other"})
        MakeDir(dir / sub);
    const int root = Add(dir.path(), true);
    ASSERT_EQ(0, ::chmod((dir / "sub").c_str(), 0700));  // attributes of the subfolder itself: dropped
    ASSERT_EQ(0, ::rmdir((dir / "sub").c_str()));
    ASSERT_EQ(0, Read());
    std::vector<std::string> records;
    for (const auto& r : got)
        if (r.type == InotifyCallBackParm::TYPE_EVENT) records.push_back(r.filePath + " " + std::to_string(r.mask));
    EXPECT_EQ((std::vector<std::string>{dir / "sub " + std::to_string(IN_ATTRIB | IN_ISDIR),
                                        dir / "sub " + std::to_string(IN_DELETE | IN_ISDIR)}),
              records);
    EXPECT_FALSE(inotify.PathInSubFolderMap(dir / "sub/"));
    EXPECT_EQ(2, Used());

    ASSERT_EQ(0, ::rmdir((dir / "other").c_str()));
    EXPECT_EQ(0, inotify.RemoveWatch(root));
    EXPECT_EQ(0, log.Count(LOG_WARNING)) << log.Dump();
    EXPECT_EQ(0, Used());
    ASSERT_EQ(0, Read());
    EXPECT_EQ(0, Count(InotifyCallBackParm::TYPE_EVENT));
    EXPECT_TRUE(log.Has(LOG_ERROR, "No find the WatchRootItem for rootWd=" + std::to_string(root))) << log.Dump();
}

// Raw buffers: what the decoder does with records the kernel would not write.
TEST_F(FileInotifyTest, DecoderCopesWithDamagedBuffers) {
    const int root = Add(dir.path(), false);
    std::string raw;
    // A record as the kernel lays it out: the name padded to len bytes.
    const auto add = [&](const std::string& name, std::uint32_t len = 16) {
        const inotify_event header{root, IN_CREATE, 0, len};
        raw.append(reinterpret_cast<const char*>(&header), sizeof header).append(name).append(len - name.size(), '\0');
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
    add("one");
    add("two");
    EXPECT_EQ(std::vector<std::string>{"one"}, decode(4));
    EXPECT_TRUE(log.Has(LOG_ERROR, "bad inotify record at offset 32 of 60 bytes")) << log.Dump();
    add("odd", 5);  // misaligns the next
    add("two");
    EXPECT_EQ(std::vector<std::string>{"odd"}, decode());
    EXPECT_TRUE(log.Has(LOG_ERROR, "bad inotify record at offset 21 of 53 bytes")) << log.Dump();
}

// The module task's inotify side driven on the test thread: the task is
// initialised but not started, so its event waiter is pumped here, while
// two consumer tasks run on their own threads.
class InotifyWatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, task->Init());
        for (auto* runner : {&runnerA, &runnerB})
            ASSERT_EQ(0, runner->Start());
        for (auto* consumer : {a.get(), b.get()})
            ASSERT_EQ(0, task->AddFileNotifyMsgConsumer(consumer->GetTaskId(), consumer));
    }
    void TearDown() override { task->UnInit(); }

    // The watch id, or the negated failure code.
    int Add(RecordingConsumer& who, const std::string& path, unsigned int mask, const Engine::_FileNotifyOpt& opt) {
        int id = 0;
        const int result = task->AddInotifyWatch(who.GetTaskId(), path, mask, opt, id);
        return result == 0 ? id : -result;
    }
    int Add(RecordingConsumer& who, const std::string& path, unsigned int mask, bool recursive = false) {
        return Add(who, path, mask, TestUtil::InotifyOptions(mask, recursive));
    }
    // Runs the callbacks of every readable descriptor until none is left.
    void Pump() {
        while (task->GetEventWaiter().WaitAndHandleEvent(0, 128) > 0) {
        }
    }
    // Pumps until a file made now under folder has reached consumer a:
    // everything the task sent a before it has been received as well.
    void Settle(const std::string& folder) {
        const std::string sentinel = folder + "settled" + std::to_string(++settled);
        Touch(sentinel);
        ASSERT_TRUE(TestUtil::WaitUntil([&] {
            Pump();
            return a->WaitForEvent([&](const auto& e) { return e.path == sentinel; }, std::chrono::milliseconds(0));
        })) << sentinel;
    }
    int settled = 0;
    int UsedWatches() {
        const auto& limit = task->InotifyWatch().GetLimit();
        return limit.GetLimitWatches() - limit.GetPermitWatchSize();
    }

    TestUtil::LogCapture log{Engine::GetLoggerPtr()};
    TestUtil::TempDir dir;
    Poco::AutoPtr<TestUtil::ProbedTask> task{new TestUtil::ProbedTask()};
    Poco::AutoPtr<RecordingConsumer> a{new RecordingConsumer("consumer_a")};
    Poco::AutoPtr<RecordingConsumer> b{new RecordingConsumer("consumer_b")};
    Framework::TaskRunner runnerA{a.get()};
    Framework::TaskRunner runnerB{b.get()};
};

// Within one batch a move out waits for the end of the batch, in case its
// other half comes; a move in goes at once. A watched file replaced by a
// rename is told gone and watched again at once.
TEST_F(InotifyWatchTest, RenamesInAndOutOfWatches) {
    TestUtil::TempDir outside;
    const std::string d = dir.path();
    ASSERT_GT(Add(*a, d, IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO), 0);
    Touch(d + "out");
    Touch(outside / "in");
    Settle(d);
    a->Clear();
    Rename(d + "out", outside / "out");
    Touch(d + "later");
    Rename(outside / "in", d + "in");
    Pump();
    ASSERT_TRUE(a->WaitFor(3));
    EXPECT_EQ((std::vector<std::string>{d + "later 0x100", d + "in 0x80", d + "out 0x40"}), a->Summary());

    ASSERT_GT(Add(*b, d + "in", IN_MODIFY | IN_DELETE_SELF), 0);
    Rename(outside / "out", d + "in");
    Pump();
    ASSERT_TRUE(b->WaitFor(1));
    EXPECT_EQ((std::vector<std::string>{d + "in 0x400"}), b->Summary());
    EXPECT_TRUE(task->PendingWatches().empty());
    std::ofstream(d + "in") << "x";
    Pump();
    ASSERT_TRUE(b->WaitFor(2));
    EXPECT_EQ(d + "in 0x2", b->Summary().back());
}

TEST_F(InotifyWatchTest, ConsumersShareOneKernelWatchWithTheirOwnFilters) {
    const std::string d = dir.path();
    MakeDir(d + "sub");  // not walked by watches of the folder alone
    ASSERT_GT(Add(*a, d, IN_MODIFY), 0);
    Engine::_FileNotifyOpt ignoring = TestUtil::InotifyOptions(IN_CREATE, false);
    ignoring.ignoreFileExt = {".log"};
    ASSERT_GT(Add(*b, d, IN_CREATE, ignoring), 0);
    EXPECT_EQ(1, UsedWatches());

    Touch(d + "x.log");
    std::ofstream(d + "x.txt") << "x";
    Pump();
    ASSERT_TRUE(a->WaitFor(1));
    ASSERT_TRUE(b->WaitFor(1));
    EXPECT_EQ((std::vector<std::string>{d + "x.txt 0x2"}), a->Summary());
    EXPECT_EQ((std::vector<std::string>{d + "x.txt 0x100"}), b->Summary());

    // The kernel watch stays while a consumer still holds it.
    ASSERT_EQ(0, task->RemoveInotifyWatch(a->GetTaskId(), d));
    EXPECT_EQ(1, UsedWatches());
    Touch(d + "y.txt");
    Pump();
    ASSERT_TRUE(b->WaitFor(2));
    EXPECT_EQ(d + "y.txt 0x100", b->Summary().back());
    ASSERT_EQ(0, task->RemoveInotifyWatch(b->GetTaskId(), d));
    EXPECT_EQ(0, UsedWatches());

    // Refused: a path watched already, a folder covered by a tree.
    ASSERT_GT(Add(*a, d, IN_CREATE, true), 0);
    EXPECT_EQ(-1, Add(*a, d, IN_CREATE, true));
    EXPECT_EQ(-1, Add(*b, d + "sub/", IN_CREATE));
    EXPECT_EQ(2, UsedWatches());
    EXPECT_EQ(1, task->RemoveInotifyWatch(b->GetTaskId(), d));
    EXPECT_EQ(0, task->RemoveInotifyWatch(a->GetTaskId(), d));
    EXPECT_EQ(0, TestUtil::KernelInotifyWatches());  // the subfolder's too
}

TEST_F(InotifyWatchTest, AVanishedRootWaitsWithItsFanotifyPart) {
    const std::string root = dir / "r/";
    MakeDir(root);
    MakeDir(root + "sub");
    // Part of the request went to fanotify: that part waits as well.
    Engine::_FileNotifyOpt opt = TestUtil::InotifyOptions(IN_CREATE | IN_DELETE_SELF, true);
    opt.inotifyOnly = false;
    opt.combinedMask = IN_CREATE | IN_DELETE_SELF | IN_OPEN | IN_ISDIR;
    ASSERT_GT(Add(*a, root, IN_CREATE | IN_DELETE_SELF, opt), 0);

    ASSERT_EQ(0, ::rmdir((root + "sub").c_str()));
    ASSERT_EQ(0, ::rmdir(root.c_str()));
    Pump();
    ASSERT_TRUE(a->WaitFor(1));
    EXPECT_EQ((std::vector<std::string>{dir / "r 0x40000400"}), a->Summary());
    std::vector<std::pair<int, unsigned int>> waiting;  // notify type 1: the fanotify part
    for (const auto& pending : task->PendingWatches())
        waiting.emplace_back(pending->notifyType, pending->mask);
    EXPECT_EQ((std::vector<std::pair<int, unsigned int>>{{0, IN_CREATE | IN_DELETE_SELF}, {1, IN_OPEN | IN_ISDIR}}),
              waiting);
    EXPECT_EQ(0, UsedWatches());
    EXPECT_TRUE(task->InotifyWatch().GetWatchData().Empty());
}

TEST_F(InotifyWatchTest, TreeAddsHoldWhileTheTreeChanges) {
    const std::string root = dir / "busy/";
    MakeDir(root);
    TestUtil::Churn churn(root);
    for (int round = 0; round < 20; ++round) {
        const int id = Add(*a, root, IN_CREATE, true);
        ASSERT_GT(id, 0) << "round " << round << "\n" << log.Dump();
        ASSERT_EQ(0, task->RemoveInotifyWatch(a->GetTaskId(), root));
        Pump();
    }
    EXPECT_EQ(0, TestUtil::KernelInotifyWatches());
    EXPECT_EQ(0, log.Count(Engine::LOG_WARNING)) << log.Dump();
}

// mkdir -p bursts with files in the deepest folders, while the tree is read:
// whatever the kernel reported and whatever the refresh found, every new
// folder and file reaches the consumer once.
TEST_F(InotifyWatchTest, NewFoldersReportEverythingTheyHoldOnce) {
    ASSERT_GT(Add(*a, dir.path(), IN_CREATE, true), 0);
    std::atomic<bool> made{false};
    std::thread maker([&] {
        for (const char* burst : {"x", "y", "z"}) {
            for (int k = 0; k < 100; ++k) {
                const std::string leaf = dir / burst + "/" + std::to_string(k / 2) + "/" + "ab"[k % 2];
                std::filesystem::create_directories(leaf);
                Touch(leaf + "/f");
            }
        }
        made = true;
    });
    TestUtil::AtScopeEnd join([&] { maker.join(); });
    // Read while the folders come: some are watched before they fill up.
    while (!made)
        task->GetEventWaiter().WaitAndHandleEvent(10, 128);
    // The first may share its batch with the last folder's refresh.
    Settle(dir.path());
    Settle(dir.path());
    std::map<std::string, int> seen;  // everything made, the settling files too
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path()))
        seen[entry.path()] = 0;
    for (const auto& event : a->Events()) {
        auto known = seen.find(event.path);
        ASSERT_NE(known, seen.end()) << event.path;
        ++known->second;
    }
    for (const auto& [path, count] : seen)
        EXPECT_EQ(1, count) << path;
}

// A mount namespace of this thread's own, entered before the task is made
// (the task reads the mount table it sees then), so that nothing outside
// sees the mounts of the test.
struct PrivateMounts {
    PrivateMounts() {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            missing = std::strerror(errno);
    }
    std::string missing;
};

class MountTest : public PrivateMounts, public InotifyWatchTest {
protected:
    void SetUp() override {
        if (!missing.empty()) GTEST_SKIP() << "no private mount namespace here: " << missing;
        InotifyWatchTest::SetUp();
    }
    void TearDown() override {
        for (auto it = mounted.rbegin(); it != mounted.rend(); ++it)
            ::umount2(it->c_str(), MNT_DETACH);
        if (missing.empty()) InotifyWatchTest::TearDown();
    }
    void Mount(const std::string& point) {
        if (!std::filesystem::exists(point)) MakeDir(point);
        ASSERT_EQ(0, ::mount("fn_test", point.c_str(), "tmpfs", 0, "size=1m")) << std::strerror(errno);
        mounted.push_back(point);
        MakeDir(point + "/inside");
    }
    std::vector<std::string> mounted;
};

// One mount below a watched tree, one that is a watched root: an unmount is
// told and what lies underneath is watched; a new mount is watched too.
TEST_F(MountTest, UnmountsAreToldAndWhatComesIntoViewIsWatched) {
    TestUtil::TempDir other;
    const std::string inTree = dir / "m";
    const std::string root = other / "m";
    Mount(inTree);
    Mount(root);
    ASSERT_GT(Add(*a, dir.path(), IN_CREATE, true), 0);
    ASSERT_GT(Add(*b, root, IN_CREATE, false), 0);
    Touch(inTree + "/inside/x");
    Settle(dir.path());
    for (const std::string& point : {inTree, root})
        ASSERT_EQ(0, ::umount2(point.c_str(), 0)) << std::strerror(errno);
    Touch(inTree + "/under");
    Settle(dir.path());
    for (const std::string& expected : {inTree + "/inside/x 0x100", inTree + " 0x40002000", inTree + "/under 0x100"})
        EXPECT_TRUE(a->HasLine(expected)) << expected;
    // The root was the mount: told, and watched again at once, underneath.
    ASSERT_TRUE(b->WaitFor(1));
    EXPECT_EQ(root + " 0x40002000", b->Summary().front());
    EXPECT_TRUE(task->PendingWatches().empty());
    Touch(root + "/later");
    Pump();
    ASSERT_TRUE(b->WaitFor(2));
    EXPECT_EQ(root + "/later 0x100", b->Summary().back());

    // Mounted again, with no inotify event for it: the mount table tells.
    Mount(inTree);
    Mount(root);
    Pump();
    Touch(inTree + "/inside/y");
    Touch(root + "/z");
    Settle(dir.path());
    EXPECT_TRUE(a->HasLine(inTree + "/inside/y 0x100"));
    ASSERT_TRUE(b->WaitFor(3));
    EXPECT_EQ(root + "/z 0x100", b->Summary().back());
}

TEST(FileNotifyMountWatch, ReadsMountPointsAsTheKernelEscapesThem) {
    const std::string table =
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        "40 22 0:35 / /srv/with\\040blank\\134x rw - tmpfs fn rw\n"
        "41 22 0:36 / /srv/odd\\04 rw - tmpfs fn rw\n"
        "short line\n";
    EXPECT_EQ((std::set<std::string>{"/", "/srv/with blank\\x/", "/srv/odd\\04/"}),
              Engine::FileNotifyMountWatch::Parse(table));
}

}  // namespace
