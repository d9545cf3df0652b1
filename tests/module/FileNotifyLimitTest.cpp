#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "FileNotifyLimit.h"
#include "TestUtil.h"
#include "framework/ConfigManager.h"
#include "sdk/PathUtils.h"

using Engine::FileNotifyLimit;
using Framework::ConfigManager;

// Kernel limit files and an installation folder of our own; the process-wide
// configuration and installation path go back to their defaults afterwards.
class FileNotifyLimitTest : public ::testing::Test {
protected:
    ~FileNotifyLimitTest() override {
        ConfigManager::GetInstance()->SetResourceConfig({});
        SDK::PathUtils::SetInstallationPath("");
    }
    // The kernel's values and the framework's configured percentage.
    void Set(const char* instances, const char* fileMax, const char* watches, int percent) {
        std::ofstream(_files.maxUserInstances) << instances;
        std::ofstream(_files.fileMax) << fileMax;
        std::ofstream(_files.maxUserWatches) << watches;
        ConfigManager::GetInstance()->SetResourceConfig({percent, 0});
    }

    TestUtil::TempDir _proc, _install;
    FileNotifyLimit::KernelFiles _files{_proc / "instances", _proc / "file-max", _proc / "watches"};
};

TEST_F(FileNotifyLimitTest, InitLimitTable) {
    const struct {
        const char *instances, *fileMax, *watches;
        int percent, limitInstances, limitFile, limitWatches;
    } cases[] = {
        {"  128 max", "100000\n", "8192 ", 0, 38, 30000, 2457},  // not configured: 30 %
        {"128", "100000", "8192", 50, 64, 50000, 4096},
        {"", "x", "0", 50, 10, 1024, 1024},  // unreadable values keep the defaults
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.fileMax) + ", " + std::to_string(c.percent) + " %");
        Set(c.instances, c.fileMax, c.watches, c.percent);
        FileNotifyLimit limit(_files);
        EXPECT_EQ(c.limitInstances, limit.GetLimitInstances());
        EXPECT_EQ(c.limitFile, limit.GetPermitFileSize());
        EXPECT_EQ(c.limitWatches, limit.GetLimitWatches());
    }
}

// AutoScaleLimit takes the percentage from <installation>/conf/resource.conf,
// never from the framework's configuration (80 % here), and falls back to 30 %.
TEST_F(FileNotifyLimitTest, AutoScaleTable) {
    Set("128", "100000", "8192", 80);
    ASSERT_EQ(0, ::mkdir((_install / "conf").c_str(), 0755));
    SDK::PathUtils::SetInstallationPath(_install.path());
    const std::string conf = _install / "conf/resource.conf";
    const std::pair<const char*, int> cases[] = {{"inotify = 50\n", 4096}, {"inotify = -10\n", 2457}, {nullptr, 2457}};
    for (const auto& c : cases) {
        ::unlink(conf.c_str());
        if (c.first != nullptr) std::ofstream(conf) << c.first;
        FileNotifyLimit limit(_files);
        ASSERT_EQ(6553, limit.GetLimitWatches());
        limit.AutoScaleLimit();
        EXPECT_EQ(c.second, limit.GetLimitWatches()) << (c.first != nullptr ? c.first : "no file");
    }
}
