#include <sys/stat.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "TestUtil.h"
#include "framework/ConfigManager.h"
#include "sdk/ConfigUtils.h"
#include "sdk/PathUtils.h"

namespace {

using Framework::ConfigManager;
using Framework::ResourceConfig;
using SDK::ConfigUtils;

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
    ASSERT_TRUE(out.good()) << path;
}

TEST(ConfigUtilsTest, IntValueTable) {
    TestUtil::TempDir dir;
    WriteFile(dir / "test.conf",
              "# a comment = 1\n"
              "! another comment\n"
              "#hidden = 5\n"
              "plain = 42\n"
              "   spaced   =   7   \n"
              "colon: 11\n"
              "negative = -5\n"
              "plus = +9\n"
              "zero = 0\n"
              "empty =\n"
              "alpha = abc\n"
              "trailing = 12abc\n"
              "inner = 1 2\n"
              "hex = 0x10\n"
              "float = 1.5\n"
              "max = 2147483647\n"
              "min = -2147483648\n"
              "over = 2147483648\n"
              "under = -2147483649\n"
              "huge = 99999999999999999999999\n"
              "double_sign = +-3\n"
              "lone_sign = -\n"
              "inline = 20  # percent\n"
              "only_comment = # nothing\n"
              "Case = 3\n");
    ConfigUtils config;
    ASSERT_TRUE(config.LoadConfigFile(dir / "test.conf"));

    struct Case {
        const char* key;
        int expected;
    };
    const int def = -777;
    const Case cases[] = {
        {"plain", 42},       {"spaced", 7},      {"colon", 11},       {"negative", -5},
        {"plus", 9},         {"zero", 0},        {"empty", def},      {"alpha", def},
        {"trailing", def},   {"inner", def},     {"hex", def},        {"float", def},
        {"max", 2147483647}, {"min", -2147483647 - 1}, {"over", def}, {"under", def},
        {"huge", def},       {"double_sign", def}, {"lone_sign", def}, {"inline", 20},
        {"only_comment", def}, {"hidden", def},  {"missing", def},    {"case", def},
        {"Case", 3},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(config.GetIntValue(c.key, def), c.expected) << c.key;
    }

    EXPECT_TRUE(config.HasKey("empty"));
    EXPECT_TRUE(config.HasKey("alpha"));
    EXPECT_FALSE(config.HasKey("hidden"));
    EXPECT_FALSE(config.HasKey("missing"));
}

TEST(ConfigUtilsTest, FailedLoadDropsPreviousContent) {
    TestUtil::TempDir dir;
    WriteFile(dir / "good.conf", "value = 5\n");
    ASSERT_EQ(::mkdir((dir / "folder").c_str(), 0755), 0);

    const std::string badPaths[] = {dir / "missing.conf", dir / "folder", "", "/dev/null"};
    for (const auto& bad : badPaths) {
        ConfigUtils config;
        ASSERT_TRUE(config.LoadConfigFile(dir / "good.conf"));
        ASSERT_EQ(config.GetIntValue("value", 0), 5);
        EXPECT_FALSE(config.LoadConfigFile(bad)) << bad;
        EXPECT_EQ(config.GetIntValue("value", 0), 0) << bad;
        EXPECT_FALSE(config.HasKey("value")) << bad;
    }
}

TEST(ConfigUtilsTest, NothingLoadedAndEmptyFileGiveDefaults) {
    ConfigUtils unloaded;
    EXPECT_EQ(unloaded.GetIntValue("any", 12), 12);

    TestUtil::TempDir dir;
    WriteFile(dir / "empty.conf", "");
    ConfigUtils config;
    ASSERT_TRUE(config.LoadConfigFile(dir / "empty.conf"));
    EXPECT_EQ(config.GetIntValue("any", 13), 13);
}

TEST(ConfigUtilsTest, BinaryGarbageNeverThrows) {
    TestUtil::TempDir dir;
    std::string garbage;
    for (int i = 0; i < 4096; ++i) garbage.push_back(static_cast<char>((i * 131) & 0xff));
    WriteFile(dir / "garbage.conf", garbage + "\nreal = 8\n");
    ConfigUtils config;
    EXPECT_NO_THROW(config.LoadConfigFile(dir / "garbage.conf"));
    EXPECT_NO_THROW(config.GetIntValue("real", 0));
    EXPECT_NO_THROW(config.GetIntValue("${real}", 0));
}

