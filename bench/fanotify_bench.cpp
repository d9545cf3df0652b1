// Fanotify figures of the built module (loaded by the host runtime, one
// consumer task), each against a plain fanotify loop on the same workload:
//   BM_PermitOverhead  a child opens and closes one file of a folder 100,000
//                      times: us per open with no mark, with the module's
//                      permission watch and an allow-all consumer, and with a
//                      plain responder thread; the extra us over no mark, and
//                      extra_ratio = module extra / plain extra
//   BM_NotifyDelivery  create, write and close of 100,000 distinct files, to
//                      the last close-write at the consumer (with pid and exe)
//                      or at a read loop that only counts
// Needs CAP_SYS_ADMIN. Marks only its own folders under /dev/shm. Opens under
// a permission mark come from a child: the module answers its own process at
// once. fs.fanotify.max_queued_events is raised for the run, since a slower
// reader's backlog must fit the queue, and written back at exit or on a signal.

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

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
using BenchUtil::TempDir;

constexpr const char* kBase = "/dev/shm/";  // tmpfs: no disk time in the file calls
constexpr long kOpens = 100000;
constexpr long kFiles = 100000;  // a modify and a close-write each, one record when the kernel merges them
constexpr unsigned int kNotifyMask = FAN_MODIFY | FAN_CLOSE_WRITE;
constexpr int kWaitMs = 120000;
constexpr std::size_t kReadSize = 5120;  // the module's read size

std::atomic<bool> g_failed{false};
BenchUtil::Sysctl g_maxQueued{"/proc/sys/fs/fanotify/max_queued_events", {}, 0};

void Fail(benchmark::State& state, const std::string& why) {
    g_failed = true;
    state.SkipWithError(why.c_str());
}

// Async-signal-safe; runs more than once harmlessly.
void RestoreQueue() {
    BenchUtil::RestoreSysctl(g_maxQueued);
}

void RestoreAndReraise(int sig) {
    RestoreQueue();
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

// Counts what reaches it, allows every access (0), and stamps the arrival
// of the close-write that completes the expected count.
class CountingConsumer : public Engine::MixedTask {
public:
    CountingConsumer()
        : Engine::MixedTask("bench_consumer", "bench", Framework::TaskCondition::TASK_TYPE_EVENT, 1 << 21) {
        char exe[4096] = {};
        if (::readlink("/proc/self/exe", exe, sizeof exe - 1) > 0) _exe = exe;
    }
    int Run() override { return ServeMessages(3000); }
    int FileNotifyMessageAction(Engine::FileNotifyMessage* msg) override {
        const Clock::time_point now = Clock::now();
        received.fetch_add(1, std::memory_order_relaxed);
        // The accessing process is this program or a fork of it.
        if (msg->GetEventProcessId() == 0 || msg->GetEventProcess() != _exe) anonymous.fetch_add(1);
        if ((msg->GetEventMask() & FAN_CLOSE_WRITE) == 0) return 0;
        std::lock_guard<std::mutex> lock(_mutex);
        if (++_closeWrites != _expected) return 0;
        _doneAt = now;
        _cond.notify_one();
        return 0;
    }
    void Reset(long expected) {
        received = anonymous = 0;
        std::lock_guard<std::mutex> lock(_mutex);
        _closeWrites = 0;
        _expected = expected;
    }
    bool WaitCloseWrites(Clock::time_point& at) {
        std::unique_lock<std::mutex> lock(_mutex);
        const bool done =
            _cond.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return _closeWrites >= _expected; });
        at = _doneAt;
        return done;
    }
    std::atomic<long> received{0}, anonymous{0};

protected:
    ~CountingConsumer() override = default;

private:
    std::string _exe;
    std::mutex _mutex;
    std::condition_variable _cond;
    long _closeWrites = 0, _expected = 0;
    Clock::time_point _doneAt;
};

