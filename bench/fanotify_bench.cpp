// Fanotify figures of the module and of the filenotify command, each against
// a plain fanotify loop on the same workload.
//
// Guarded opens, printed first: a child process opens and closes one file of
// a folder N times (100,000) per run, under each checker in turn:
//   none    no checker at all
//   plain   a responder thread of this program: a FAN_CLASS_CONTENT group,
//           FAN_OPEN_PERM on the folder, a read loop that allows each event;
//           the floor
//   module  the built module loaded here by the host runtime, its permission
//           watch and a consumer task that allows everything
//   guard   the built `filenotify guard FOLDER` (no rules: allows everything)
//           as its own process, used once its stderr says "watching 1 path";
//           its stdout is drained from a pipe and must hold one verdict=allow
//           line per open
// Each round runs every checker once, starting with the next one each round
// so that none always follows the same one. The table gives per checker the
// median us per open over the rounds, the median of its extra us per open
// over the same round's "none", and that extra divided by the plain one.
//
// Held accesses, next: eight children open one guarded file at once while
// the module's consumer never answers; per round the wait of the slowest
// open (each is allowed at its deadline, a second after it was read), then
// in a new session the time from the module's stop to the return of the
// last of eight held opens.
//
// BM_NotifyDelivery (Google Benchmark, after the tables): create, write and
// close of 100,000 distinct files, to the last close-write at a consumer of
// the module (with pid and exe) or at a read loop that only counts.
//
//   fanotify_bench [--quick] [--opens N] [--runs N] [--permit-only] [--benchmark_...]
//     --quick        10,000 opens and 3 rounds, for trying it out
//     --permit-only  the guarded opens and held accesses alone
//
// Needs CAP_SYS_ADMIN. Marks only its own folders under /dev/shm. Opens under
// a permission mark come from a child: the module and the plain responder
// would answer this program's own opens at once, and guard's marks would hold
// them. A checker that hangs is killed after a bounded wait, which frees any
// open it holds; a guard process gets SIGKILL when this program dies. For
// the delivery figure fs.fanotify.max_queued_events is raised, since a slower
// reader's backlog must fit the queue, and written back at exit or on a
// signal.

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
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
#include "framework/UniqueFd.h"

