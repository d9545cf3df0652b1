#include <filesystem>
#include <regex>
#include <string>

#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>

#include "TestUtil.h"
#include "sdk/FileUtils.h"
#include "sdk/LoggerUtils.h"

namespace {

using SDK::LoggerUtils;

std::string ReadAll(const std::string& path) {
    std::string content;
    SDK::FileUtils::ReadFile(path, content, 1 << 20);
    return content;
}

bool Contains(const std::string& haystack, const std::string& needle) {
    return haystack.find(needle) != std::string::npos;
}

void Log(Poco::Logger* logger, Poco::Message::Priority priority, const std::string& text) {
    logger->log(Poco::Message(logger->name(), text, priority, __FILE__, 1234));
}

class LoggerUtilsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_FALSE(_dir.path().empty()); }
    void TearDown() override {
        // Closes the test's files before the folder goes, and leaves the
        // process-wide settings as they are at start-up.
        LoggerUtils::GetInstance()->UseConsole();
        LoggerUtils::GetInstance()->SetLevel(Poco::Message::PRIO_WARNING);
    }

    TestUtil::TempDir _dir;
};

TEST_F(LoggerUtilsTest, DefaultsToWarningOnConsole) {
    EXPECT_EQ(LoggerUtils::GetInstance()->GetLevel(), Poco::Message::PRIO_WARNING);
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("console_mod", false);
    ASSERT_NE(logger, nullptr);

    ::testing::internal::CaptureStderr();
    Log(logger, Poco::Message::PRIO_WARNING, "console-warning");
    Log(logger, Poco::Message::PRIO_INFORMATION, "console-info");
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(Contains(err, "console-warning")) << err;
    EXPECT_FALSE(Contains(err, "console-info")) << err;
}

