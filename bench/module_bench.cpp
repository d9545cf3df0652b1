// Figures of the built module as a consumer sees it: the library loaded by the
// host runtime, a consumer task that talks to it by message only.
//   BM_RequestRoundTrip  SyncSendMsg of a watch request until its reply is
//                        back, add and remove of one existing file in turn
//                        (median and p99 of each kind and of both); between
//                        the two a bare message to the module's task, whose
//                        round trip is the framework's share (ping_*)
//   BM_EventLatency      close() of a written file in a watched folder to the
//                        consumer's FileNotifyMessageAction for its close-write
//                        event, one file at a time, inotify and fanotify
//                        (median and p99)
// The fanotify figure needs CAP_SYS_ADMIN; it puts one notify mark on its own
// temporary folder and removes it again.

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <Poco/AutoPtr.h>

#include "BenchUtil.h"
#include "FileNotifyMessage.h"
#include "FileNotifyWatchMessage.h"
#include "MixedTask.h"
#include "ModuleSession.h"
#include "framework/ModuleHost.h"
#include "framework/TaskRunner.h"

namespace {

using Clock = std::chrono::steady_clock;

// tmpfs: no journal or disk time in the file operations.
constexpr const char* kBase = "/dev/shm/";
constexpr long kRequestTimeoutMs = 5000;
constexpr auto kEventTimeout = std::chrono::seconds(5);

long long Nanoseconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(to - from).count();
}

double PercentileUs(std::vector<long long> v, double p) {
    if (v.empty()) return 0;
    const std::size_t k = std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())));
    std::nth_element(v.begin(), v.begin() + static_cast<long>(k), v.end());
    return static_cast<double>(v[k]) / 1000.0;
}

using BenchUtil::TempDir;

// Stamps the arrival of the one event it is told to await.
class LatencyConsumer : public Engine::MixedTask {
public:
    LatencyConsumer() : Engine::MixedTask("bench_consumer", "bench", Framework::TaskCondition::TASK_TYPE_EVENT, 4096) {}
    int Run() override { return ServeMessages(3000); }
    int FileNotifyMessageAction(Engine::FileNotifyMessage* msg) override {
        const Clock::time_point now = Clock::now();
        std::lock_guard<std::mutex> lock(_mutex);
        if (_seen || (msg->GetEventMask() & _mask) == 0 || msg->GetEventFilePath() != _awaited) return 0;
        _seen = true;
        _seenAt = now;
        _cond.notify_one();
        return 0;
    }
    void Await(const std::string& path, unsigned int mask) {
        std::lock_guard<std::mutex> lock(_mutex);
        _awaited = path;
        _mask = mask;
        _seen = false;
    }
    // False when the awaited event has not come within the time-out.
    bool WaitSeen(Clock::time_point& seenAt) {
        std::unique_lock<std::mutex> lock(_mutex);
        if (!_cond.wait_for(lock, kEventTimeout, [&] { return _seen; })) return false;
        seenAt = _seenAt;
        return true;
    }

protected:
    ~LatencyConsumer() override = default;

private:
    std::mutex _mutex;
    std::condition_variable _cond;
    std::string _awaited;
    unsigned int _mask = 0;
    bool _seen = false;
    Clock::time_point _seenAt;
};

// The loaded module and a running consumer registered with it.
class Session : public BenchUtil::ModuleSession<LatencyConsumer> {
public:
    Engine::FileNotifyWatchMessage* Request(const std::string& path, unsigned int mask,
                                            const Engine::_FileNotifyOpt& opt, bool remove) {
        auto* request = new Engine::FileNotifyWatchMessage(&consumer(), path, {mask}, opt);
        if (remove) request->setRemoveWatchMessage();
        return request;
    }
    int Send(Framework::Message* request, std::string& reply) {
        return ModuleSession::Send(request, reply, kRequestTimeoutMs);
    }
};

Engine::_FileNotifyOpt Options(bool fanotify) {
    Engine::_FileNotifyOpt opt;
    opt.inotifyOnly = !fanotify;
    opt.simulateCreate = false;
    opt.watchChildFolder = fanotify;  // the fanotify mark then reports the folder's files
    return opt;
}