namespace {

using Clock = std::chrono::steady_clock;
using BenchUtil::ErrnoText;
using BenchUtil::Grouped;
using BenchUtil::Milliseconds;
using BenchUtil::NumberOption;
using BenchUtil::OneLine;
using BenchUtil::StderrBeyondReady;
using BenchUtil::TempDir;
using Framework::UniqueFd;

constexpr const char* kBase = "/dev/shm/";  // tmpfs: no disk time in the file calls
constexpr long kFiles = 100000;             // a modify and a close-write each, one record when the kernel merges them
constexpr unsigned int kNotifyMask = FAN_MODIFY | FAN_CLOSE_WRITE;
constexpr int kWaitMs = 120000;
constexpr std::size_t kReadSize = 5120;  // the module's read size
constexpr const char* kGuardReady = "watching 1 path";
constexpr auto kReadyTimeout = std::chrono::seconds(30);
constexpr auto kExitTimeout = std::chrono::seconds(10);
// A run may take this long plus kPerOpenLimit per open before its checker
// counts as stuck: far above today's figures, well below forever.
constexpr auto kRunTimeout = std::chrono::seconds(30);
constexpr auto kPerOpenLimit = std::chrono::microseconds(500);
constexpr int kPipeBytes = 1 << 20;  // guard's verdict lines seldom wait for the reader
// The drain thread reads guard's stdout at most this often, so that a line
// written per verdict does not wake it per verdict.
constexpr auto kDrainPace = std::chrono::milliseconds(10);
constexpr std::size_t kStderrKeep = std::size_t{16} * 1024;

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

// While the guarded opens run, a first SIGINT, SIGTERM or SIGHUP ends them
// cleanly (checker and opener stopped, folder removed); a second one, or one
// during the Google Benchmark part, ends the program at once.
volatile std::sig_atomic_t g_graceful = 0;
volatile std::sig_atomic_t g_interrupted = 0;

void OnStopSignal(int sig) {
    if (g_graceful && !g_interrupted) {
        g_interrupted = 1;
        return;
    }
    RestoreAndReraise(sig);
}

// Through syscall(): the pidfd_open declaration of glibc 2.36 lacks C linkage.
int PidFd(pid_t pid) {
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
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

// ---- guarded opens ---------------------------------------------------------

struct Settings {
    long opens = 100000;
    int runs = 5;
    bool permitOnly = false;
};

// The arguments Google Benchmark left; false on a bad command line.
bool ParseArguments(int argc, char** argv, Settings& settings) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        long value = 0;
        if (argument == "--quick") {
            settings.opens = 10000;
            settings.runs = 3;
        } else if (argument == "--permit-only") {
            settings.permitOnly = true;
        } else if (NumberOption(argc, argv, i, "--opens", 100000000, value)) {
            settings.opens = value;
        } else if (NumberOption(argc, argv, i, "--runs", 999, value)) {
            settings.runs = static_cast<int>(value);
        } else {
            return false;
        }
    }
    return true;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

struct OpenLoop {
    double seconds = -1;
    std::string error;  // empty when seconds holds the loop time
};

// Forks a child that opens and closes path `opens` times and reports the
// time of its loop. Waits at most timeout, and only while the checker whose
// pidfd is given (-1: none) runs: a checker that ends takes its marks with it,
// and the rest of the loop would time nothing. On a failure `release` runs
// first (it ends a checker that may hold an open), then the child is killed.
// Fork without exec: the child calls only async-signal-safe functions.
OpenLoop ChildOpenLoop(const char* path, long opens, Clock::duration timeout, int checker,
                       const std::function<void()>& release) {
    OpenLoop loop;
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        loop.error = ErrnoText("pipe2");
        return loop;
    }
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(3);
        // Holds no descriptor of the parent: a group kept open here would outlive its close there.
        if (out[1] > 3) ::close_range(3, static_cast<unsigned int>(out[1]) - 1, 0);
        ::close_range(static_cast<unsigned int>(out[1]) + 1, ~0U, 0);
        timespec start{}, end{};
        ::clock_gettime(CLOCK_MONOTONIC, &start);
        for (long i = 0; i < opens; ++i) {
            const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
            if (fd < 0) ::_exit(1);
            ::close(fd);
        }
        ::clock_gettime(CLOCK_MONOTONIC, &end);
        const long long ns = (end.tv_sec - start.tv_sec) * 1000000000LL + (end.tv_nsec - start.tv_nsec);
        ::_exit(::write(out[1], &ns, sizeof ns) == sizeof ns ? 0 : 2);
    }
    ::close(out[1]);
    const UniqueFd result(out[0]);
    if (pid < 0) {
        loop.error = ErrnoText("fork");
        return loop;
    }
    const UniqueFd child(PidFd(pid));
    long long ns = -1;
    const Clock::time_point deadline = Clock::now() + timeout;
    while (loop.error.empty() && ns < 0) {
        pollfd fds[2] = {{result.get(), POLLIN, 0}, {checker, POLLIN, 0}};
        const int left = Milliseconds(deadline - Clock::now());
        // In slices: a signal may land on another thread and leave this poll running.
        const int ready = left > 0 && !g_interrupted ? ::poll(fds, checker >= 0 ? 2 : 1, std::min(left, 100)) : 0;
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) {
            loop.error = ErrnoText("poll");
        } else if (ready == 0 && g_interrupted) {
            loop.error = "interrupted";
        } else if (ready == 0 && left <= 100) {
            loop.error = "no result within " + std::to_string(Milliseconds(timeout) / 1000) + " s";
        } else if (ready == 0) {
            continue;
        } else if (checker >= 0 && fds[1].revents != 0) {
            loop.error = "the checker ended during the loop";
        } else if (::read(result.get(), &ns, sizeof ns) != sizeof ns) {
            ns = -1;
            loop.error = "the opener failed";
        }
    }
    if (!loop.error.empty()) {
        if (release) release();
        ::kill(pid, SIGKILL);
    }
    pollfd ended{child.get(), POLLIN, 0};
    int status = 0;
    if (child.valid() && ::poll(&ended, 1, Milliseconds(kExitTimeout)) <= 0) {
        ::kill(pid, SIGKILL);
        loop.error += loop.error.empty() ? "the opener did not end" : "; the opener did not end";
        return loop;
    }
    if (::waitpid(pid, &status, 0) != pid) status = -1;
    if (loop.error.empty() && !(WIFEXITED(status) && WEXITSTATUS(status) == 0))
        loop.error = WIFEXITED(status) && WEXITSTATUS(status) == 1 ? "an open failed" : "the opener failed";
    if (loop.error.empty()) loop.seconds = static_cast<double>(ns) * 1e-9;
    return loop;
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
    ~PlainResponder() { Stop(); }
    PlainResponder(const PlainResponder&) = delete;
    PlainResponder& operator=(const PlainResponder&) = delete;
    bool Ready() const { return _marked; }

    // Removes the mark, ends the thread and closes the group; the number of
    // opens allowed. Runs more than once harmlessly.
    long Stop() {
        if (_marked) ::fanotify_mark(_group, FAN_MARK_REMOVE, kMask, AT_FDCWD, _folder.c_str());
        _marked = false;
        const std::uint64_t one = 1;
        if (_thread.joinable() && ::write(_stop, &one, sizeof one) == sizeof one) _thread.join();
        if (_group >= 0) ::close(_group);  // allows whatever still waits
        if (_stop >= 0) ::close(_stop);
        _group = _stop = -1;
        return _answered;
    }

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
                if (::write(_group, &allow, sizeof allow) == sizeof allow) ++_answered;
                ::close(m->fd);
            }
        }
    }
    std::string _folder;
    int _group = -1, _stop = -1;
    bool _marked = false;
    long _answered = 0;   // read once the thread has ended
    std::thread _thread;  // joined before the group closes
};