// The loaded module and a running consumer registered with it.
class Session : public BenchUtil::ModuleSession<CountingConsumer> {
public:
    // Adds or removes a fanotify watch on folder's files; true when done.
    bool Watch(const std::string& folder, unsigned int mask, bool permit, bool remove) {
        Engine::_FileNotifyOpt opt;
        opt.permit = permit;
        opt.inotifyOnly = false;
        opt.watchChildFolder = true;
        opt.simulateCreate = false;
        auto* request = permit && remove ? new Engine::FileNotifyWatchMessage(&consumer(), folder, true)
                                         : new Engine::FileNotifyWatchMessage(&consumer(), folder, {mask}, opt);
        if (remove && !permit) request->setRemoveWatchMessage();
        std::string reply;
        return Send(request, reply) == 0 && (remove || std::atoi(reply.c_str()) > 0);
    }
};

// Forks a child that opens and closes path kOpens times. Its loop time in
// seconds, or -1 when it failed or did not report in time; it is then killed,
// which also frees an open held by a permission event. Fork without exec: the
// child calls only async-signal-safe functions.
double ChildOpenLoop(const char* path) {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
        // Holds no descriptor of the parent: a group kept open here would outlive its close there.
        if (out[1] > 3) ::close_range(3, static_cast<unsigned int>(out[1]) - 1, 0);
        ::close_range(static_cast<unsigned int>(out[1]) + 1, ~0U, 0);
        timespec start{}, end{};
        ::clock_gettime(CLOCK_MONOTONIC, &start);
        for (long i = 0; i < kOpens; ++i) {
            const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
            if (fd < 0) ::_exit(1);
            ::close(fd);
        }
        ::clock_gettime(CLOCK_MONOTONIC, &end);
        const long long ns = (end.tv_sec - start.tv_sec) * 1000000000LL + (end.tv_nsec - start.tv_nsec);
        ::_exit(::write(out[1], &ns, sizeof ns) == sizeof ns ? 0 : 2);
    }
    ::close(out[1]);
    long long ns = -1;
    pollfd ready{out[0], POLLIN, 0};
    if (pid < 0 || ::poll(&ready, 1, kWaitMs) != 1 || ::read(out[0], &ns, sizeof ns) != sizeof ns) ns = -1;
    ::close(out[0]);
    if (pid < 0) return -1;
    if (ns < 0) ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return ns >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? static_cast<double>(ns) * 1e-9 : -1;
}

// The plain answer: a thread that allows every open of folder's files.
class PlainResponder {
public:
    explicit PlainResponder(const std::string& folder) : _folder(folder) {
        _group = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
        _stop = ::eventfd(0, EFD_CLOEXEC);
        if (_group < 0 || _stop < 0) return;
        _thread = std::thread(&PlainResponder::Run, this);  // before the mark holds anyone
        _marked = ::fanotify_mark(_group, FAN_MARK_ADD, kMask, AT_FDCWD, _folder.c_str()) == 0;
    }
    ~PlainResponder() {
        if (_marked) ::fanotify_mark(_group, FAN_MARK_REMOVE, kMask, AT_FDCWD, _folder.c_str());
        const std::uint64_t one = 1;
        if (_thread.joinable() && ::write(_stop, &one, sizeof one) == sizeof one) _thread.join();
        if (_group >= 0) ::close(_group);  // allows whatever still waits
        if (_stop >= 0) ::close(_stop);
    }
    PlainResponder(const PlainResponder&) = delete;
    PlainResponder& operator=(const PlainResponder&) = delete;
    bool Ready() const { return _marked; }
    std::atomic<long> answered{0};

private:
    static constexpr unsigned int kMask = FAN_OPEN_PERM | FAN_EVENT_ON_CHILD;
    void Run() {
        alignas(fanotify_event_metadata) char buffer[kReadSize];
        pollfd fds[2] = {{_group, POLLIN, 0}, {_stop, POLLIN, 0}};
        while (::poll(fds, 2, -1) >= 0 || errno == EINTR) {
            if (fds[1].revents != 0 || (fds[0].revents & (POLLERR | POLLNVAL)) != 0) return;
            if ((fds[0].revents & POLLIN) == 0) continue;
            ssize_t length = ::read(_group, buffer, sizeof buffer);
            for (auto* m = reinterpret_cast<fanotify_event_metadata*>(buffer); FAN_EVENT_OK(m, length);
                 m = FAN_EVENT_NEXT(m, length)) {
                if (m->fd < 0) continue;
                const fanotify_response allow{m->fd, FAN_ALLOW};
                if (::write(_group, &allow, sizeof allow) == sizeof allow) answered.fetch_add(1);
                ::close(m->fd);
            }
        }
    }
    std::string _folder;
    int _group = -1, _stop = -1;
    bool _marked = false;
    std::thread _thread;  // joined before the group closes
};