class ConfigManagerTest : public ::testing::Test {
protected:
    void TearDown() override {
        ConfigManager::GetInstance()->SetResourceConfig(ResourceConfig());
        SDK::PathUtils::SetInstallationPath("");
    }

    TestUtil::TempDir _dir;
};

TEST_F(ConfigManagerTest, RangeTable) {
    struct Case {
        const char* content;
        int inotify;
        int cpu;
        bool ok;
    };
    const Case cases[] = {
        {"inotify = 30\ncpu = 20\n", 30, 20, true},
        {"inotify = 1\ncpu = 100\n", 1, 100, true},
        {"inotify = 100\ncpu = 1\n", 100, 1, true},
        {"", 0, 0, true},
        {"# inotify = 50\n#cpu = 10\n", 0, 0, true},
        {"inotify = 0\ncpu = 0\n", 0, 0, true},
        {"inotify = 101\ncpu = 20\n", 0, 20, false},
        {"inotify = -1\ncpu = 20\n", 0, 20, false},
        {"inotify = abc\ncpu = 50\n", 0, 50, false},
        {"inotify = 30\ncpu = 99999999999\n", 30, 0, false},
        {"inotify = 30\ncpu = 20%\n", 30, 0, false},
        {"inotify =\n", 0, 0, false},
    };
    const std::string path = _dir / "resource.conf";
    for (const auto& c : cases) {
        WriteFile(path, c.content);
        // A previous good load must not shine through a bad value.
        ConfigManager::GetInstance()->SetResourceConfig(ResourceConfig{55, 55});
        EXPECT_EQ(ConfigManager::GetInstance()->LoadResourceConfig(path), c.ok) << c.content;
        const ResourceConfig got = ConfigManager::GetInstance()->GetResourceConfig();
        EXPECT_EQ(got.inotifyPercent, c.inotify) << c.content;
        EXPECT_EQ(got.cpuPercent, c.cpu) << c.content;
    }
}

TEST_F(ConfigManagerTest, MissingFileResetsToZero) {
    ConfigManager::GetInstance()->SetResourceConfig(ResourceConfig{40, 40});
    EXPECT_FALSE(ConfigManager::GetInstance()->LoadResourceConfig(_dir / "missing.conf"));
    const ResourceConfig got = ConfigManager::GetInstance()->GetResourceConfig();
    EXPECT_EQ(got.inotifyPercent, 0);
    EXPECT_EQ(got.cpuPercent, 0);
}

TEST_F(ConfigManagerTest, LoadsFromInstallationFolder) {
    ASSERT_EQ(::mkdir((_dir / "conf").c_str(), 0755), 0);
    WriteFile(_dir / "conf/resource.conf", "inotify = 12\ncpu = 34\n");
    SDK::PathUtils::SetInstallationPath(_dir.path());
    ASSERT_TRUE(ConfigManager::GetInstance()->LoadFromInstallation());
    const ResourceConfig got = ConfigManager::GetInstance()->GetResourceConfig();
    EXPECT_EQ(got.inotifyPercent, 12);
    EXPECT_EQ(got.cpuPercent, 34);

    SDK::PathUtils::SetInstallationPath(_dir / "elsewhere");
    EXPECT_FALSE(ConfigManager::GetInstance()->LoadFromInstallation());
    EXPECT_EQ(ConfigManager::GetInstance()->GetResourceConfig().inotifyPercent, 0);
}

TEST_F(ConfigManagerTest, ShippedDefaultFileLoads) {
    ASSERT_TRUE(ConfigManager::GetInstance()->LoadResourceConfig(FN_SOURCE_DIR "/conf/resource.conf"));
    const ResourceConfig got = ConfigManager::GetInstance()->GetResourceConfig();
    EXPECT_EQ(got.inotifyPercent, 30);
    EXPECT_EQ(got.cpuPercent, 0);
}

}  // namespace
