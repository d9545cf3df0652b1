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

using namespace FrameworkTest;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

bool IsLoaded(const char* path) {
    void* handle = ::dlopen(path, RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) ::dlclose(handle);
    return handle != nullptr;
}

}  // namespace

TEST(ModuleHost, RefusesALibraryWithoutAModuleAndRunsTheFileNotifyModuleLeavingNothingBehind) {
    const long threadsBefore = TestUtil::CountEntries("/proc/self/task");
    const long fdsBefore = TestUtil::CountEntries("/proc/self/fd");
    {
        Framework::ModuleHost host;
        std::string error;
        EXPECT_EQ(1, host.Load(FN_FRAMEWORK_LIB_PATH, error));
        EXPECT_NE(std::string::npos, error.find("does not export CreateModule")) << error;
        EXPECT_EQ(1, host.Start(error));

        ASSERT_EQ(0, host.Load(FN_MODULE_PATH, error)) << error;
        ASSERT_EQ(0, host.Start(error)) << error;
        // The module's loop waits 3000 ms at a time: a synchronous send with a
        // shorter time-out succeeds only because a message wakes it.
        Probe probe;
        auto consumer = MakeServeTask("module_consumer");
        const int moduleId = consumer->AddConsumerByName("filenotify_task", "f");
        ASSERT_GT(moduleId, 0);
        std::string reply;
        EXPECT_EQ(3, consumer->SyncSendMsg(moduleId, "f", new ProbeMessage(probe, 3, "done"), reply, 1000, 2));
        EXPECT_EQ("done", reply);
        const auto start = steady_clock::now();  // the cancel ends the loop in the middle of a wait
        host.Stop();
        EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
        EXPECT_FALSE(IsLoaded(FN_MODULE_PATH));
        EXPECT_EQ(0, Framework::Task::FindTaskIdByName("filenotify_task"));
    }
    EXPECT_EQ(threadsBefore, TestUtil::CountEntries("/proc/self/task"));
    EXPECT_EQ(fdsBefore, TestUtil::CountEntries("/proc/self/fd"));
}

// The lifecycle module writes each step into a log; FN_LIFECYCLE_FAIL names
// a task whose Init fails. alpha is required, beta is optional.
TEST(LifecycleModule, StepsRunInOrderTeardownInReverseAndOnlyARequiredTaskIsNeeded) {
    TestUtil::TempDir dir;
    const std::string logPath = dir / "lifecycle.log";
    ::setenv("FN_LIFECYCLE_LOG", logPath.c_str(), 1);
    TestUtil::AtScopeEnd unset([] {
        ::unsetenv("FN_LIFECYCLE_LOG");
        ::unsetenv("FN_LIFECYCLE_FAIL");
    });
    const auto readLines = [&] {
        std::vector<std::string> lines;
        std::ifstream in(logPath);
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    };
    // Stops the module once started lines are written. The lines after the
    // first two, up to there, are sorted: the task threads start in either order.
    const auto run = [&](const char* failing, int startResult, std::size_t started) {
        ::setenv("FN_LIFECYCLE_FAIL", failing, 1);
        ::unlink(logPath.c_str());
        {
            Framework::ModuleHost host;
            std::string error;
            EXPECT_EQ(0, host.Load(FN_LIFECYCLE_MODULE_PATH, error)) << error;
            EXPECT_EQ(startResult, host.Start(error)) << failing;
            EXPECT_TRUE(TestUtil::WaitUntil([&] { return readLines().size() >= started; })) << failing;
        }
        EXPECT_FALSE(IsLoaded(FN_LIFECYCLE_MODULE_PATH));
        auto lines = readLines();
        if (lines.size() >= started) std::sort(lines.begin() + 2, lines.begin() + started);
        return lines;
    };
    using Lines = std::vector<std::string>;
    EXPECT_EQ((Lines{"module Init", "alpha Init", "alpha Run", "beta Init", "beta Run", "beta UnInit", "alpha UnInit",
                     "module UnInit", "beta destroyed", "alpha destroyed", "module destroyed"}),
              run("", 0, 5));
    EXPECT_EQ((Lines{"module Init", "alpha Init", "alpha Run", "beta Init", "alpha UnInit", "module UnInit",
                     "beta destroyed", "alpha destroyed", "module destroyed"}),
              run("beta", 0, 4));
    EXPECT_EQ(
        (Lines{"module Init", "alpha Init", "module UnInit", "beta destroyed", "alpha destroyed", "module destroyed"}),
        run("alpha", 1, 2));
}