void BM_PermitOverhead(benchmark::State& state) {
    const TempDir dir(kBase, "fn_bench_permit_");
    const std::string file = dir.path() + "guarded";
    Session session;  // after dir: its marks go before the folder
    std::string error =
        dir.path().empty() || !std::ofstream(file) ? "cannot make the file" : session.Start(FN_MODULE_PATH);
    double none = 0, module = 0, plain = 0;
    for (auto _ : state) {
        if (error.empty() && (none = ChildOpenLoop(file.c_str())) < 0) error = "no-mark loop failed or timed out";
        if (!error.empty()) break;
        session.consumer().Reset(0);
        if (!session.Watch(dir.path(), FAN_OPEN, true, false)) error = "permission watch refused";
        if (error.empty() && (module = ChildOpenLoop(file.c_str())) < 0) error = "module loop failed or timed out";
        if (!session.Watch(dir.path(), FAN_OPEN, true, true) && error.empty()) error = "remove refused";
        const long asked = session.consumer().received, anonymous = session.consumer().anonymous;
        if (error.empty() && (asked != kOpens || anonymous != 0))
            error = "consumer asked " + std::to_string(asked) + ", " + std::to_string(anonymous) + " without pid/exe";
        if (!error.empty()) break;
        PlainResponder responder(dir.path());
        if (!responder.Ready() || (plain = ChildOpenLoop(file.c_str())) < 0 || responder.answered != kOpens) {
            error = "plain responder failed, answered " + std::to_string(responder.answered);
            break;
        }
        state.SetIterationTime(module);
    }
    if (!error.empty()) return Fail(state, error);
    const double us = 1e6 / kOpens;
    state.counters["none_us"] = none * us;
    state.counters["module_us"] = module * us;
    state.counters["plain_us"] = plain * us;
    state.counters["module_extra_us"] = (module - none) * us;
    state.counters["plain_extra_us"] = (plain - none) * us;
    state.counters["extra_ratio"] = (module - none) / (plain - none);
}
BENCHMARK(BM_PermitOverhead)->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);