// `filenotify guard FOLDER` with stdin on /dev/null and stdout and stderr on
// pipes that a thread drains: it counts the verdict lines and keeps the
// start of stderr. The process gets SIGKILL when this program dies first, or
// when it still runs at destruction.
class GuardProcess {
public:
    GuardProcess() = default;
    ~GuardProcess() {
        Kill();
        Reap(kExitTimeout);
        EndDrain();
    }
    GuardProcess(const GuardProcess&) = delete;
    GuardProcess& operator=(const GuardProcess&) = delete;

    // An empty string, or what went wrong.
    std::string Spawn(const std::string& binary, const std::string& folder) {
        BenchUtil::PipedChild child;
        const std::string error = BenchUtil::SpawnPiped({binary, "guard", folder}, kPipeBytes, child);
        if (!error.empty()) return error;
        const pid_t pid = child.pid;
        _pid = pid;
        _pidfd.reset(PidFd(pid));
        if (!_pidfd.valid()) return ErrnoText("pidfd_open");
        _out = std::move(child.out);
        _err = std::move(child.err);
        _thread = std::thread([this] { Drain(); });
        return std::string();
    }

    int pidfd() const { return _pidfd.get(); }

    // True once the ready text is on stderr; false on a time-out or the
    // process's end.
    bool WaitReady(Clock::duration timeout) {
        const Clock::time_point deadline = Clock::now() + timeout;
        std::unique_lock<std::mutex> lock(_mutex);
        while (!_ready && !_closed && !g_interrupted && Clock::now() < deadline)
            _changed.wait_for(lock, std::chrono::milliseconds(100));
        return _ready;
    }

    void Kill() {
        if (_pid > 0) ::kill(_pid, SIGKILL);
    }

    // SIGTERM, and SIGKILL when it has not ended in time; then the rest of
    // its output is read. How it ended, or an empty string for exit 0.
    std::string Stop() {
        std::string how;
        if (_pid > 0) {
            ::kill(_pid, SIGTERM);
            if (!Reap(kExitTimeout)) {
                Kill();
                Reap(kExitTimeout);
                how = "did not end within 10 s of SIGTERM: killed";
            }
        }
        EndDrain();
        if (!how.empty() || _pid > 0) return how.empty() ? "could not be reaped" : how;
        if (WIFEXITED(_status) && WEXITSTATUS(_status) == 0) return std::string();
        if (WIFEXITED(_status)) return "exited with " + std::to_string(WEXITSTATUS(_status));
        return "ended by signal " + std::to_string(WTERMSIG(_status));
    }

    // Valid once Stop() has returned.
    long lines() const { return _lines; }
    long allowed() const { return _allowed; }
    std::string Stderr() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _stderr;
    }

