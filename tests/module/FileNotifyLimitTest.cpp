#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "FileNotifyLimit.h"
#include "FileNotifyLog.h"
#include "LogCapture.h"
#include "TestUtil.h"
#include "framework/ConfigManager.h"
#include "sdk/PathUtils.h"

using Engine::FileNotifyLimit;
using TestUtil::LogCapture;
using TestUtil::TempDir;

namespace {

void WriteFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// Kernel limit files and an installation folder of our own; the process-wide
// configuration and installation path are restored afterwards.
class FileNotifyLimitTest : public ::testing::Test {
protected:
    void SetUp() override {
        _savedConfig = Framework::ConfigManager::GetInstance()->GetResourceConfig();
        _hadInstallPath = SDK::PathUtils::GetInstallationPath(_savedInstallPath);
        Framework::ConfigManager::GetInstance()->SetResourceConfig(Framework::ResourceConfig{});
        _files.maxUserInstances = _proc / "max_user_instances";
        _files.fileMax = _proc / "file-max";
        _files.maxUserWatches = _proc / "max_user_watches";
        ASSERT_EQ(0, ::mkdir((_install / "conf").c_str(), 0755));
        SDK::PathUtils::SetInstallationPath(_install.path());
    }
    void TearDown() override {
        Framework::ConfigManager::GetInstance()->SetResourceConfig(_savedConfig);
        SDK::PathUtils::SetInstallationPath(_hadInstallPath ? _savedInstallPath : std::string());
    }
    void WriteKernel(const std::string& instances, const std::string& fileMax, const std::string& watches) {
        WriteFile(_files.maxUserInstances, instances);
        WriteFile(_files.fileMax, fileMax);
        WriteFile(_files.maxUserWatches, watches);
    }
    void SetConfiguredPercent(int percent) {
        Framework::ResourceConfig config;
        config.inotifyPercent = percent;
        Framework::ConfigManager::GetInstance()->SetResourceConfig(config);
    }

    TempDir _proc;
    TempDir _install;
    FileNotifyLimit::KernelFiles _files;
    Framework::ResourceConfig _savedConfig;
    std::string _savedInstallPath;
    bool _hadInstallPath = false;
};

}  // namespace

TEST_F(FileNotifyLimitTest, ReadsTheLeadingIntegerOfAFile) {
    const struct {
        const char* text;
        int value;
    } cases[] = {{"8192\n", 8192}, {"  128", 128}, {"abc", 0}, {"", 0}, {"-7\n", -7},
                 // the kernel's "unlimited" file-max, narrowed to 32 bits
                 {"9223372036854775807\n", -1}};
    for (const auto& c : cases) {
        WriteFile(_proc / "value", c.text);
        EXPECT_EQ(c.value, FileNotifyLimit::GetFileSetting(_proc / "value")) << c.text;
    }
    EXPECT_EQ(0, FileNotifyLimit::GetFileSetting(_proc / "missing"));
}

TEST_F(FileNotifyLimitTest, InitLimitTable) {
    struct Case {
        const char* name;
        const char* instances;
        const char* fileMax;
        const char* watches;
        int configPercent;
        int limitInstances, limitFile, limitWatches;
    } cases[] = {
        {"default percent", "128\n", "100000\n", "8192\n", 0, 38, 30000, 2457},
        {"configured percent", "128\n", "100000\n", "8192\n", 50, 64, 50000, 4096},
        {"negative configuration falls back", "128\n", "100000\n", "8192\n", -5, 38, 30000, 2457},
        {"unreadable values keep the defaults", "", "x", "0", 0, 10, 1024, 1024},
        {"narrowed unlimited file-max is ignored", "128", "9223372036854775807", "8192", 0, 38, 1024, 2457},
        // 30 * 100000000 wraps in 32 bits to -1294967296; divided toward zero.
        {"32-bit product wraps", "128", "100000000", "8192", 0, 38, -12949672, 2457},
    };
    for (const auto& c : cases) {
        WriteKernel(c.instances, c.fileMax, c.watches);
        SetConfiguredPercent(c.configPercent);
        FileNotifyLimit limit(_files);
        EXPECT_EQ(c.limitInstances, limit.GetLimitInstances()) << c.name;
        EXPECT_EQ(c.limitFile, limit.GetPermitFileSize()) << c.name;
        EXPECT_EQ(c.limitWatches, limit.GetLimitWatches()) << c.name;
        EXPECT_EQ(c.limitWatches, limit.GetPermitWatchSize()) << c.name;
    }
}