// Creates, writes one byte to and closes kFiles new files; the failed calls.
long WriteFiles(const std::string& folder) {
    long failed = 0;
    for (long i = 0; i < kFiles; ++i) {
        const int fd = ::open((folder + "f" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        failed += fd < 0 || ::write(fd, "x", 1) != 1;
        if (fd >= 0) ::close(fd);
    }
    return failed;
}

void RemoveFiles(const std::string& folder) {
    for (long i = 0; i < kFiles; ++i)
        ::unlink((folder + "f" + std::to_string(i)).c_str());
}

struct PlainCount {
    long records = 0, closeWrites = 0, overflows = 0;
    Clock::time_point last;
};

// Reads the non-blocking group until every file's close-write has come, an
// overflow, or the time-out, closing each record's descriptor.
void CountRecords(int group, PlainCount& count) {
    alignas(fanotify_event_metadata) char buffer[kReadSize];
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
    pollfd ready{group, POLLIN, 0};
    while (count.closeWrites < kFiles && count.overflows == 0 && Clock::now() < deadline) {
        ssize_t length = ::read(group, buffer, sizeof buffer);  // FAN_EVENT_NEXT counts it down
        if (length <= 0) {
            ::poll(&ready, 1, 50);
            continue;
        }
        for (auto* m = reinterpret_cast<fanotify_event_metadata*>(buffer); FAN_EVENT_OK(m, length);
             m = FAN_EVENT_NEXT(m, length)) {
            count.overflows += (m->mask & FAN_Q_OVERFLOW) != 0;
            count.records += (m->mask & FAN_Q_OVERFLOW) == 0;
            count.closeWrites += (m->mask & FAN_CLOSE_WRITE) != 0;
            if (m->fd >= 0) ::close(m->fd);
        }
        count.last = Clock::now();
    }
}

// The plain loop's seconds to the last close-write; error set on a failure.
double PlainDelivery(const std::string& folder, long& records, std::string& error) {
    const int group = ::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_CLOEXEC);
    if (group < 0 ||
        ::fanotify_mark(group, FAN_MARK_ADD, kNotifyMask | FAN_EVENT_ON_CHILD, AT_FDCWD, folder.c_str()) != 0)
        error = "plain group not marked";
    PlainCount count;
    const Clock::time_point start = Clock::now();
    if (error.empty()) {
        std::thread reader(CountRecords, group, std::ref(count));
        const long failed = WriteFiles(folder);
        reader.join();
        if (count.closeWrites != kFiles || count.overflows != 0 || failed != 0)
            error = "plain: " + std::to_string(count.closeWrites) + " close-writes, " +
                    std::to_string(count.overflows) + " overflows, " + std::to_string(failed) + " failed calls";
    }
    if (group >= 0) ::close(group);
    records = count.records;
    return std::chrono::duration<double>(count.last - start).count();
}

// The consumer's seconds to the last close-write; error set on a failure.
double ModuleDelivery(Session& session, const std::string& folder, long& records, std::string& error) {
    CountingConsumer& consumer = session.consumer();
    consumer.Reset(kFiles);
    if (!session.Watch(folder, kNotifyMask, false, false)) error = "notify watch refused";
    const Clock::time_point start = Clock::now();
    Clock::time_point end = start;
    const long failed = error.empty() ? WriteFiles(folder) : 0;
    if (error.empty() && (!consumer.WaitCloseWrites(end) || failed != 0 || consumer.anonymous != 0))
        error = "consumer: " + std::to_string(consumer.received) + " records (" + std::to_string(consumer.anonymous) +
                " without pid/exe), " + std::to_string(consumer.GetDroppedMsgCount()) + " dropped, " +
                std::to_string(failed) + " failed calls";
    if (!session.Watch(folder, kNotifyMask, false, true) && error.empty()) error = "remove refused";
    records = consumer.received;
    return std::chrono::duration<double>(end - start).count();
}

void BM_NotifyDelivery(benchmark::State& state) {
    const TempDir dir(kBase, "fn_bench_notify_");
    Session session;
    std::string error = dir.path().empty() ? "cannot make the folder" : session.Start(FN_MODULE_PATH);
    double moduleSeconds = 0, plainSeconds = 0;
    long moduleRecords = 0, plainRecords = 0;
    for (auto _ : state) {
        if (error.empty()) plainSeconds = PlainDelivery(dir.path(), plainRecords, error);
        RemoveFiles(dir.path());  // unwatched: the next run creates the same files anew
        if (error.empty()) moduleSeconds = ModuleDelivery(session, dir.path(), moduleRecords, error);
        RemoveFiles(dir.path());
        if (!error.empty()) break;
        state.SetIterationTime(moduleSeconds);
    }
    if (!error.empty()) return Fail(state, error);
    state.counters["module_records"] = static_cast<double>(moduleRecords);
    state.counters["plain_records"] = static_cast<double>(plainRecords);
    state.counters["module_rec_per_s"] = static_cast<double>(moduleRecords) / moduleSeconds;
    state.counters["plain_rec_per_s"] = static_cast<double>(plainRecords) / plainSeconds;
    state.counters["module_files_per_s"] = kFiles / moduleSeconds;
    state.counters["plain_files_per_s"] = kFiles / plainSeconds;
    state.counters["time_ratio"] = moduleSeconds / plainSeconds;
}
BENCHMARK(BM_NotifyDelivery)->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    const int probe = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
    if (probe < 0) {
        std::fprintf(stderr, "fanotify_init refused: CAP_SYS_ADMIN needed\n");
        return 1;
    }
    ::close(probe);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        std::signal(sig, RestoreAndReraise);
    std::atexit(RestoreQueue);
    if (!BenchUtil::RaiseSysctl(g_maxQueued, 4 * kFiles))
        std::fprintf(stderr, "cannot raise fs.fanotify.max_queued_events: the notify figure may overflow\n");
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    RestoreQueue();
    return g_failed ? 1 : 0;
}
