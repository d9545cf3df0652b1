#include <dlfcn.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FrameworkTestUtil.h"
#include "TestUtil.h"
#include "framework/ModuleHost.h"
#include "framework/TaskRunner.h"

using namespace FrameworkTest;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

bool IsLoaded(const char* path) {
    void* handle = ::dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) return false;
    ::dlclose(handle);
    return true;
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

}  // namespace

TEST(ModuleHost, RunsTheFileNotifyModuleAndLeavesNothingBehind) {
    const long threadsBefore = TestUtil::CountEntries("/proc/self/task");
    const long fdsBefore = TestUtil::CountEntries("/proc/self/fd");
    {
        Framework::ModuleHost host;
        std::string error;
        ASSERT_EQ(0, host.Load(FN_MODULE_PATH, error)) << error;
        EXPECT_STREQ("filenotify_module", host.GetModule()->name());
        ASSERT_EQ(0, host.Start(error)) << error;
        Framework::Task* task = host.FindTask("filenotify_task");
        ASSERT_NE(nullptr, task);
        EXPECT_EQ(task->GetTaskId(), Framework::Task::FindTaskIdByName("filenotify_task"));
        EXPECT_TRUE(TestUtil::WaitUntil([&] { return task->state() == Poco::Task::TASK_RUNNING; }));

        // The module's loop waits 3000 ms at a time: a synchronous send with a
        // shorter time-out succeeds only because a message wakes it.
        Probe probe;
        auto consumer = MakeServeTask("module_consumer");
        const int moduleId = consumer->AddConsumerByName("filenotify_task", "f");
        ASSERT_EQ(task->GetTaskId(), moduleId);
        EXPECT_EQ(0, consumer->AddConsumerByName("no_such_task", "f"));
        std::string reply;
        EXPECT_EQ(3, consumer->SyncSendMsg(moduleId, "f", new ProbeMessage(probe, 3, "done"), reply, 1000, 2));
        EXPECT_EQ("done", reply);
        EXPECT_EQ(moduleId, probe.lastHandlerTask.load());

        const auto start = steady_clock::now();
        host.Stop();
        EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
        EXPECT_EQ(nullptr, host.GetModule());
        EXPECT_FALSE(IsLoaded(FN_MODULE_PATH));
        EXPECT_EQ(0, Framework::Task::FindTaskIdByName("filenotify_task"));
    }
    EXPECT_EQ(threadsBefore, TestUtil::CountEntries("/proc/self/task"));
    EXPECT_EQ(fdsBefore, TestUtil::CountEntries("/proc/self/fd"));
}

TEST(ModuleHost, LoadFailuresSayWhy) {
    Framework::ModuleHost host;
    std::string error;
    EXPECT_EQ(1, host.Load("/nonexistent/libnothing.so", error));
    EXPECT_NE(std::string::npos, error.find("/nonexistent/libnothing.so")) << error;

    error.clear();
    EXPECT_EQ(1, host.Load(FN_FRAMEWORK_LIB_PATH, error));
    EXPECT_NE(std::string::npos, error.find("does not export CreateModule")) << error;
    EXPECT_EQ(nullptr, host.GetModule());
    EXPECT_EQ(1, host.Start(error));
}

class LifecycleModule : public ::testing::Test {
protected:
    void SetUp() override {
        logPath = dir / "lifecycle.log";
        ::setenv("FN_LIFECYCLE_LOG", logPath.c_str(), 1);
    }
    void TearDown() override {
        ::unsetenv("FN_LIFECYCLE_LOG");
        ::unsetenv("FN_LIFECYCLE_FAIL");
    }
    TestUtil::TempDir dir;
    std::string logPath;
};

TEST_F(LifecycleModule, HostRunsStepsInOrderAndTearsDownInReverse) {
    {
        Framework::ModuleHost host;
        std::string error;
        ASSERT_EQ(0, host.Load(FN_LIFECYCLE_MODULE_PATH, error)) << error;
        ASSERT_EQ(0, host.Start(error)) << error;
        ASSERT_TRUE(TestUtil::WaitUntil([&] { return ReadLines(logPath).size() >= 5; }));
        host.Stop();
    }
    auto lines = ReadLines(logPath);
    // The two task threads start in either order.
    ASSERT_EQ(13u, lines.size());
    EXPECT_EQ("module Init", lines[0]);
    EXPECT_EQ("alpha Init", lines[1]);
    auto runs = std::vector<std::string>(lines.begin() + 2, lines.begin() + 5);
    std::sort(runs.begin(), runs.end());
    EXPECT_EQ((std::vector<std::string>{"alpha Run", "beta Init", "beta Run"}), runs);
    auto at = [&](const std::string& line) { return std::find(lines.begin(), lines.end(), line) - lines.begin(); };
    // Each loop ends before its UnInit; teardown runs in reverse order of registration.
    EXPECT_LT(at("beta Run end"), at("beta UnInit"));
    EXPECT_LT(at("alpha Run end"), at("alpha UnInit"));
    const std::vector<std::string> teardown{"beta UnInit",    "alpha UnInit",    "module UnInit",
                                            "beta destroyed", "alpha destroyed", "module destroyed"};
    for (std::size_t i = 1; i < teardown.size(); ++i)
        EXPECT_LT(at(teardown[i - 1]), at(teardown[i])) << teardown[i];
    EXPECT_EQ("module destroyed", lines.back());
    EXPECT_FALSE(IsLoaded(FN_LIFECYCLE_MODULE_PATH));
}

TEST_F(LifecycleModule, TaskFailingInitIsLeftOutUnlessRequired) {
    // beta is optional: the module runs without it; alpha is required: nothing starts.
    for (const std::string failing : {"beta", "alpha"}) {
        ::setenv("FN_LIFECYCLE_FAIL", failing.c_str(), 1);
        ::unlink(logPath.c_str());
        Framework::ModuleHost host;
        std::string error;
        ASSERT_EQ(0, host.Load(FN_LIFECYCLE_MODULE_PATH, error)) << error;
        EXPECT_EQ(failing == "alpha" ? 1 : 0, host.Start(error)) << failing;
        if (failing == "beta") {
            ASSERT_TRUE(TestUtil::WaitUntil([&] { return ReadLines(logPath).size() >= 4; }));
        }
        host.Stop();
        auto lines = ReadLines(logPath);
        auto has = [&](const std::string& line) { return std::count(lines.begin(), lines.end(), line) == 1; };
        EXPECT_FALSE(has(failing + " Run") || has(failing + " UnInit")) << failing;
        EXPECT_EQ(failing == "beta", has("alpha UnInit")) << failing;
        EXPECT_EQ(failing == "beta", has("beta Init") && has("alpha Run"));
        EXPECT_EQ("module destroyed", lines.back());
    }
}