private:
    bool Reap(Clock::duration timeout) {
        if (_pid <= 0) return true;
        pollfd ended{_pidfd.get(), POLLIN, 0};
        if (_pidfd.valid() && ::poll(&ended, 1, Milliseconds(timeout)) <= 0) return false;
        if (::waitpid(_pid, &_status, _pidfd.valid() ? WNOHANG : 0) != _pid) return false;
        _pid = -1;
        return true;
    }

    // Until both pipes close; bounded, since a child of the guard could hold them.
    void EndDrain() {
        if (!_thread.joinable()) return;
        {
            std::unique_lock<std::mutex> lock(_mutex);
            _changed.wait_for(lock, kExitTimeout, [&] { return _closed; });
        }
        _quit = true;
        _thread.join();
    }

    void Drain() {
        std::vector<char> buffer(kPipeBytes);
        bool outOpen = true, errOpen = true;
        while ((outOpen || errOpen) && !_quit) {
            pollfd fds[2] = {{outOpen ? _out.get() : -1, POLLIN, 0}, {errOpen ? _err.get() : -1, POLLIN, 0}};
            if (::poll(fds, 2, 100) < 0 && errno != EINTR) break;
            if (fds[1].revents != 0) errOpen = ReadErr(buffer);
            if (fds[0].revents != 0) {
                outOpen = ReadOut(buffer);
                if (outOpen) std::this_thread::sleep_for(kDrainPace);
            }
        }
        std::lock_guard<std::mutex> lock(_mutex);
        _closed = true;
        _changed.notify_all();
    }

    // Counts whole lines and those with an allow verdict. False at the end of the pipe.
    bool ReadOut(std::vector<char>& buffer) {
        const ssize_t got = ::read(_out.get(), buffer.data(), buffer.size());
        if (got <= 0) return got < 0 && (errno == EINTR || errno == EAGAIN);
        const char* data = buffer.data();
        const char* end = data + got;
        while (data < end) {
            const char* newline =
                static_cast<const char*>(std::memchr(data, '\n', static_cast<std::size_t>(end - data)));
            _partial.append(data, newline != nullptr ? newline : end);
            if (newline == nullptr) break;
            ++_lines;
            _allowed += _partial.find(" verdict=allow") != std::string::npos;
            _partial.clear();
            data = newline + 1;
        }
        return true;
    }

    bool ReadErr(std::vector<char>& buffer) {
        const ssize_t got = ::read(_err.get(), buffer.data(), buffer.size());
        if (got <= 0) return got < 0 && (errno == EINTR || errno == EAGAIN);
        std::lock_guard<std::mutex> lock(_mutex);
        if (_stderr.size() < kStderrKeep)
            _stderr.append(buffer.data(), std::min(static_cast<std::size_t>(got), kStderrKeep - _stderr.size()));
        if (!_ready && _stderr.find(kGuardReady) != std::string::npos) {
            _ready = true;
            _changed.notify_all();
        }
        return true;
    }

    pid_t _pid = -1;
    int _status = 0;
    UniqueFd _pidfd, _out, _err;
    std::thread _thread;
    std::atomic<bool> _quit{false};
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _ready = false, _closed = false;  // under _mutex
    std::string _stderr;                   // under _mutex
    std::string _partial;                  // the drain thread's alone
    long _lines = 0, _allowed = 0;         // the drain thread's until it has ended
};

struct Checker {
    const char* label;
    const char* what;
};

enum CheckerIndex : std::size_t { kNone, kPlain, kModule, kGuard, kCheckers };

struct Run {
    double us = -1;  // per open; below 0 when the run failed
    std::string note;
};

class GuardedOpens {
public:
    explicit GuardedOpens(const Settings& settings)
        : _settings(settings), _dir(kBase, "fn_bench_permit_"), _file(_dir.path() + "guarded") {}

