#pragma once

namespace Engine {

// The CPU yield point of long loops. When the agent's CPU control is on and
// more than its suggested run time has passed since this loop site last
// yielded (lastTick, one per site), hands the thread to the CPU control and
// stores the current tick. Costs one flag test when the control is off.
void CpuYieldPoint(long long& lastTick, const char* file, int line);

}  // namespace Engine

// One stored tick per place in the code where the macro stands.
#define FN_CPU_YIELD()                                                \
    do {                                                              \
        static long long fnYieldLastTick = 0;                         \
        ::Engine::CpuYieldPoint(fnYieldLastTick, __FILE__, __LINE__); \
    } while (0)
