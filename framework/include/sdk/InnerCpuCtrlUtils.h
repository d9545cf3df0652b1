#pragma once

#include "framework/Export.h"

namespace SDK {

// Keeps a busy agent thread within a configured share of one CPU.
//
// Off by default. With a share set, long loops call AdjustThreadCpu at their
// yield points once GetSuggestedRunTick milliseconds have passed since their
// last yield; AdjustThreadCpu measures the CPU time the calling thread used
// since its previous adjustment and sleeps long enough to bring that thread
// back to the share. State per thread; thread-safe.
class FRAMEWORK_API InnerCpuCtrlUtils {
public:
    static bool IsEnabled();
    static long long GetSuggestedRunTick();

    // percent in 1..99 enables the control with that share of one CPU; any
    // other value disables it.
    static void SetCpuShare(int percent);
    static int GetCpuShare();

    // file, line and taskName say who yields (kept for a debug record);
    // nowTick and distance are the caller's tick and the ticks since its last
    // yield. Returns the milliseconds slept.
    static long long AdjustThreadCpu(const char* file, int line, const char* taskName, long long nowTick,
                                     long long distance);
};

}  // namespace SDK