    // Runs the rounds and prints each run and the table; false when a run failed.
    bool Measure() {
        if (_dir.path().empty() || !std::ofstream(_file)) {
            std::printf("guarded opens: cannot make the file under %s\n", kBase);
            return false;
        }
        const std::string moduleError = _session.Start(FN_MODULE_PATH);
        if (!moduleError.empty()) std::printf("module not loaded (%s): skipped\n", moduleError.c_str());
        const bool haveGuard = ::access(FN_CLI_PATH, X_OK) == 0;
        if (!haveGuard)
            std::printf("%s is missing (cmake --build build --target filenotify filenotify_module): skipped\n",
                        FN_CLI_PATH);
        const Checker checkers[kCheckers] = {
            {"none", "no checker"},
            {"plain", "a thread here: FAN_CLASS_CONTENT group, FAN_OPEN_PERM on the folder, FAN_ALLOW each"},
            {"module", "the module loaded here, permission watch, allow-all consumer"},
            {"guard", FN_CLI_PATH " guard FOLDER, its own process, stdout from a pipe"},
        };
        bool enabled[kCheckers] = {true, true, moduleError.empty(), haveGuard};
        std::printf("Guarded opens: %s opens and closes of one file by a child process per run, %d rounds, %u CPUs\n",
                    Grouped(_settings.opens).c_str(), _settings.runs, std::thread::hardware_concurrency());
        for (std::size_t c = 0; c < kCheckers; ++c)
            if (enabled[c]) std::printf("  %-7s %s\n", checkers[c].label, checkers[c].what);
        std::fflush(stdout);

        std::vector<Run> runs[kCheckers];
        bool ok = true;
        for (int round = 0; round < _settings.runs && !g_interrupted; ++round) {
            // Each round starts with the next checker, so that none always follows the same one.
            for (std::size_t turn = 0; turn < kCheckers && !g_interrupted; ++turn) {
                const std::size_t c = (turn + static_cast<std::size_t>(round)) % kCheckers;
                if (!enabled[c]) {
                    runs[c].push_back(Run{});
                    continue;
                }
                std::string error, note;
                const double seconds = RunOnce(c, error, note);
                Run run;
                run.note = note;
                std::printf("round %d  %-7s ", round + 1, checkers[c].label);
                if (error.empty()) {
                    run.us = seconds * 1e6 / static_cast<double>(_settings.opens);
                    std::printf("%8.2f us/open  (%.2f s)\n", run.us, seconds);
                } else {
                    ok = false;
                    std::printf("FAILED: %s\n", error.c_str());
                }
                if (!note.empty()) std::printf("    %s\n", note.c_str());
                std::fflush(stdout);
                runs[c].push_back(std::move(run));
            }
        }
        PrintTable(checkers, enabled, runs);
        return ok;
    }

private:
    // Seconds of one loop under checker c; error set on a failure.
    double RunOnce(std::size_t c, std::string& error, std::string& note) {
        const Clock::duration timeout = kRunTimeout + kPerOpenLimit * _settings.opens;
        OpenLoop loop;
        if (c == kNone) {
            loop = ChildOpenLoop(_file.c_str(), _settings.opens, timeout, -1, nullptr);
        } else if (c == kPlain) {
            PlainResponder responder(_dir.path());
            if (!responder.Ready()) {
                error = "plain group not marked";
                return -1;
            }
            loop = ChildOpenLoop(_file.c_str(), _settings.opens, timeout, -1, nullptr);
            const long answered = responder.Stop();
            if (loop.error.empty() && answered != _settings.opens)
                loop.error = "allowed " + Grouped(answered) + " opens";
        } else if (c == kModule) {
            _session.consumer().Reset(0);
            if (!_session.Watch(_dir.path(), FAN_OPEN, true, false)) {
                error = "permission watch refused";
                return -1;
            }
            loop = ChildOpenLoop(_file.c_str(), _settings.opens, timeout, -1, nullptr);
            if (!_session.Watch(_dir.path(), FAN_OPEN, true, true) && loop.error.empty()) loop.error = "remove refused";
            const long asked = _session.consumer().received, anonymous = _session.consumer().anonymous;
            if (loop.error.empty() && (asked != _settings.opens || anonymous != 0))
                loop.error = "consumer asked " + Grouped(asked) + " times, " + Grouped(anonymous) + " without pid/exe";
        } else {
            loop = GuardLoop(timeout, note);
        }
        error = loop.error;
        return loop.seconds;
    }

