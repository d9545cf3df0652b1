#include "CpuYield.h"

#include <cstdlib>

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/ProcessUtils.h"

namespace Engine {

void CpuYieldPoint(long long& lastTick, const char* file, int line) {
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) return;
    const long long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const long long distance = std::llabs(now - lastTick);
    if (distance <= SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) return;
    SDK::InnerCpuCtrlUtils::AdjustThreadCpu(file, line, "filenotify_task", now, distance);
    lastTick = now;
}

}  // namespace Engine