void BM_RequestRoundTrip(benchmark::State& state) {
    const TempDir dir(kBase, "fn_bench_requests_");
    Session session;
    std::string error = dir.path().empty() ? "cannot make the folder" : session.Start(FN_MODULE_PATH);
    const std::string file = dir.path() + "watched";
    if (error.empty() && !std::ofstream(file)) error = "cannot make the file";
    if (!error.empty()) return state.SkipWithError(error.c_str());
    const Engine::_FileNotifyOpt opt = Options(false);
    std::vector<long long> adds, removes, pings;
    for (auto _ : state) {
        auto* add = session.Request(file, IN_CLOSE_WRITE, opt, false);
        auto* ping = new Framework::Message("ping");
        auto* remove = session.Request(file, IN_CLOSE_WRITE, opt, true);
        std::string watchId, ignored;
        const Clock::time_point start = Clock::now();
        const int added = session.Send(add, watchId);
        const Clock::time_point addedAt = Clock::now();
        const int pinged = session.Send(ping, ignored);
        const Clock::time_point pingedAt = Clock::now();
        const int removed = session.Send(remove, ignored);
        const Clock::time_point end = Clock::now();
        if (added != 0 || pinged != 0 || removed != 0 || std::atoi(watchId.c_str()) < 1) {
            error = "add " + std::to_string(added) + " (watch id " + watchId + "), ping " + std::to_string(pinged) +
                    ", remove " + std::to_string(removed);
            state.SkipWithError(error.c_str());
            break;
        }
        adds.push_back(Nanoseconds(start, addedAt));
        pings.push_back(Nanoseconds(addedAt, pingedAt));
        removes.push_back(Nanoseconds(pingedAt, end));
        state.SetIterationTime(static_cast<double>(adds.back() + removes.back()) * 1e-9);
    }
    std::vector<long long> both = adds;
    both.insert(both.end(), removes.begin(), removes.end());
    state.counters["add_median_us"] = PercentileUs(adds, 0.5);
    state.counters["add_p99_us"] = PercentileUs(adds, 0.99);
    state.counters["remove_median_us"] = PercentileUs(removes, 0.5);
    state.counters["remove_p99_us"] = PercentileUs(removes, 0.99);
    state.counters["median_us"] = PercentileUs(both, 0.5);
    state.counters["p99_us"] = PercentileUs(both, 0.99);
    state.counters["ping_median_us"] = PercentileUs(pings, 0.5);
    state.counters["ping_p99_us"] = PercentileUs(pings, 0.99);
}
BENCHMARK(BM_RequestRoundTrip)->Iterations(10000)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_EventLatency(benchmark::State& state, bool fanotify) {
    if (fanotify) {
        const int probe = ::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC, O_RDONLY);
        if (probe < 0) return state.SkipWithError("fanotify needs CAP_SYS_ADMIN");
        ::close(probe);
    }
    const TempDir dir(kBase, "fn_bench_events_");
    Session session;
    std::string error = dir.path().empty() ? "cannot make the folder" : session.Start(FN_MODULE_PATH);
    // One bit for both engines; opt.inotifyOnly tells which one serves it.
    static_assert(FAN_CLOSE_WRITE == IN_CLOSE_WRITE);
    const unsigned int mask = IN_CLOSE_WRITE;
    const Engine::_FileNotifyOpt opt = Options(fanotify);
    std::string reply;
    if (error.empty() && session.Send(session.Request(dir.path(), mask, opt, false), reply) != 0)
        error = "watch request refused";
    if (!error.empty()) return state.SkipWithError(error.c_str());
    std::vector<long long> samples;
    for (auto _ : state) {
        // A fresh name each time: a late event of an earlier file never matches.
        const std::string path = dir.path() + "f" + std::to_string(samples.size());
        session.consumer().Await(path, mask);
        const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0 || ::write(fd, "x", 1) != 1) {
            if (fd >= 0) ::close(fd);
            state.SkipWithError("cannot write the file");
            break;
        }
        const Clock::time_point start = Clock::now();
        ::close(fd);
        Clock::time_point seen;
        if (!session.consumer().WaitSeen(seen)) {
            state.SkipWithError("no event within the time-out");
            break;
        }
        samples.push_back(Nanoseconds(start, seen));
        state.SetIterationTime(static_cast<double>(samples.back()) * 1e-9);
    }
    if (session.Send(session.Request(dir.path(), mask, opt, true), reply) != 0 && !state.error_occurred())
        state.SkipWithError("remove request refused");
    state.counters["median_us"] = PercentileUs(samples, 0.5);
    state.counters["p99_us"] = PercentileUs(samples, 0.99);
}
BENCHMARK_CAPTURE(BM_EventLatency, inotify, false)->Iterations(3000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_EventLatency, fanotify, true)->Iterations(3000)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