    OpenLoop GuardLoop(Clock::duration timeout, std::string& note) {
        OpenLoop loop;
        GuardProcess guard;
        const std::string folder = _dir.path().substr(0, _dir.path().size() - 1);
        loop.error = guard.Spawn(FN_CLI_PATH, folder);
        if (!loop.error.empty()) return loop;
        // Nothing is opened under its mark before it answers.
        if (!guard.WaitReady(kReadyTimeout)) {
            const std::string exit = guard.Stop();
            loop.error = g_interrupted ? "interrupted"
                                       : "not ready (" + (exit.empty() ? std::string("no ready line") : exit) +
                                             "); stderr: " + OneLine(guard.Stderr());
            return loop;
        }
        loop = ChildOpenLoop(_file.c_str(), _settings.opens, timeout, guard.pidfd(), [&guard] { guard.Kill(); });
        const std::string exit = guard.Stop();
        if (loop.error.empty() && !exit.empty()) loop.error = "guard " + exit;
        if (loop.error.empty() && (guard.allowed() != _settings.opens || guard.lines() != guard.allowed()))
            loop.error =
                "guard printed " + Grouped(guard.allowed()) + " allow verdicts in " + Grouped(guard.lines()) + " lines";
        const std::string rest = StderrBeyondReady(guard.Stderr(), kGuardReady);
        if (!rest.empty()) note = "guard stderr: " + rest;
        if (!loop.error.empty()) loop.seconds = -1;
        return loop;
    }

    void PrintTable(const Checker* checkers, const bool* enabled, const std::vector<Run>* runs) const {
        // Extra per open: the checker's run less "none" of the same round, so a
        // round's drift cancels out.
        double extra[kCheckers] = {};
        bool haveExtra[kCheckers] = {};
        for (std::size_t c = 0; c < kCheckers; ++c) {
            std::vector<double> differences;
            for (std::size_t r = 0; r < runs[c].size(); ++r)
                if (r < runs[kNone].size() && runs[c][r].us >= 0 && runs[kNone][r].us >= 0)
                    differences.push_back(runs[c][r].us - runs[kNone][r].us);
            haveExtra[c] = c != kNone && !differences.empty();
            if (haveExtra[c]) extra[c] = Median(differences);
        }
        std::printf("\nMedians over the rounds (extra = the checker's us/open less \"none\" of the same round)\n");
        std::printf("%-7s %10s %12s %14s  %s\n", "checker", "us/open", "extra us", "extra / plain",
                    "us/open per round");
        for (std::size_t c = 0; c < kCheckers; ++c) {
            if (!enabled[c]) continue;
            std::vector<double> values;
            std::string each;
            for (const Run& run : runs[c]) {
                char text[32] = " failed";
                if (run.us >= 0) {
                    values.push_back(run.us);
                    std::snprintf(text, sizeof text, " %.2f", run.us);
                }
                each += text;
            }
            char median[32] = "-", more[32] = "-", ratio[32] = "-";
            if (!values.empty()) std::snprintf(median, sizeof median, "%.2f", Median(values));
            if (haveExtra[c]) std::snprintf(more, sizeof more, "%.2f", extra[c]);
            if (haveExtra[c] && haveExtra[kPlain] && extra[kPlain] > 0)
                std::snprintf(ratio, sizeof ratio, "%.2f", extra[c] / extra[kPlain]);
            std::printf("%-7s %10s %12s %14s  %s\n", checkers[c].label, median, more, ratio, each.c_str() + 1);
        }
        if (haveExtra[kGuard] && haveExtra[kPlain] && extra[kPlain] > 0)
            std::printf("guard / plain extra per open: %.2f\n", extra[kGuard] / extra[kPlain]);
        std::fflush(stdout);
    }

    const Settings& _settings;
    const TempDir _dir;
    const std::string _file;
    Session _session;  // after _dir: its marks go before the folder
};

// ---- held accesses ---------------------------------------------------------

// Asked, it answers nothing until released: a consumer that hangs.
class SilentConsumer : public Engine::MixedTask {
public:
    SilentConsumer() : Engine::MixedTask("bench_silent", "bench", Framework::TaskCondition::TASK_TYPE_EVENT, 1024) {}
    // One message at a time: the others wait in the queue, where they count.
    int Run() override { return ServeMessages(3000, 1); }
    int FileNotifyMessageAction(Engine::FileNotifyMessage* /*msg*/) override {
        asked.fetch_add(1);
        std::unique_lock<std::mutex> lock(_mutex);
        _cond.wait(lock, [this] { return _released; });
        return 2;  // a deny, always too late
    }
    void Release() {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _released = true;
        }
        _cond.notify_all();
    }
    std::atomic<int> asked{0};

