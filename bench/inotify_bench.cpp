// Inotify figures of the module, each against plain inotify on the same tree
// or workload (ratio = module time / baseline time):
//   BM_RecursiveWatchSetup  recursive AddInotifyWatch of a 50,000-folder tree
//                           vs. opendir/readdir/lstat + inotify_add_watch
//   BM_WatchMemory          heap and resident bytes per watched folder
//   BM_EventDelivery        events/s reaching a consumer while a producer
//                           creates, writes and deletes files, vs. a read loop
//                           that only counts; the counts must match
//   BM_BacklogDrain         events/s reaching a consumer from 400,000 events
//                           queued before the task started
// Needs root: fs.inotify.max_queued_events (and max_user_watches, when the
// module's share of it is too small for the tree) are raised for the run and
// written back at exit, on a fatal signal, or when an exception escapes.

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>

#include <Poco/AutoPtr.h>

#include "BenchUtil.h"
#include "FileNotifyLimit.h"
#include "FileNotifyMessage.h"
#include "FileNotifyTask.h"
#include "MixedTask.h"
#include "framework/TaskRunner.h"
#include "framework/UniqueFd.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTopFolders = 50;
constexpr int kFoldersPerTop = 999;
constexpr long kTreeFolders = kTopFolders * (1 + kFoldersPerTop);  // below the root: 50,000
constexpr long kChurnFiles = 100000;                               // four events each
constexpr long kMaxQueuedEvents = 1000000;
constexpr unsigned int kTreeMask =
    IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr unsigned int kChurnMask = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE;
// tmpfs: the file churn then costs no journal or disk time, which on a VM
// disk varies from run to run more than the figures do.
constexpr const char* kEventBase = "/dev/shm/";
constexpr int kConsumerId = 1;  // the set-up and memory figures have no consumer

std::atomic<bool> g_failed{false};

void Fail(benchmark::State& state, const std::string& why) {
    g_failed = true;
    state.SkipWithError(why.c_str());
}

double Seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Polls cond until it holds or the time-out passes. The sleep leaves the two
// CPUs to the threads under measurement, at most 1 ms late on ~0.5 s runs.
template <class Cond>
bool WaitFor(Cond cond, std::chrono::seconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!cond()) {
        if (Clock::now() >= deadline) return cond();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// ---- kernel settings -------------------------------------------------------

using BenchUtil::ReadLong;
using BenchUtil::Sysctl;

Sysctl g_maxQueuedEvents{"/proc/sys/fs/inotify/max_queued_events", {}, 0};
Sysctl g_maxUserWatches{"/proc/sys/fs/inotify/max_user_watches", {}, 0};

// Async-signal-safe; runs more than once harmlessly.
void RestoreSysctls() {
    for (Sysctl* setting : {&g_maxQueuedEvents, &g_maxUserWatches})
        BenchUtil::RestoreSysctl(*setting);
}

void RestoreAndReraise(int sig) {
    RestoreSysctls();
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

// max_user_watches at which the module's share covers the tree and its root.
long NeededMaxUserWatches() {
    const long current = ReadLong(g_maxUserWatches.path);
    const Engine::FileNotifyLimit limit;
    if (current <= 0 || limit.GetLimitWatches() > kTreeFolders + 1) return current;
    return (kTreeFolders + 1) * current / std::max(limit.GetLimitWatches(), 1) + 1024;
}

// ---- file system -----------------------------------------------------------

using BenchUtil::TempDir;

std::unique_ptr<TempDir> g_tree;

// The 50,000-folder tree, made on first use; empty when it cannot be made.
const std::string& Tree() {
    static const std::string empty;
    if (g_tree) return g_tree->path();
    g_tree = std::make_unique<TempDir>("/tmp/", "fn_bench_tree_");
    const std::string& root = g_tree->path();
    bool made = !root.empty();
    for (int top = 0; made && top < kTopFolders; ++top) {
        const std::string folder = root + "a" + std::to_string(top) + "/";
        made = ::mkdir(folder.c_str(), 0755) == 0;
        for (int sub = 0; made && sub < kFoldersPerTop; ++sub)
            made = ::mkdir((folder + "b" + std::to_string(sub)).c_str(), 0755) == 0;
    }
    if (!made) g_tree.reset();
    return g_tree ? g_tree->path() : empty;
}

// The baseline walk: a watch on folder and on every folder below it. The
// number of watches added, or -1 on a failure.
long WatchTree(int fd, const std::string& folder, unsigned int mask) {
    if (::inotify_add_watch(fd, folder.c_str(), mask | IN_DONT_FOLLOW) < 0) return -1;
    DIR* dir = ::opendir(folder.c_str());
    if (dir == nullptr) return -1;
    long added = 1;
    while (const dirent* entry = ::readdir(dir)) {  // NOLINT(concurrency-mt-unsafe): one stream per call
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        const std::string child = folder + entry->d_name;
        struct stat info {};
        if (::lstat(child.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) continue;
        const long below = WatchTree(fd, child + "/", mask);
        if (below < 0) {
            added = -1;
            break;
        }
        added += below;
    }
    ::closedir(dir);
    return added;
}

// Creates, writes, closes and deletes count files in folder: IN_CREATE,
// IN_MODIFY, IN_CLOSE_WRITE and IN_DELETE each. Returns the failed calls.
long ChurnFiles(const std::string& folder, long count) {
    long failed = 0;
    for (long i = 0; i < count; ++i) {
        const std::string path = folder + "f" + std::to_string(i);
        const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            ++failed;
            continue;
        }
        if (::write(fd, "x", 1) != 1) ++failed;
        ::close(fd);
        if (::unlink(path.c_str()) != 0) ++failed;
    }
    return failed;
}

// ---- plain inotify readers -------------------------------------------------

struct ReadCount {
    long events = 0;
    long overflows = 0;
    Clock::time_point lastRead;
};

// Reads the non-blocking fd until it is empty, counting records.
void DrainCount(int fd, ReadCount& count) {
    // The module's read size, so that the comparison is per event, not per read.
    alignas(struct inotify_event) char buffer[Engine::FileNotifyTask::kEventReadBufferSize];
    for (;;) {
        const ssize_t length = ::read(fd, buffer, sizeof(buffer));
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return;
        for (ssize_t offset = 0; offset < length;) {
            const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                ++count.overflows;
            } else {
                ++count.events;
            }
            offset += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
        }
        count.lastRead = Clock::now();
    }
}

// The baseline reader: counts until fd is empty after done was seen set.
void CountUntilDone(int fd, const std::atomic<bool>& done, ReadCount& count) {
    for (;;) {
        const bool last = done.load(std::memory_order_acquire);
        DrainCount(fd, count);
        if (last) return;
        pollfd ready{fd, POLLIN, 0};
        ::poll(&ready, 1, 50);
    }
}

Framework::UniqueFd WatchedFd(const std::string& path, unsigned int mask) {
    Framework::UniqueFd fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (fd.valid() && ::inotify_add_watch(fd.get(), path.c_str(), mask | IN_DONT_FOLLOW) < 0) fd.reset();
    return fd;
}

// ---- the module ------------------------------------------------------------

class CountingConsumer : public Engine::MixedTask {
public:
    // Room for every event of a run: a full queue would drop messages.
    CountingConsumer()
        : Engine::MixedTask("bench_consumer", "bench", Framework::TaskCondition::TASK_TYPE_EVENT, 1 << 21) {}
    int Run() override { return ServeMessages(3000); }
    int FileNotifyMessageAction(Engine::FileNotifyMessage*) override {
        received.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    std::atomic<long> received{0};

protected:
    ~CountingConsumer() override = default;
};

Engine::_FileNotifyOpt WatchOptions(unsigned int mask, bool recursive) {
    Engine::_FileNotifyOpt opt;
    opt.watchChildFolder = recursive;
    opt.eventMasks = {mask};
    opt.combinedMask = mask;
    opt.inotifyOnly = true;
    opt.simulateCreate = false;
    return opt;
}

// The module's task with its inotify engine in view, for the figures.
class BenchTask : public Engine::FileNotifyTask {
public:
    Engine::FileInotifyWatch& InotifyWatch() { return fileInotifyWatch; }

protected:
    ~BenchTask() override = default;
};

long WatchesHeld(BenchTask& task) {
    const Engine::FileNotifyLimit& limit = task.InotifyWatch().GetLimit();
    return limit.GetLimitWatches() - limit.GetPermitWatchSize();
}

// A FileNotifyTask watching folder (not recursively) for a counting consumer.
// The watch is added before the task's thread starts, so everything of the
// task runs on that thread once StartTask is called.
class ModuleUnderTest {
public:
    ModuleUnderTest(const std::string& folder, unsigned int mask)
        : _folder(folder),
          _consumer(new CountingConsumer()),
          _consumerRunner(_consumer.get()),
          _task(new BenchTask()),
          _taskRunner(_task.get()) {
        int wd = 0;
        _ready = _consumerRunner.Start() == 0 &&
                 _task->AddInotifyWatch(_consumer->GetTaskId(), folder, mask, WatchOptions(mask, false), wd) == 0 &&
                 _task->AddFileNotifyMsgConsumer(_consumer->GetTaskId(), _consumer.get()) == 0;
    }
    bool Ready() const { return _ready; }
    bool StartTask() { return _taskRunner.Start() == 0; }
    bool WaitReceived(long expected) {
        return WaitFor([&] { return _consumer->received.load(std::memory_order_relaxed) >= expected; },
                       std::chrono::seconds(120));
    }
    // Stops both tasks once the consumer has handled what was queued for it;
    // an empty string, or what went wrong.
    std::string Finish(long expected) {
        _taskRunner.Stop();
        WaitFor([&] { return _consumer->GetQueuedMsgCount() == 0; }, std::chrono::seconds(10));
        _consumerRunner.Stop();
        const long received = _consumer->received.load();
        if (received == expected && _consumer->GetDroppedMsgCount() == 0) return std::string();
        const auto& folders = _task->InotifyWatch().GetWatchData().GetFolderWatchMap();
        const auto found = folders.find(_folder);
        Engine::FileInotify* instance =
            found == folders.end() ? nullptr : _task->InotifyWatch().GetFileInotify(found->second.first);
        return "consumer received " + std::to_string(received) + " of " + std::to_string(expected) +
               " events; consumer queue drops " + std::to_string(_consumer->GetDroppedMsgCount()) +
               "; IN_Q_OVERFLOW seen by the module " + std::to_string(instance ? instance->GetOverflowCount() : 0);
    }

private:
    std::string _folder;
    Poco::AutoPtr<CountingConsumer> _consumer;
    Framework::TaskRunner _consumerRunner;
    Poco::AutoPtr<BenchTask> _task;
    Framework::TaskRunner _taskRunner;
    bool _ready = false;
};

// ---- figures ---------------------------------------------------------------

void BM_RecursiveWatchSetup(benchmark::State& state) {
    const std::string& tree = Tree();
    if (tree.empty()) return Fail(state, "cannot make the folder tree");
    double moduleTotal = 0, baselineTotal = 0;
    for (auto _ : state) {
        Framework::UniqueFd fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        auto start = Clock::now();
        const long baselineWatches = WatchTree(fd.get(), tree, kTreeMask);
        const double baseline = Seconds(start, Clock::now());
        fd.reset();  // frees the kernel watches before the module adds its own

        Poco::AutoPtr<BenchTask> task(new BenchTask());
        int wd = 0;
        start = Clock::now();
        const int result = task->AddInotifyWatch(kConsumerId, tree, kTreeMask, WatchOptions(kTreeMask, true), wd);
        const double module = Seconds(start, Clock::now());
        if (result != 0 || baselineWatches != kTreeFolders + 1 || WatchesHeld(*task) != kTreeFolders + 1) {
            return Fail(state, "watches: module " + std::to_string(WatchesHeld(*task)) + " (result " +
                                   std::to_string(result) + "), baseline " + std::to_string(baselineWatches) +
                                   ", tree " + std::to_string(kTreeFolders + 1));
        }
        state.SetIterationTime(module);
        moduleTotal += module;
        baselineTotal += baseline;
    }
    const auto runs = static_cast<double>(state.iterations());
    state.counters["module_ms"] = moduleTotal / runs * 1e3;
    state.counters["baseline_ms"] = baselineTotal / runs * 1e3;
    state.counters["ratio"] = moduleTotal / baselineTotal;
    state.counters["folders"] = static_cast<double>(kTreeFolders);
}
BENCHMARK(BM_RecursiveWatchSetup)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

long ResidentBytes() {
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

void BM_WatchMemory(benchmark::State& state) {
    const std::string& tree = Tree();
    if (tree.empty()) return Fail(state, "cannot make the folder tree");
    for (auto _ : state) {
        Poco::AutoPtr<BenchTask> task(new BenchTask());
        ::malloc_trim(0);  // free pages of earlier figures must not absorb this one's growth
        const long rssBefore = ResidentBytes();
        const auto heapBefore = static_cast<long>(::mallinfo2().uordblks);
        int wd = 0;
        const auto start = Clock::now();
        const int result = task->AddInotifyWatch(kConsumerId, tree, kTreeMask, WatchOptions(kTreeMask, true), wd);
        state.SetIterationTime(Seconds(start, Clock::now()));
        if (result != 0 || WatchesHeld(*task) != kTreeFolders + 1) return Fail(state, "recursive watch failed");
        const auto heapAfter = static_cast<long>(::mallinfo2().uordblks);
        const long rssAfter = ResidentBytes();
        ::malloc_trim(0);
        const long rssTrimmed = ResidentBytes();
        const auto perFolder = [](long bytes) { return static_cast<double>(bytes) / kTreeFolders; };
        // Heap: bytes still allocated after the add. RSS: also the pages
        // the allocator keeps from the walk's temporaries, unless trimmed.
        // Kernel memory of the watches is in neither.
        state.counters["heap_B_per_folder"] = perFolder(heapAfter - heapBefore);
        state.counters["rss_B_per_folder"] = perFolder(rssAfter - rssBefore);
        state.counters["rss_trimmed_B_per_folder"] = perFolder(rssTrimmed - rssBefore);
    }
}
BENCHMARK(BM_WatchMemory)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

struct BaselineRun {
    ReadCount kernel;
    long failedCalls = 0;
    double seconds = 0;
};

// What the kernel queues for the workload, read as fast as a plain loop can.
BaselineRun RunBaseline(const std::string& folder) {
    BaselineRun run;
    const Framework::UniqueFd fd = WatchedFd(folder, kChurnMask);
    if (!fd.valid()) return run;
    std::atomic<bool> done{false};
    std::thread reader(CountUntilDone, fd.get(), std::cref(done), std::ref(run.kernel));
    const auto start = Clock::now();
    run.failedCalls = ChurnFiles(folder, kChurnFiles);
    done.store(true, std::memory_order_release);
    reader.join();
    run.seconds = Seconds(start, run.kernel.lastRead);
    return run;
}

void BM_EventDelivery(benchmark::State& state) {
    const TempDir folder(kEventBase, "fn_bench_events_");
    if (folder.path().empty()) return Fail(state, "cannot make the event folder");
    double moduleTotal = 0, baselineTotal = 0;
    long events = 0;
    for (auto _ : state) {
        const BaselineRun baseline = RunBaseline(folder.path());
        const long expected = baseline.kernel.events;
        if (baseline.kernel.overflows != 0 || expected == 0 || baseline.failedCalls != 0) {
            return Fail(state, "baseline: " + std::to_string(expected) + " events, " +
                                   std::to_string(baseline.kernel.overflows) + " IN_Q_OVERFLOW, " +
                                   std::to_string(baseline.failedCalls) + " failed file calls");
        }

        ModuleUnderTest module(folder.path(), kChurnMask);
        if (!module.Ready() || !module.StartTask()) return Fail(state, "module watch failed");
        long failed = 0;
        const auto start = Clock::now();
        std::thread producer([&] { failed = ChurnFiles(folder.path(), kChurnFiles); });
        const bool all = module.WaitReceived(expected);
        const double elapsed = Seconds(start, Clock::now());
        producer.join();
        const std::string error = module.Finish(expected);
        if (!all || !error.empty() || failed != 0) return Fail(state, error.empty() ? "time-out" : error);
        state.SetIterationTime(elapsed);
        moduleTotal += elapsed;
        baselineTotal += baseline.seconds;
        events += expected;
    }
    state.counters["module_ev_per_s"] = static_cast<double>(events) / moduleTotal;
    state.counters["baseline_ev_per_s"] = static_cast<double>(events) / baselineTotal;
    state.counters["ratio"] = moduleTotal / baselineTotal;
    state.counters["events"] = static_cast<double>(events / state.iterations());
}
BENCHMARK(BM_EventDelivery)->Iterations(2)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_BacklogDrain(benchmark::State& state) {
    const TempDir folder(kEventBase, "fn_bench_backlog_");
    if (folder.path().empty()) return Fail(state, "cannot make the event folder");
    double total = 0;
    long events = 0;
    for (auto _ : state) {
        ModuleUnderTest module(folder.path(), kChurnMask);
        // A second descriptor on the same folder tells how many events the
        // kernel queued for the module's.
        const Framework::UniqueFd witness = WatchedFd(folder.path(), kChurnMask);
        if (!module.Ready() || !witness.valid()) return Fail(state, "watch failed");
        const long failed = ChurnFiles(folder.path(), kChurnFiles);
        ReadCount queued;
        DrainCount(witness.get(), queued);
        if (queued.overflows != 0 || queued.events == 0 || failed != 0) {
            return Fail(state, "backlog: " + std::to_string(queued.overflows) + " IN_Q_OVERFLOW (max_queued_events " +
                                   std::to_string(ReadLong(g_maxQueuedEvents.path)) + "), " + std::to_string(failed) +
                                   " failed file calls");
        }
        const auto start = Clock::now();
        if (!module.StartTask()) return Fail(state, "task did not start");
        const bool all = module.WaitReceived(queued.events);
        const double elapsed = Seconds(start, Clock::now());
        const std::string error = module.Finish(queued.events);
        if (!all || !error.empty()) return Fail(state, error.empty() ? "time-out" : error);
        state.SetIterationTime(elapsed);
        total += elapsed;
        events += queued.events;
    }
    state.counters["ev_per_s"] = static_cast<double>(events) / total;
    state.counters["events"] = static_cast<double>(events / state.iterations());
}
BENCHMARK(BM_BacklogDrain)->Iterations(2)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        std::signal(sig, RestoreAndReraise);
    std::atexit(RestoreSysctls);
    if (!BenchUtil::RaiseSysctl(g_maxQueuedEvents, kMaxQueuedEvents) ||
        !BenchUtil::RaiseSysctl(g_maxUserWatches, NeededMaxUserWatches()))
        std::fprintf(stderr, "cannot raise fs.inotify limits (root needed): the figures may fail\n");
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    RestoreSysctls();
    g_tree.reset();
    return g_failed ? 1 : 0;
}
