#include <time.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "sdk/InnerCpuCtrlUtils.h"

namespace {

using SDK::InnerCpuCtrlUtils;
using Clock = std::chrono::steady_clock;

long long ThreadCpuMs() {
    struct timespec ts {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Burns cpuMs of the calling thread's CPU time, however long that takes.
void Spin(long long cpuMs) {
    const long long until = ThreadCpuMs() + cpuMs;
    while (ThreadCpuMs() < until) {
    }
}

long long Adjust() { return InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "test", 0, 0); }

struct Outcome {
    long long returnedMs = -1;
    long long wallMs = -1;
};

// On a fresh thread, so that no earlier adjustment of the test thread counts:
// take the starting point, burn cpuMs, adjust.
Outcome BusyThenAdjust(long long cpuMs) {
    Outcome outcome;
    std::thread worker([&] {
        Adjust();
        Spin(cpuMs);
        const auto start = Clock::now();
        outcome.returnedMs = Adjust();
        outcome.wallMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    });
    worker.join();
    return outcome;
}

class InnerCpuCtrlUtilsTest : public ::testing::Test {
protected:
    void TearDown() override { InnerCpuCtrlUtils::SetCpuShare(0); }
};

TEST_F(InnerCpuCtrlUtilsTest, OffByDefault) {
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    EXPECT_EQ(InnerCpuCtrlUtils::GetCpuShare(), 0);
    EXPECT_GT(InnerCpuCtrlUtils::GetSuggestedRunTick(), 0);
}

TEST_F(InnerCpuCtrlUtilsTest, ShareTable) {
    struct Case {
        int set;
        bool enabled;
        int share;
    };
    const Case cases[] = {{20, true, 20}, {0, false, 0},   {1, true, 1},  {99, true, 99},
                          {100, false, 0}, {50, true, 50}, {-5, false, 0}, {1000, false, 0}};
    for (const auto& c : cases) {
        InnerCpuCtrlUtils::SetCpuShare(c.set);
        EXPECT_EQ(InnerCpuCtrlUtils::IsEnabled(), c.enabled) << c.set;
        EXPECT_EQ(InnerCpuCtrlUtils::GetCpuShare(), c.share) << c.set;
    }
}

TEST_F(InnerCpuCtrlUtilsTest, OffNeverSleeps) {
    const Outcome outcome = BusyThenAdjust(40);
    EXPECT_EQ(outcome.returnedMs, 0);
    EXPECT_LT(outcome.wallMs, 40);
}

TEST_F(InnerCpuCtrlUtilsTest, BusyThreadSleepsToItsShare) {
    InnerCpuCtrlUtils::SetCpuShare(20);
    // 60 ms of CPU at a 20 % share asks for 240 ms off the CPU.
    const Outcome outcome = BusyThenAdjust(60);
    EXPECT_GE(outcome.returnedMs, 220);
    EXPECT_LE(outcome.returnedMs, outcome.wallMs);
    EXPECT_LT(outcome.returnedMs, 1000);
}

TEST_F(InnerCpuCtrlUtilsTest, FirstAdjustmentOfThreadOnlyStartsTheCount) {
    InnerCpuCtrlUtils::SetCpuShare(20);
    long long returned = -1;
    std::thread worker([&] {
        Spin(40);
        returned = Adjust();
    });
    worker.join();
    EXPECT_EQ(returned, 0);
}

TEST_F(InnerCpuCtrlUtilsTest, OnlyTheCallingThreadsCpuCounts) {
    InnerCpuCtrlUtils::SetCpuShare(20);
    long long returned = -1;
    std::thread idle([&] {
        Adjust();
        // Another thread burns CPU meanwhile; this one only waits for it.
        std::thread busy([] { Spin(80); });
        busy.join();
        returned = Adjust();
    });
    idle.join();
    // Charging the process's CPU would sleep about 320 ms here.
    EXPECT_GE(returned, 0);
    EXPECT_LT(returned, 60);
}

TEST_F(InnerCpuCtrlUtilsTest, SleepIsCapped) {
    InnerCpuCtrlUtils::SetCpuShare(1);
    // 30 ms of CPU at 1 % would ask for 2970 ms.
    const Outcome outcome = BusyThenAdjust(30);
    EXPECT_GE(outcome.returnedMs, 900);
    EXPECT_LT(outcome.returnedMs, 1900);
}

}  // namespace