protected:
    ~SilentConsumer() override = default;

private:
    std::mutex _mutex;
    std::condition_variable _cond;
    bool _released = false;
};

// kHeldOpeners children that open one file at the same moment; each reports
// the CLOCK_MONOTONIC times around its open. Fork without exec: the children
// call only async-signal-safe functions.
class Openers {
public:
    struct Times {
        long long start = 0, end = 0;  // ns
        int error = 0;
    };
    static constexpr int kCount = 8;

    explicit Openers(const std::string& path) {
        int go[2], out[2];
        if (::pipe2(go, O_CLOEXEC) != 0) return;
        if (::pipe2(out, O_CLOEXEC) != 0) {
            ::close(go[0]);
            ::close(go[1]);
            return;
        }
        _go = UniqueFd(go[1]);
        _results = UniqueFd(out[0]);
        for (int i = 0; i < kCount; ++i) {
            const pid_t pid = ::fork();
            if (pid == 0) {
                // Only the parent may hold the write end: its close is the signal.
                ::close(go[1]);
                Open(path.c_str(), go[0], out[1]);
            }
            if (pid > 0) _pids.push_back(pid);
        }
        ::close(go[0]);
        ::close(out[1]);
    }
    ~Openers() {
        for (pid_t pid : _pids) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }
    bool Started() const { return _pids.size() == kCount; }
    // All open at once.
    void Go() { _go.reset(); }
    // Every child's times, or false when they do not come within timeout.
    bool Collect(Clock::duration timeout, std::vector<Times>& times) {
        const Clock::time_point deadline = Clock::now() + timeout;
        while (times.size() < kCount) {
            pollfd ready{_results.get(), POLLIN, 0};
            const int left = Milliseconds(deadline - Clock::now());
            if (left <= 0 || g_interrupted || ::poll(&ready, 1, std::min(left, 100)) < 0) return false;
            Times one;
            if ((ready.revents & POLLIN) != 0 && ::read(_results.get(), &one, sizeof one) == sizeof one)
                times.push_back(one);
        }
        return true;
    }

private:
    [[noreturn]] static void Open(const char* path, int go, int out) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        char byte;
        while (::read(go, &byte, 1) < 0 && errno == EINTR) {
        }
        Times times;
        timespec at{};
        ::clock_gettime(CLOCK_MONOTONIC, &at);
        times.start = at.tv_sec * 1000000000LL + at.tv_nsec;
        const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        times.error = fd < 0 ? errno : 0;
        ::clock_gettime(CLOCK_MONOTONIC, &at);
        times.end = at.tv_sec * 1000000000LL + at.tv_nsec;
        ::_exit(::write(out, &times, sizeof times) == sizeof times ? 0 : 1);
    }

    UniqueFd _go, _results;
    std::vector<pid_t> _pids;
};

long long NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
}

// Accesses held by a consumer that never answers: how long the slowest of
// eight simultaneous opens waits, and how soon a stop of the module frees
// eight held ones.
class HeldAccesses {
public:
    explicit HeldAccesses(const Settings& settings)
        : _settings(settings), _dir(kBase, "fn_bench_held_"), _file(_dir.path() + "held") {}