TEST_F(LoggerUtilsTest, FileRecordsAreFilteredAndFormatted) {
    const std::string path = _dir / "agent.log";
    ASSERT_TRUE(LoggerUtils::GetInstance()->UseRotatingFile(path));
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("file_mod", false);

    Log(logger, Poco::Message::PRIO_INFORMATION, "below-level");
    Log(logger, Poco::Message::PRIO_WARNING, "at-level");
    Log(logger, Poco::Message::PRIO_ERROR, "above-level");

    const std::string content = ReadAll(path);
    EXPECT_FALSE(Contains(content, "below-level")) << content;
    EXPECT_TRUE(Contains(content, "above-level")) << content;

    const auto at = content.find("at-level");
    ASSERT_NE(at, std::string::npos) << content;
    const auto begin = content.rfind('\n', at);
    const std::string line = content.substr(begin == std::string::npos ? 0 : begin + 1,
                                            content.find('\n', at) - (begin == std::string::npos ? 0 : begin + 1));
    // Time with milliseconds, priority, source logger, file:line.
    EXPECT_TRUE(std::regex_search(line, std::regex(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )"))) << line;
    EXPECT_TRUE(Contains(line, "Warning")) << line;
    EXPECT_TRUE(Contains(line, "file_mod")) << line;
    EXPECT_TRUE(Contains(line, std::string(__FILE__) + ":1234")) << line;
}

TEST_F(LoggerUtilsTest, LevelReachesEarlierAndLaterLoggers) {
    auto* utils = LoggerUtils::GetInstance();
    // Made outside LoggerUtils with its own level: handing it out aligns it.
    Poco::Logger::get("agent.level_outsider").setLevel(Poco::Message::PRIO_FATAL);
    Poco::Logger* early = utils->GetModuleLogger("level_early", false);
    Poco::Logger* outsider = utils->GetModuleLogger("level_outsider", false);
    EXPECT_TRUE(outsider->warning());

    struct Case {
        int set;
        int expected;
    };
    const Case cases[] = {{Poco::Message::PRIO_DEBUG, 7}, {Poco::Message::PRIO_ERROR, 3}, {0, 0}, {100, 8}, {-3, 0}};
    for (const auto& c : cases) {
        utils->SetLevel(c.set);
        Poco::Logger* late = utils->GetModuleLogger("level_late_" + std::to_string(c.set + 10), false);
        EXPECT_EQ(utils->GetLevel(), c.expected) << c.set;
        for (Poco::Logger* logger : {early, outsider, late}) {
            EXPECT_EQ(logger->getLevel(), c.expected) << logger->name() << " set " << c.set;
        }
    }
}

TEST_F(LoggerUtilsTest, RotatesBySizeAndKeepsArchives) {
    const std::string path = _dir / "rot.log";
    ASSERT_TRUE(LoggerUtils::GetInstance()->UseRotatingFile(path, 300, 2));
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("rot_mod", false);
    for (int i = 0; i < 40; ++i) Log(logger, Poco::Message::PRIO_ERROR, "record-" + std::to_string(i));

    namespace fs = std::filesystem;
    EXPECT_TRUE(fs::exists(path + ".0"));
    EXPECT_TRUE(fs::exists(path + ".1"));
    EXPECT_FALSE(fs::exists(path + ".2"));
    EXPECT_LT(fs::file_size(path), 300u + 300u);
    // The newest record is in the live file, the oldest ones are purged.
    EXPECT_TRUE(Contains(ReadAll(path), "record-39\n"));
    for (const auto& file : {path, path + ".0", path + ".1"}) {
        EXPECT_FALSE(Contains(ReadAll(file), "record-0\n")) << file;
    }
}

TEST_F(LoggerUtilsTest, UnopenableFileKeepsCurrentChannel) {
    const std::string path = _dir / "agent.log";
    ASSERT_TRUE(LoggerUtils::GetInstance()->UseRotatingFile(path));
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("keep_mod", false);

    const std::string bad[] = {_dir / "no/such/folder/agent.log", _dir.path()};
    for (const auto& badPath : bad) {
        EXPECT_FALSE(LoggerUtils::GetInstance()->UseRotatingFile(badPath)) << badPath;
        Log(logger, Poco::Message::PRIO_ERROR, "after-" + badPath);
        EXPECT_TRUE(Contains(ReadAll(path), "after-" + badPath));
    }
}

TEST_F(LoggerUtilsTest, OwnFileBesideAgentLog) {
    auto* utils = LoggerUtils::GetInstance();
    // Asked for before any file is configured: gets its file when one is.
    Poco::Logger* early = utils->GetModuleLogger("own_early", true);
    ASSERT_TRUE(utils->UseRotatingFile(_dir / "agent.log"));
    Poco::Logger* own = utils->GetModuleLogger("own_mod", true);
    Poco::Logger* common = utils->GetModuleLogger("common_mod", false);

    Log(early, Poco::Message::PRIO_ERROR, "from-early");
    Log(own, Poco::Message::PRIO_ERROR, "from-own");
    Log(common, Poco::Message::PRIO_ERROR, "from-common");

    const std::string agent = ReadAll(_dir / "agent.log");
    const std::string ownLog = ReadAll(_dir / "own_mod.log");
    const std::string earlyLog = ReadAll(_dir / "own_early.log");
    EXPECT_TRUE(Contains(agent, "from-common")) << agent;
    EXPECT_FALSE(Contains(agent, "from-own")) << agent;
    EXPECT_FALSE(Contains(agent, "from-early")) << agent;
    EXPECT_TRUE(Contains(ownLog, "from-own")) << ownLog;
    EXPECT_FALSE(Contains(ownLog, "from-common")) << ownLog;
    EXPECT_TRUE(Contains(earlyLog, "from-early")) << earlyLog;

    // Back on the console, no record reaches the files any more.
    utils->UseConsole();
    ::testing::internal::CaptureStderr();
    Log(own, Poco::Message::PRIO_ERROR, "own-on-console");
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(Contains(err, "own-on-console")) << err;
    EXPECT_FALSE(Contains(ReadAll(_dir / "own_mod.log"), "own-on-console"));
}

}  // namespace
