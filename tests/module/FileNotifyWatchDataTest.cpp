#include <set>
#include <string>

#include <gtest/gtest.h>

#include "FileNotifyWatchData.h"
#include "InotifyTestUtil.h"
#include "TestUtil.h"

using Engine::_VerifyWatchResult;
using Engine::FileNotifyWatchData;
using Engine::Notify_WatchItem;

namespace {

Notify_WatchItem* Item(int taskId, unsigned int mask, int fd, int wd, const std::string& path) {
    return new Notify_WatchItem{taskId, mask, fd, wd, path, {}};
}

std::size_t Records(const FileNotifyWatchData& data, int fd, int wd) {
    FileNotifyWatchData::WatchItemList list;
    data.GetWatchItemList(fd, wd, list);
    return list.size();
}

TEST(FileNotifyWatchData, EventPathMatching) {
    struct {
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

TEST(FileNotifyWatchData, SharedKernelWatchKeepsEachTasksRecord) {
    TestUtil::TempDir dir;
    FileNotifyWatchData data;
    EXPECT_EQ(1, data.AddWatch(nullptr));
    ASSERT_EQ(0, data.AddWatch(Item(1, 0x2, 3, 1, dir.path())));
    ASSERT_EQ(0, data.AddWatch(Item(2, 0x100, 3, 1, dir.path())));
    ASSERT_EQ(0, data.AddWatch(Item(2, 0x200, 3, 1, dir.path())));  // a second record of task 2
    EXPECT_EQ(3u, Records(data, 3, 1));

    _VerifyWatchResult other;
    data.CheckSameFileWatch(9, dir.path(), other);
    EXPECT_EQ(Engine::VERIFY_SAME_FILE, other.verifyType);
    EXPECT_EQ(0x302u, other.mask);
    EXPECT_EQ(1, other.wd);
    _VerifyWatchResult same;
    data.CheckSameFileWatch(2, dir.path(), same);
    EXPECT_EQ(Engine::VERIFY_SAME_TASK, same.verifyType);
    EXPECT_EQ(0u, same.mask);

    ASSERT_NE(nullptr, data.GetModuleFileWatch(1, dir.path()));
    EXPECT_EQ(nullptr, data.GetModuleFileWatch(9, dir.path()));
    data.RemoveWatch(2, 3, 1);  // only the first record of task 2
    EXPECT_EQ(2u, Records(data, 3, 1));
    EXPECT_EQ(0x200u, data.GetModuleFileWatch(2, dir.path())->mask);
    data.RemoveWatchAllItem(3, 1);
    EXPECT_EQ(0u, Records(data, 3, 1));
    EXPECT_TRUE(data.GetFolderWatchMap().empty());
    EXPECT_EQ(0, data.RemoveWatch(1, 3, 1));  // unknown keys are no error
}

TEST(FileNotifyWatchData, PathMapsKeepTheFirstWatchAndSortByWhatThePathWas) {
    TestUtil::TempDir dir;
    TestUtil::Touch(dir / "file");
    FileNotifyWatchData data;
    data.AddWatch(Item(1, 0x2, 3, 1, dir / "file"));
    data.AddWatch(Item(1, 0x2, 3, 2, dir / "missing"));
    data.AddWatch(Item(2, 0x2, 4, 7, dir / "file"));  // the same path in another instance
    EXPECT_EQ(1u, data.GetFileWatchMap().count(dir / "file"));
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
    EXPECT_EQ(1u, Records(data, 3, 1));
}

TEST(FileNotifyWatchData, EventWdAndRelatedFolders) {
    TestUtil::TempDir dir;
    TestUtil::MakeDir(dir / "b");
    TestUtil::Touch(dir / "f");
    FileNotifyWatchData data;
    data.AddWatch(Item(1, 0x2, 3, 1, dir.path()));
    data.AddWatch(Item(1, 0x2, 3, 2, dir / "b/"));
    data.AddWatch(Item(1, 0x2, 3, 3, dir / "f"));
    data.AddWatch(Item(1, 0x2, 3, 4, "/"));

    int wd = 0;
    EXPECT_EQ(1, data.GetEventWd(3, dir / "b/c/d", wd, data.GetFolderWatchMap()));  // no grandchildren
    EXPECT_EQ(1, data.GetEventWd(4, dir / "b/c", wd, data.GetFolderWatchMap()));    // another instance
    std::set<int> wds;
    data.GetEventWdSet(3, dir / "f", wds);
    EXPECT_EQ((std::set<int>{1, 3}), wds);
    wds.clear();
    data.GetEventWdSetForMount(3, dir / "b/c/d", wds);
    EXPECT_EQ((std::set<int>{1, 2, 4}), wds);

    _VerifyWatchResult file;
    data.CheckRelativeFileWatch(dir / "f", file);
    EXPECT_EQ(Engine::VERIFY_NO_WATCH, file.verifyType);
    _VerifyWatchResult folder;
    data.CheckRelativeFileWatch(dir.path(), folder);
    EXPECT_EQ(Engine::VERIFY_RELATIVE, folder.verifyType);
    EXPECT_EQ(3u, folder.relativeFdList.size());  // "/" above, itself, b/ below
}

}  // namespace
