#include <string>

#include <gtest/gtest.h>

#include "FileNotifyWatchData.h"
#include "InotifyTestUtil.h"
#include "TestUtil.h"

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

}  // namespace
