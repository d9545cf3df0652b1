#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "sdk/PathUtils.h"

namespace {

using SDK::PathUtils;

struct PathCase {
    std::string input;
    std::string expected;
};

TEST(PathUtilsTest, CanonicalizeTable) {
    const PathCase cases[] = {
        {"", ""},
        {"/", "/"},
        {"//", "/"},
        {"///a//b", "/a/b"},
        {"/a/./b/.", "/a/b"},
        {"/a/b/", "/a/b/"},
        {"/a/b//", "/a/b/"},
        {"/a/b/..", "/a"},
        {"/a/b/../", "/a/"},
        {"/a/b/../../..", "/"},
        {"/..", "/"},
        {"/../a", "/a"},
        {"/../../a/", "/a/"},
        {"a/b", "a/b"},
        {"a//b/", "a/b/"},
        {"./a", "a"},
        {".", "."},
        {"./", "."},
        {"a/..", "."},
        {"../a", "../a"},
        {"a/../../b", "../b"},
        {"../../x/..", "../.."},
        {"/...", "/..."},
        {"/a/.hidden/..b/b..", "/a/.hidden/..b/b.."},
        {"/a\nb/../c", "/c"},
        {"/a/b\n/..", "/a"},
        {"/x/\xff\xfe/./y", "/x/\xff\xfe/y"},
        {"/x/\xc3(/../\n", "/x/\n"},
        {std::string("/a/\0b/./c", 9), std::string("/a/\0b/c", 7)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PathUtils::GetCanonicalizePath(c.input), c.expected) << "input: \"" << c.input << "\"";
    }
}

TEST(PathUtilsTest, CanonicalizeLongerThanPathMax) {
    std::string input = "/";
    std::string expected = "/";
    for (int i = 0; i < 1000; ++i) {
        input += "dir0123456/./x//../";
        expected += "dir0123456/";
    }
    input += "end";
    expected += "end";
    ASSERT_GT(input.size(), 4 * 4096u);
    EXPECT_EQ(PathUtils::GetCanonicalizePath(input), expected);

    // Climbing back out of every level, and past the root.
    std::string up = input;
    for (int i = 0; i < 1002; ++i) up += "/..";
    EXPECT_EQ(PathUtils::GetCanonicalizePath(up), "/");
}

TEST(PathUtilsTest, FileNameTable) {
    const PathCase cases[] = {
        {"/a/b/c.txt", "c.txt"}, {"/a/b/", "b"},  {"/a/b//", "b"}, {"c", "c"},      {"c/", "c"},
        {"/c", "c"},             {"a/b", "b"},    {"/", ""},       {"//", ""},      {"", ""},
        {"/a/b\n c", "b\n c"},   {"/x/\xff", "\xff"}, {"/a/..", ".."}, {"/a/.", "."},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PathUtils::GetFileNameFromPath(c.input), c.expected) << "input: \"" << c.input << "\"";
    }
}

class InstallationPathTest : public ::testing::Test {
protected:
    void TearDown() override { PathUtils::SetInstallationPath(""); }
};

TEST_F(InstallationPathTest, DefaultIsParentOfExecutableFolder) {
    const auto exe = std::filesystem::read_symlink("/proc/self/exe");
    const std::string expected = exe.parent_path().parent_path().string() + "/";
    std::string path;
    ASSERT_TRUE(PathUtils::GetInstallationPath(path));
    EXPECT_EQ(path, expected);
}

TEST_F(InstallationPathTest, SetOverridesAndEmptyRestoresDefault) {
    std::string defaultPath;
    ASSERT_TRUE(PathUtils::GetInstallationPath(defaultPath));

    const PathCase cases[] = {{"/opt/agent", "/opt/agent/"}, {"/opt/agent/", "/opt/agent/"}, {"/", "/"}};
    for (const auto& c : cases) {
        PathUtils::SetInstallationPath(c.input);
        std::string path;
        ASSERT_TRUE(PathUtils::GetInstallationPath(path));
        EXPECT_EQ(path, c.expected) << "set: " << c.input;
    }

    PathUtils::SetInstallationPath("");
    std::string path;
    ASSERT_TRUE(PathUtils::GetInstallationPath(path));
    EXPECT_EQ(path, defaultPath);
}

}  // namespace
