#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "TestUtil.h"
#include "sdk/FileUtils.h"

namespace {

using SDK::DirUtils;
using SDK::FileUtils;

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
    ASSERT_TRUE(out.good()) << path;
}

std::size_t OpenDescriptorCount() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

class FileUtilsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(_dir.path().empty());
        WriteFile(_dir / "file", "hello world");
        ASSERT_EQ(::mkdir((_dir / "dir").c_str(), 0755), 0);
        ASSERT_EQ(::symlink("file", (_dir / "link_to_file").c_str()), 0);
        ASSERT_EQ(::symlink("dir", (_dir / "link_to_dir").c_str()), 0);
        ASSERT_EQ(::symlink("nowhere", (_dir / "dangling").c_str()), 0);
        ASSERT_EQ(::mkfifo((_dir / "fifo").c_str(), 0644), 0);
    }

    TestUtil::TempDir _dir;
};

TEST_F(FileUtilsTest, KindOfEntryTable) {
    struct Case {
        std::string path;
        bool isFile;
        bool isDir;
    };
    const Case cases[] = {
        {_dir / "file", true, false},          {_dir / "dir", false, true},
        {_dir / "link_to_file", true, false},  {_dir / "link_to_dir", false, true},
        {_dir / "dangling", false, false},     {_dir / "missing", false, false},
        {_dir / "fifo", false, false},         {"/dev/null", false, false},
        {_dir / "file/below_a_file", false, false}, {"", false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(FileUtils::IsFile(c.path), c.isFile) << c.path;
        EXPECT_EQ(DirUtils::IsDir(c.path), c.isDir) << c.path;
    }
}

TEST_F(FileUtilsTest, ReadFileHonoursLimit) {
    struct Case {
        std::string path;
        std::size_t maxBytes;
        std::string expected;
    };
    const Case cases[] = {
        {_dir / "file", 5, "hello"},
        {_dir / "file", 11, "hello world"},
        {_dir / "file", 1000, "hello world"},
        {_dir / "file", 0, ""},
        {_dir / "link_to_file", 100, "hello world"},
    };
    for (const auto& c : cases) {
        std::string content = "stale";
        EXPECT_TRUE(FileUtils::ReadFile(c.path, content, c.maxBytes)) << c.path;
        EXPECT_EQ(content, c.expected) << c.path << " max " << c.maxBytes;
    }
}

TEST_F(FileUtilsTest, ReadFileAcrossManyReads) {
    std::string big;
    for (int i = 0; big.size() < 300 * 1024; ++i) big += std::to_string(i) + ",";
    WriteFile(_dir / "big", big);

    std::string content;
    ASSERT_TRUE(FileUtils::ReadFile(_dir / "big", content, 200 * 1024 + 7));
    EXPECT_EQ(content, big.substr(0, 200 * 1024 + 7));
    ASSERT_TRUE(FileUtils::ReadFile(_dir / "big", content, big.size() * 2));
    EXPECT_EQ(content, big);
}

TEST_F(FileUtilsTest, ReadFileOfProcFileWithoutSize) {
    std::string content;
    ASSERT_TRUE(FileUtils::ReadFile("/proc/self/status", content, 1 << 16));
    EXPECT_EQ(content.rfind("Name:", 0), 0u) << content.substr(0, 40);
}

TEST_F(FileUtilsTest, ReadFileFailuresLeaveContentEmpty) {
    const std::string cases[] = {
        _dir / "missing", _dir / "dangling", _dir / "dir", _dir / "fifo",
        // A regular file whose read fails: offset 0 of the own address space is unmapped.
        "/proc/self/mem",
    };
    for (const auto& path : cases) {
        std::string content = "stale";
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(FileUtils::ReadFile(path, content, 100)) << path;
        EXPECT_TRUE(content.empty()) << path;
        // The FIFO has no writer: reading it must not wait for one.
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << path;
    }
}

TEST_F(FileUtilsTest, ReadFileOfUnreadableFile) {
    WriteFile(_dir / "secret", "x");
    ASSERT_EQ(::chmod((_dir / "secret").c_str(), 0), 0);
    if (::access((_dir / "secret").c_str(), R_OK) == 0) GTEST_SKIP() << "permissions do not bind this user";
    std::string content = "stale";
    EXPECT_FALSE(FileUtils::ReadFile(_dir / "secret", content, 100));
    EXPECT_TRUE(content.empty());
}

TEST_F(FileUtilsTest, ReadFileClosesDescriptorOnEveryPath) {
    const std::size_t before = OpenDescriptorCount();
    std::string content;
    for (int i = 0; i < 50; ++i) {
        FileUtils::ReadFile(_dir / "file", content, 100);
        FileUtils::ReadFile(_dir / "file", content, 0);
        FileUtils::ReadFile(_dir / "dir", content, 100);
        FileUtils::ReadFile(_dir / "fifo", content, 100);
        FileUtils::ReadFile("/proc/self/mem", content, 100);
    }
    EXPECT_EQ(OpenDescriptorCount(), before);
}

}  // namespace