    bool Measure() {
        if (_dir.path().empty() || !std::ofstream(_file)) {
            std::printf("held accesses: cannot make the file under %s\n", kBase);
            return false;
        }
        std::printf(
            "\nHeld accesses: %d children open one guarded file at once, the consumer never answers, %d "
            "rounds\n",
            Openers::kCount, _settings.runs);
        std::vector<double> slowest, stops;
        bool ok = true;
        for (int round = 0; round < _settings.runs && !g_interrupted && ok; ++round) {
            double waited = 0, stop = 0;
            std::string error = Round(false, waited);
            if (error.empty()) error = Round(true, stop);
            ok = error.empty();
            if (ok) {
                slowest.push_back(waited);
                stops.push_back(stop);
                std::printf("round %d  slowest open %7.1f ms   stop to the last open %6.1f ms\n", round + 1, waited,
                            stop);
            } else {
                std::printf("round %d  FAILED: %s\n", round + 1, error.c_str());
            }
            std::fflush(stdout);
        }
        if (!slowest.empty()) {
            std::printf("medians: slowest open %.1f ms (max %.1f), stop %.1f ms (max %.1f)\n", Median(slowest),
                        *std::max_element(slowest.begin(), slowest.end()), Median(stops),
                        *std::max_element(stops.begin(), stops.end()));
        }
        std::fflush(stdout);
        return ok;
    }

private:
    // One session: the slowest open in ms, or with stop the ms from the
    // module's stop to the last open's return. An error text, or empty.
    std::string Round(bool stop, double& ms) {
        BenchUtil::ModuleSession<SilentConsumer> session;
        std::string error = session.Start(FN_MODULE_PATH);
        if (!error.empty()) return "module not loaded: " + error;
        auto& consumer = session.consumer();
        struct Release {
            SilentConsumer& consumer;
            ~Release() { consumer.Release(); }  // before the session ends its thread
        } release{consumer};
        Engine::_FileNotifyOpt opt;
        opt.permit = true;
        opt.inotifyOnly = false;
        opt.watchChildFolder = true;
        std::string reply;
        if (session.Send(new Engine::FileNotifyWatchMessage(&consumer, _dir.path(), {FAN_OPEN}, opt), reply) != 0 ||
            std::atoi(reply.c_str()) <= 0)
            return "permission watch refused";
        Openers openers(_file);
        if (!openers.Started()) return ErrnoText("fork");
        openers.Go();
        long long stoppedAt = 0;
        if (stop) {
            // All eight asked: one in the handler, seven in its queue.
            const Clock::time_point deadline = Clock::now() + std::chrono::seconds(5);
            while (!(consumer.asked == 1 && consumer.GetQueuedMsgCount() == Openers::kCount - 1)) {
                if (Clock::now() > deadline)
                    return "the consumer was asked " + std::to_string(consumer.asked + consumer.GetQueuedMsgCount()) +
                           " times, not eight";
                std::this_thread::yield();
            }
            stoppedAt = NowNs();
            session.StopModule();
        }
        std::vector<Openers::Times> times;
        if (!openers.Collect(std::chrono::seconds(10), times)) return "the opens did not end within 10 s";
        long long worst = 0;
        for (const auto& one : times) {
            if (one.error != 0) return std::string("an open failed: ") + std::strerror(one.error);
            worst = std::max(worst, stop ? one.end - stoppedAt : one.end - one.start);
        }
        ms = static_cast<double>(worst) / 1e6;
        return std::string();
    }

    const Settings& _settings;
    const TempDir _dir;
    const std::string _file;
};

// ---- notification delivery -------------------------------------------------

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
    Settings settings;
    if (!ParseArguments(argc, argv, settings)) {
        std::fprintf(stderr, "usage: %s [--quick] [--opens N] [--runs N] [--permit-only] [--benchmark_...]\n", argv[0]);
        return 2;
    }
    const int probe = ::fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
    if (probe < 0) {
        std::fprintf(stderr, "fanotify_init refused: CAP_SYS_ADMIN needed\n");
        return 1;
    }
    ::close(probe);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        std::signal(sig, OnStopSignal);
    for (int sig : {SIGQUIT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        std::signal(sig, RestoreAndReraise);
    std::atexit(RestoreQueue);

    g_graceful = 1;
    bool ok = GuardedOpens(settings).Measure();
    if (!g_interrupted) ok = HeldAccesses(settings).Measure() && ok;
    g_graceful = 0;
    if (g_interrupted) {
        std::printf("interrupted\n");
        return 130;
    }
    if (!settings.permitOnly) {
        std::printf("\n");
        std::fflush(stdout);
        if (!BenchUtil::RaiseSysctl(g_maxQueued, 4 * kFiles))
            std::fprintf(stderr, "cannot raise fs.fanotify.max_queued_events: the notify figure may overflow\n");
        benchmark::RunSpecifiedBenchmarks();
        RestoreQueue();
    }
    benchmark::Shutdown();
    ok = ok && !g_failed;
    return ok ? 0 : 1;
}