TEST_F(FileNotifyLimitTest, InitLimitLogsConfiguredPercentAndResult) {
    WriteKernel("128", "100000", "8192");
    SetConfiguredPercent(50);
    LogCapture log;
    FileNotifyLimit limit(_files);
    EXPECT_TRUE(log.Has(Engine::LOG_DEBUG, "inotifyPercent=50")) << log.Dump();
    EXPECT_TRUE(log.Has(Engine::LOG_DEBUG, "limit_watches=4096,limit_instances=64,limit_file=50000")) << log.Dump();
}

TEST_F(FileNotifyLimitTest, UnreadableKernelValueKeepsTheLastLimit) {
    WriteKernel("128", "100000", "8192");
    FileNotifyLimit limit(_files);
    ASSERT_EQ(2457, limit.GetLimitWatches());
    ASSERT_EQ(0, ::unlink(_files.maxUserWatches.c_str()));
    limit.InitLimit();
    EXPECT_EQ(2457, limit.GetLimitWatches());
    limit.AutoScaleLimit();
    EXPECT_EQ(2457, limit.GetLimitWatches());
    WriteFile(_files.maxUserWatches, "16384");
    limit.AutoScaleLimit();
    EXPECT_EQ(4915, limit.GetLimitWatches());
}

TEST_F(FileNotifyLimitTest, UsedWatchesReducePermitAndMayGoNegative) {
    FileNotifyLimit limit(_files);  // no kernel files: default limit 1024
    limit.UpdateWatchSize(2000);
    EXPECT_EQ(-976, limit.GetPermitWatchSize());
    limit.UpdateWatchSize(-1500);
    EXPECT_EQ(524, limit.GetPermitWatchSize());
}

TEST_F(FileNotifyLimitTest, AutoScaleTakesPercentFromInstallationConfig) {
    WriteKernel("128", "100000", "8192");
    SetConfiguredPercent(80);  // the framework's value is for InitLimit only
    struct Case {
        const char* conf;
        int percent;
        int limitWatches;
    } cases[] = {
        {"inotify = 50\n", 50, 4096},
        {"inotify = 0\n", 30, 2457},
        {"inotify = -10\n", 30, 2457},
        {"cpu = 20\n", 30, 2457},
    };
    FileNotifyLimit limit(_files);
    for (const auto& c : cases) {
        WriteFile(_install / "conf/resource.conf", c.conf);
        LogCapture log;
        limit.AutoScaleLimit();
        EXPECT_EQ(c.limitWatches, limit.GetLimitWatches()) << c.conf;
        EXPECT_TRUE(log.Has(Engine::LOG_INFORMATION, "auto scale inotify limit, percent=" +
                                                         std::to_string(c.percent) + ", max_watches=8192"))
            << log.Dump();
    }
}

TEST_F(FileNotifyLimitTest, AutoScaleWithoutConfigUsesStoredPercent) {
    WriteKernel("128", "100000", "8192");
    SetConfiguredPercent(50);
    FileNotifyLimit limit(_files);
    ASSERT_EQ(4096, limit.GetLimitWatches());
    LogCapture log;
    limit.AutoScaleLimit();
    EXPECT_EQ(2457, limit.GetLimitWatches());
    EXPECT_TRUE(log.Has(Engine::LOG_ERROR, "Failed to get inotiy config, installPath=" + _install.path()))
        << log.Dump();
}
