#include "sdk/InnerCpuCtrlUtils.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "sdk/LoggerUtils.h"

namespace SDK {

namespace {

constexpr long long kRunTickMs = 50;
constexpr long long kMaxSleepMs = 1000;  // one adjustment never parks a thread longer

std::atomic<int> g_cpuShare{0};  // 0: control off

struct ThreadCpuState {
    bool measured = false;  // false until the thread's first adjustment
    long long cpuNs = 0;    // thread CPU time at its previous adjustment
};
thread_local ThreadCpuState t_state;

long long ThreadCpuNs() {
    struct timespec ts {};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

bool ValidShare(int percent) {
    return percent >= 1 && percent <= 99;
}

// Time off the CPU that brings cpuUsedNs back to share percent of one CPU.
long long SleepNsFor(long long cpuUsedNs, int share) {
    const long long cap = kMaxSleepMs * 1000000LL;
    // Compare before multiplying: a thread's CPU time times 99 could overflow.
    if (cpuUsedNs >= cap) return cap;
    return std::min(cap, cpuUsedNs * (100 - share) / share);
}

void LogAdjustment(const char* file, int line, const char* taskName, long long distance, long long cpuUsedNs,
                   long long sleptMs) {
    static Poco::Logger* const logger = LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
    if (!logger->debug()) return;
    try {
        const std::string text = std::string("cpu control: ") + (taskName != nullptr ? taskName : "?") + " used " +
                                 std::to_string(cpuUsedNs / 1000000) + " ms of CPU in " + std::to_string(distance) +
                                 " ms, slept " + std::to_string(sleptMs) + " ms";
        logger->log(Poco::Message(logger->name(), text, Poco::Message::PRIO_DEBUG, file, line));
    } catch (...) {
        // a debug record is not worth failing the caller's loop
    }
}

}  // namespace

bool InnerCpuCtrlUtils::IsEnabled() {
    return ValidShare(g_cpuShare.load(std::memory_order_relaxed));
}

long long InnerCpuCtrlUtils::GetSuggestedRunTick() {
    return kRunTickMs;
}

void InnerCpuCtrlUtils::SetCpuShare(int percent) {
    g_cpuShare.store(ValidShare(percent) ? percent : 0, std::memory_order_relaxed);
}

int InnerCpuCtrlUtils::GetCpuShare() {
    return g_cpuShare.load(std::memory_order_relaxed);
}

long long InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* taskName,
                                             [[maybe_unused]] long long nowTick, long long distance) {
    const int share = g_cpuShare.load(std::memory_order_relaxed);
    const long long cpuNow = ThreadCpuNs();
    const bool measured = t_state.measured;
    const long long cpuUsedNs = cpuNow - t_state.cpuNs;
    t_state.measured = true;
    t_state.cpuNs = cpuNow;
    // Off, or the thread's first adjustment: only a starting point is taken,
    // so that CPU used while the control was off is never paid for later.
    if (!ValidShare(share) || !measured) return 0;

    const long long sleepNs = SleepNsFor(cpuUsedNs, share);
    if (sleepNs <= 0) return 0;
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::nanoseconds(sleepNs));
    const long long sleptMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    // Whatever the thread spent in the sleep call itself is not charged.
    t_state.cpuNs = ThreadCpuNs();
    LogAdjustment(file, line, taskName, distance, cpuUsedNs, sleptMs);
    return sleptMs;
}

}  // namespace SDK
