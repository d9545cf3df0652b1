// The filenotify command (text and --json) beside inotifywait -m, in one
// process, the tools taking turns on the same workloads:
//   live, one folder  N files (100,000) each created, written (1 byte), closed
//                     and deleted while the tool runs: create, modify,
//                     close_write and delete, 4 events a file
//   live, tree        the same files spread over a 2,000-folder tree that is
//                     made before the tool starts; the tools run with -r
//   backlog           the tool is stopped (SIGSTOP) once its watches are in
//                     place, the events are made, the tool is continued
// Events are the newlines of the tool's stdout, read from a pipe in large
// chunks, less the lines that report a kernel queue overflow (Q_OVERFLOW). A
// run ends when every expected event is in, or after 2 s without a new line:
// the shortfall is then reported and the quiet time not counted. Live rates
// run from the first file call to the last event line; backlog rates from
// SIGCONT. At the end: per workload and tool the median rate, the events each
// run received, and the ratio filenotify / inotifywait of the medians.
// Watches only its own folders under /dev/shm. The backlog needs root: it
// raises fs.inotify.max_queued_events before its tools start (the kernel takes
// the limit when an inotify instance is made) and writes the old value back
// after the workload, at exit, or on a signal.
//
//   cli_bench [--quick] [--files N] [--runs N]
//     --quick  10,000 files and one run each, for trying it out

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
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
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BenchUtil.h"
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

constexpr const char* kBase = "/dev/shm/";  // tmpfs: the file calls cost no disk time
constexpr const char* kEventNames = "create,modify,close_write,delete";
constexpr long kEventsPerFile = 4;
constexpr int kTopFolders = 40;
constexpr int kFoldersPerTop = 49;  // 40 * (1 + 49) = 2,000 folders below the root
constexpr auto kQuiet = std::chrono::seconds(2);
constexpr auto kReadyTimeout = std::chrono::seconds(60);
constexpr auto kRunTimeout = std::chrono::seconds(300);
constexpr auto kExitTimeout = std::chrono::seconds(10);
constexpr std::size_t kChunk = 1 << 20;
constexpr int kPipeBytes = 1 << 20;  // the tools seldom block on a full pipe
// A read smaller than this means the tool writes slowly enough to be read
// line by line; the counter then waits a little so that it reads in chunks.
constexpr std::size_t kPaceBelow = 64 * 1024;
constexpr auto kPace = std::chrono::milliseconds(1);
constexpr char kOverflowText[] = "Q_OVERFLOW";
constexpr std::size_t kOverflowLength = sizeof(kOverflowText) - 1;
constexpr std::size_t kStderrKeep = 16 * 1024;

volatile std::sig_atomic_t g_interrupted = 0;
BenchUtil::Sysctl g_maxQueuedEvents{"/proc/sys/fs/inotify/max_queued_events", {}, 0};

// The first SIGINT or SIGTERM ends the current run cleanly (tool stopped,
// folders removed); a second one ends the program at once.
void OnStopSignal(int sig) {
    BenchUtil::RestoreSysctl(g_maxQueuedEvents);
    if (g_interrupted) {
        std::signal(sig, SIG_DFL);
        std::raise(sig);
    }
    g_interrupted = 1;
}

void OnFatalSignal(int sig) {
    BenchUtil::RestoreSysctl(g_maxQueuedEvents);
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}

void RestoreAtExit() {
    BenchUtil::RestoreSysctl(g_maxQueuedEvents);
}

double Seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

// ---- settings and tools ----------------------------------------------------

struct Settings {
    long files = 100000;
    int runs = 3;
};

// False on a bad command line.
bool ParseArguments(int argc, char** argv, Settings& settings) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        long value = 0;
        if (argument == "--quick") {
            settings.files = 10000;
            settings.runs = 1;
        } else if (NumberOption(argc, argv, i, "--files", LONG_MAX, value)) {
            settings.files = value;
        } else if (NumberOption(argc, argv, i, "--runs", 999, value)) {
            settings.runs = static_cast<int>(value);
        } else {
            return false;
        }
    }
    return true;
}

struct Tool {
    std::string label;
    std::string binary;
    bool filenotify;
    bool json;
    const char* readyText;  // on stderr once the watches are in place
};

std::vector<std::string> Command(const Tool& tool, const std::string& folder, bool recursive) {
    std::vector<std::string> args{tool.binary};
    if (tool.filenotify) {
        args.insert(args.end(), {"watch", "--no-initial-create", "-e", kEventNames});
        if (tool.json) args.emplace_back("--json");
    } else {
        args.insert(args.end(), {"-m", "-e", kEventNames});
    }
    if (recursive) args.emplace_back("-r");
    args.push_back(folder);
    return args;
}

std::string FindInPath(const char* name) {
    const char* path = std::getenv("PATH");
    std::string folders = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    std::size_t begin = 0;
    while (begin <= folders.size()) {
        std::size_t end = folders.find(':', begin);
        if (end == std::string::npos) end = folders.size();
        const std::string folder = end > begin ? folders.substr(begin, end - begin) : ".";
        const std::string candidate = folder + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        begin = end + 1;
    }
    return std::string();
}

struct Workload {
    const char* label;
    bool tree;
    bool backlog;
};

// ---- the tool as a child process -------------------------------------------

// A tool with stdout and stderr on pipes and stdin on /dev/null. It gets
// SIGKILL when this program dies first, or when it is still running at
// destruction.
class ToolProcess {
public:
    ToolProcess() = default;
    ~ToolProcess() {
        if (_pid <= 0) return;
        ::kill(_pid, SIGKILL);
        Reap(kExitTimeout);
    }
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    // An empty string, or what went wrong.
    std::string Spawn(const std::vector<std::string>& args) {
        BenchUtil::PipedChild child;
        const std::string error = BenchUtil::SpawnPiped(args, kPipeBytes, child);
        if (!error.empty()) return error;
        const pid_t pid = child.pid;
        _pid = pid;
        // Through syscall(): the pidfd_open declaration of glibc 2.36 lacks C linkage.
        _pidfd.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
        _out = std::move(child.out);
        _err = std::move(child.err);
        return std::string();
    }

    int out() const { return _out.get(); }
    int err() const { return _err.get(); }
    bool Signal(int sig) const { return _pid > 0 && ::kill(_pid, sig) == 0; }

    // True once the tool is stopped by a signal, within timeout.
    bool WaitStopped(Clock::duration timeout) {
        const auto deadline = Clock::now() + timeout;
        while (_pid > 0 && !g_interrupted) {
            int status = 0;
            const pid_t changed = ::waitpid(_pid, &status, WUNTRACED | WNOHANG);
            if (changed == _pid && WIFSTOPPED(status)) return true;
            if (changed == _pid) {  // it ended instead
                _status = status;
                _pid = -1;
                return false;
            }
            if (changed < 0 || Clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

    // SIGTERM, and SIGKILL when it has not ended in time. How it ended, or an
    // empty string for a normal end on SIGTERM.
    std::string Stop() {
        if (_pid > 0) {
            ::kill(_pid, SIGTERM);
            ::kill(_pid, SIGCONT);  // a stopped tool would keep SIGTERM pending
            if (!Reap(kExitTimeout)) {
                ::kill(_pid, SIGKILL);
                Reap(kExitTimeout);
                return "did not end within 10 s of SIGTERM: killed";
            }
        }
        if (WIFEXITED(_status) && WEXITSTATUS(_status) == 0) return std::string();
        if (WIFSIGNALED(_status) && WTERMSIG(_status) == SIGTERM) return std::string();
        if (WIFEXITED(_status)) return "exited with " + std::to_string(WEXITSTATUS(_status));
        return "ended by signal " + std::to_string(WTERMSIG(_status));
    }

private:
    bool Reap(Clock::duration timeout) {
        if (_pidfd.valid()) {
            pollfd ended{_pidfd.get(), POLLIN, 0};
            if (::poll(&ended, 1, Milliseconds(timeout)) <= 0) return false;
        }
        if (::waitpid(_pid, &_status, _pidfd.valid() ? WNOHANG : 0) != _pid) return false;
        _pid = -1;
        _pidfd.reset();
        return true;
    }

    pid_t _pid = -1;
    int _status = 0;
    UniqueFd _pidfd, _out, _err;
};

// ---- counting the output ---------------------------------------------------

// Occurrences of the overflow text in data.
long OverflowsIn(const char* data, std::size_t size) {
    long found = 0;
    while (const void* hit = ::memmem(data, size, kOverflowText, kOverflowLength)) {
        ++found;
        const std::size_t skip = static_cast<std::size_t>(static_cast<const char*>(hit) - data) + kOverflowLength;
        data += skip;
        size -= skip;
    }
    return found;
}

// Reads a tool's stdout and stderr on its own thread until both close:
// counts stdout lines and the overflow lines among them, stamps the last
// line, keeps the start of stderr and tells when the ready text was seen.
class OutputCounter {
public:
    OutputCounter(int out, int err, const char* readyText) : _out(out), _err(err), _readyText(readyText) {
        _thread = std::thread([this] { Run(); });
    }
    ~OutputCounter() {
        _quit = true;
        _thread.join();
    }
    OutputCounter(const OutputCounter&) = delete;
    OutputCounter& operator=(const OutputCounter&) = delete;

    // Wakes the waiter once this many event lines are in.
    void SetExpected(long expected) { _expected = expected; }

    // True once the ready text is on stderr; false on a time-out, an
    // interrupt or the tool's end.
    bool WaitReady(Clock::duration timeout) {
        const auto deadline = Clock::now() + timeout;
        std::unique_lock<std::mutex> lock(_mutex);
        while (!_ready && !_closed && !g_interrupted && Clock::now() < deadline)
            _changed.wait_for(lock, std::chrono::milliseconds(100));
        return _ready;
    }

    // Until the next wake-up (expected count reached, pipes closed) or timeout.
    void WaitChange(Clock::duration timeout) {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait_for(lock, timeout, [&] { return _closed || EventLines() >= _expected; });
    }

    long EventLines() const {
        return _lines.load(std::memory_order_acquire) - _overflows.load(std::memory_order_acquire);
    }
    long Overflows() const { return _overflows.load(std::memory_order_acquire); }
    Clock::time_point LastLine() const {
        return Clock::time_point(Clock::duration(_lastLine.load(std::memory_order_acquire)));
    }
    bool Closed() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _closed;
    }
    std::string Stderr() {
        std::lock_guard<std::mutex> lock(_mutex);
        return _stderr;
    }

    // Until both pipes close (the tool has ended), at most timeout.
    void WaitClosed(Clock::duration timeout) {
        std::unique_lock<std::mutex> lock(_mutex);
        _changed.wait_for(lock, timeout, [&] { return _closed; });
    }

private:
    void Run() {
        std::vector<char> buffer(kChunk);
        bool outOpen = true, errOpen = true;
        while ((outOpen || errOpen) && !_quit) {
            pollfd fds[2] = {{outOpen ? _out : -1, POLLIN, 0}, {errOpen ? _err : -1, POLLIN, 0}};
            if (::poll(fds, 2, 100) < 0 && errno != EINTR) break;
            std::size_t taken = 0;
            if (fds[0].revents != 0) outOpen = ReadOut(buffer, taken);
            if (fds[1].revents != 0) errOpen = ReadErr(buffer);
            if (fds[0].revents != 0 && outOpen && taken < kPaceBelow) std::this_thread::sleep_for(kPace);
        }
        std::lock_guard<std::mutex> lock(_mutex);
        _closed = true;
        _changed.notify_all();
    }

    // False at the end of the pipe.
    bool ReadOut(std::vector<char>& buffer, std::size_t& taken) {
        for (;;) {
            const ssize_t length = ::read(_out, buffer.data(), buffer.size());
            if (length < 0 && errno == EINTR) continue;
            if (length < 0) return errno == EAGAIN;
            if (length == 0) return false;
            const char* data = buffer.data();
            const auto size = static_cast<std::size_t>(length);
            taken += size;
            const long lines = std::count(data, data + size, '\n');
            const long overflows = CountOverflows(data, size);
            if (lines > 0) {
                // The stamp first: whoever sees the new count sees a stamp at least as new.
                _lastLine.store(Clock::now().time_since_epoch().count(), std::memory_order_release);
                _overflows.fetch_add(overflows, std::memory_order_release);
                _lines.fetch_add(lines, std::memory_order_release);
                if (EventLines() >= _expected) {
                    std::lock_guard<std::mutex> lock(_mutex);
                    _changed.notify_all();
                }
            }
            if (size < buffer.size()) return true;
        }
    }

    // Overflow texts in this chunk and across the seam with the last one.
    long CountOverflows(const char* data, std::size_t size) {
        std::string seam = _carry;
        seam.append(data, std::min(size, kOverflowLength - 1));
        const long found = OverflowsIn(seam.data(), seam.size()) + OverflowsIn(data, size);
        if (size >= kOverflowLength - 1) {
            _carry.assign(data + size - (kOverflowLength - 1), kOverflowLength - 1);
        } else {
            _carry.append(data, size);
            if (_carry.size() > kOverflowLength - 1) _carry.erase(0, _carry.size() - (kOverflowLength - 1));
        }
        return found;
    }

    bool ReadErr(std::vector<char>& buffer) {
        for (;;) {
            const ssize_t length = ::read(_err, buffer.data(), buffer.size());
            if (length < 0 && errno == EINTR) continue;
            if (length <= 0) return length < 0 && errno == EAGAIN;
            std::lock_guard<std::mutex> lock(_mutex);
            if (_stderr.size() < kStderrKeep) _stderr.append(buffer.data(), static_cast<std::size_t>(length));
            if (!_ready && _stderr.find(_readyText) != std::string::npos) {
                _ready = true;
                _changed.notify_all();
            }
        }
    }

    const int _out, _err;
    const char* const _readyText;
    std::atomic<long> _lines{0}, _overflows{0};
    std::atomic<Clock::rep> _lastLine{0};
    std::atomic<long> _expected{0};
    std::atomic<bool> _quit{false};
    std::string _carry;  // the end of the last chunk, for a text cut in two
    std::mutex _mutex;
    std::condition_variable _changed;
    bool _ready = false, _closed = false;
    std::string _stderr;
    std::thread _thread;
};

// ---- one run ---------------------------------------------------------------

struct RunResult {
    std::string error;  // the run could not be made; nothing else counts
    long expected = 0;
    long received = 0;   // event lines at the end of the run
    long overflows = 0;  // Q_OVERFLOW lines, not counted as events
    long late = 0;       // event lines after the end of the run (after a quiet end)
    long failedCalls = 0;
    double seconds = 0;  // to the last event line
    double generatorSeconds = 0;
    bool quietEnd = false;
    bool timedOut = false;
    std::string exit;        // an unusual end of the tool
    std::string stderrNote;  // stderr beyond the ready text
    double Rate() const { return seconds > 0 ? static_cast<double>(received) / seconds : 0; }
};

// The folders that get the files: the root, or the 2,000 folders of a tree
// below it.
std::vector<std::string> MakeFolders(const std::string& root, bool tree, std::string& error) {
    if (!tree) return {root};
    std::vector<std::string> folders;
    for (int top = 0; top < kTopFolders; ++top) {
        const std::string folder = root + "a" + std::to_string(top) + "/";
        folders.push_back(folder);
        for (int sub = 0; sub < kFoldersPerTop; ++sub)
            folders.push_back(folder + "b" + std::to_string(sub) + "/");
    }
    for (const std::string& folder : folders) {
        if (::mkdir(folder.c_str(), 0755) != 0) {
            error = ErrnoText(("mkdir " + folder).c_str());
            return {};
        }
    }
    return folders;
}

// Round robin over the folders, so that every folder is busy all along.
std::vector<std::string> FilePaths(const std::vector<std::string>& folders, long files) {
    std::vector<std::string> paths;
    paths.reserve(static_cast<std::size_t>(files));
    for (long i = 0; i < files; ++i)
        paths.push_back(folders[static_cast<std::size_t>(i) % folders.size()] + "f" + std::to_string(i));
    return paths;
}

// Creates, writes (1 byte), closes and deletes every path. The failed calls.
long ChurnFiles(const std::vector<std::string>& paths) {
    long failed = 0;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        if ((i & 4095) == 0 && g_interrupted) break;
        const char* path = paths[i].c_str();
        const int fd = ::open(path, O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            ++failed;
            continue;
        }
        if (::write(fd, "x", 1) != 1) ++failed;
        ::close(fd);
        if (::unlink(path) != 0) ++failed;
    }
    return failed;
}

RunResult RunOnce(const Tool& tool, const Workload& workload, long files) {
    RunResult result;
    result.expected = files * kEventsPerFile;
    const TempDir dir(kBase, "fn_cli_bench_");
    if (dir.path().empty()) {
        result.error = ErrnoText("mkdtemp under /dev/shm");
        return result;
    }
    const std::vector<std::string> folders = MakeFolders(dir.path(), workload.tree, result.error);
    if (!result.error.empty()) return result;
    const std::vector<std::string> paths = FilePaths(folders, files);
    const std::string root = dir.path().substr(0, dir.path().size() - 1);

    // Declared before the counter: the counter's thread ends before the pipes close.
    ToolProcess process;
    result.error = process.Spawn(Command(tool, root, workload.tree));
    if (!result.error.empty()) return result;
    OutputCounter counter(process.out(), process.err(), tool.readyText);
    counter.SetExpected(result.expected);
    if (!counter.WaitReady(kReadyTimeout)) {
        const std::string exit = process.Stop();
        counter.WaitClosed(kExitTimeout);
        result.error = g_interrupted ? "interrupted"
                                     : "not ready (" + (exit.empty() ? std::string("no ready line") : exit) +
                                           "); stderr: " + OneLine(counter.Stderr());
        return result;
    }
    if (workload.backlog && !(process.Signal(SIGSTOP) && process.WaitStopped(kExitTimeout))) {
        result.error = "the tool did not stop on SIGSTOP";
        return result;
    }

    auto start = Clock::now();
    result.failedCalls = ChurnFiles(paths);
    const auto generated = Clock::now();
    result.generatorSeconds = Seconds(generated - start);
    if (workload.backlog) {
        start = Clock::now();
        process.Signal(SIGCONT);
    }
    const auto since = workload.backlog ? start : generated;

    const auto deadline = since + kRunTimeout;
    for (;;) {
        const auto now = Clock::now();
        if (counter.EventLines() >= result.expected || counter.Closed() || g_interrupted) break;
        if (now - std::max(counter.LastLine(), since) >= kQuiet) {
            result.quietEnd = true;
            break;
        }
        if (now >= deadline) {
            result.timedOut = true;
            break;
        }
        counter.WaitChange(std::chrono::milliseconds(100));
    }
    result.received = counter.EventLines();
    result.overflows = counter.Overflows();
    const auto last = counter.LastLine();
    result.seconds = result.received > 0 ? Seconds(last - start) : 0;

    result.exit = process.Stop();
    counter.WaitClosed(kExitTimeout);
    result.late = counter.EventLines() - result.received;
    result.stderrNote = StderrBeyondReady(counter.Stderr(), tool.readyText);
    if (g_interrupted) result.error = "interrupted";
    return result;
}

// ---- report ----------------------------------------------------------------

void PrintRun(const Workload& workload, const Tool& tool, int run, const RunResult& result) {
    std::printf("%-17s %-18s run %d: ", workload.label, tool.label.c_str(), run);
    if (!result.error.empty()) {
        std::printf("FAILED: %s\n", result.error.c_str());
        std::fflush(stdout);
        return;
    }
    std::printf("%s/%s events, %.2f s, %s ev/s (generator %.2f s)", Grouped(result.received).c_str(),
                Grouped(result.expected).c_str(), result.seconds, Grouped(static_cast<long>(result.Rate())).c_str(),
                result.generatorSeconds);
    if (result.received < result.expected) std::printf(", LOST %s", Grouped(result.expected - result.received).c_str());
    if (result.received > result.expected)
        std::printf(", %s MORE than expected", Grouped(result.received - result.expected).c_str());
    if (result.quietEnd) std::printf(", ended after 2 s without output");
    if (result.timedOut) std::printf(", TIME-OUT");
    if (result.overflows > 0) std::printf(", %s Q_OVERFLOW lines", Grouped(result.overflows).c_str());
    if (result.late > 0) std::printf(", %s lines after the end", Grouped(result.late).c_str());
    if (result.failedCalls > 0) std::printf(", %s FAILED file calls", Grouped(result.failedCalls).c_str());
    if (!result.exit.empty()) std::printf(", tool %s", result.exit.c_str());
    std::printf("\n");
    if (!result.stderrNote.empty()) std::printf("    stderr: %s\n", result.stderrNote.c_str());
    std::fflush(stdout);
}

double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void PrintSummary(const std::vector<Workload>& workloads, const std::vector<Tool>& tools,
                  const std::vector<std::vector<std::vector<RunResult>>>& results, long expected, bool peer) {
    std::printf("\nMedians (live: first file call to last event line; backlog: SIGCONT to last event line)\n");
    std::printf("%-17s %-18s %13s %14s  %s\n", "workload", "tool", "median ev/s", "/ inotifywait",
                "received per run / expected");
    bool anyLost = false;
    for (std::size_t w = 0; w < workloads.size(); ++w) {
        double peerMedian = 0;
        for (std::size_t t = 0; t < tools.size(); ++t) {
            std::vector<double> rates;
            std::string received;
            bool lost = false;
            for (const RunResult& run : results[w][t]) {
                if (!run.error.empty()) {
                    received += " failed";
                    continue;
                }
                rates.push_back(run.Rate());
                received += " " + Grouped(run.received);
                lost = lost || run.received < run.expected;
            }
            anyLost = anyLost || lost;
            const double median = Median(rates);
            if (peer && t == 0) peerMedian = median;
            char ratio[32] = "-";
            if (peer && t != 0 && peerMedian > 0 && !rates.empty())
                std::snprintf(ratio, sizeof(ratio), "%.2f", median / peerMedian);
            std::printf("%-17s %-18s %13s %14s  %s / %s%s\n", t == 0 ? workloads[w].label : "", tools[t].label.c_str(),
                        rates.empty() ? "-" : Grouped(static_cast<long>(median)).c_str(), ratio,
                        received.empty() ? "-" : received.c_str() + 1, Grouped(expected).c_str(),
                        lost ? "  LOST EVENTS" : "");
        }
    }
    std::printf("Events are stdout lines less Q_OVERFLOW lines.\n");
    if (anyLost) {
        std::printf(
            "A rate counts only the events received: with LOST EVENTS it is not comparable with that of a\n"
            "tool that delivered all of them.\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    if (!ParseArguments(argc, argv, settings)) {
        std::fprintf(stderr, "usage: %s [--quick] [--files N] [--runs N]\n", argv[0]);
        return 2;
    }
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        std::signal(sig, OnStopSignal);
    for (int sig : {SIGQUIT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
        std::signal(sig, OnFatalSignal);
    std::atexit(RestoreAtExit);

    std::vector<Tool> tools;
    const std::string peer = FindInPath("inotifywait");
    if (peer.empty()) {
        std::printf(
            "inotifywait is not in PATH (Debian: apt-get install inotify-tools): the peer is skipped, "
            "no ratios\n");
    } else {
        tools.push_back({"inotifywait", peer, false, false, "Watches established."});
    }
    const std::string filenotify = FN_CLI_PATH;
    if (::access(filenotify.c_str(), X_OK) != 0) {
        std::printf(
            "%s is missing: build it with `cmake --build build --target filenotify filenotify_module "
            "cli_bench`; filenotify is skipped\n",
            filenotify.c_str());
    } else {
        tools.push_back({"filenotify", filenotify, true, false, "watching 1 path"});
        tools.push_back({"filenotify --json", filenotify, true, true, "watching 1 path"});
    }
    if (tools.empty()) return 1;

    const std::vector<Workload> workloads = {
        {"live, one folder", false, false},
        {"live, tree (-r)", true, false},
        {"backlog (SIGSTOP)", false, true},
    };
    const long expected = settings.files * kEventsPerFile;
    std::printf("%s files, %s events a run, %d run(s) per tool and workload, %u CPUs; tools in turn:\n",
                Grouped(settings.files).c_str(), Grouped(expected).c_str(), settings.runs,
                std::thread::hardware_concurrency());
    for (const Tool& tool : tools) {
        std::string command;
        for (const std::string& arg : Command(tool, "FOLDER", false))
            command += " " + arg;
        std::printf("  %-18s%s\n", tool.label.c_str(), command.c_str());
    }
    std::fflush(stdout);

    std::vector<std::vector<std::vector<RunResult>>> results(workloads.size(),
                                                             std::vector<std::vector<RunResult>>(tools.size()));
    bool failed = false;
    for (std::size_t w = 0; w < workloads.size() && !g_interrupted; ++w) {
        const Workload& workload = workloads[w];
        if (workload.backlog) {
            // Room for the whole backlog, and for what the tools queue besides.
            const long queue = expected + expected / 2 + 16384;
            const long old = BenchUtil::ReadLong(g_maxQueuedEvents.path);
            if (BenchUtil::RaiseSysctl(g_maxQueuedEvents, queue)) {
                std::printf("fs.inotify.max_queued_events %s -> %s for the backlog\n", Grouped(old).c_str(),
                            Grouped(std::max(old, queue)).c_str());
            } else {
                std::printf(
                    "cannot raise fs.inotify.max_queued_events to %s (root needed): the kernel queue "
                    "may overflow\n",
                    Grouped(queue).c_str());
            }
        }
        for (int run = 0; run < settings.runs && !g_interrupted; ++run) {
            // Each round starts with the next tool, so that no tool always follows the same one.
            for (std::size_t turn = 0; turn < tools.size() && !g_interrupted; ++turn) {
                const std::size_t t = (turn + static_cast<std::size_t>(run)) % tools.size();
                RunResult result = RunOnce(tools[t], workload, settings.files);
                PrintRun(workload, tools[t], run + 1, result);
                failed = failed || !result.error.empty() || result.failedCalls > 0;
                results[w][t].push_back(std::move(result));
            }
        }
        if (workload.backlog && g_maxQueuedEvents.raised) {
            BenchUtil::RestoreSysctl(g_maxQueuedEvents);
            std::printf("fs.inotify.max_queued_events restored to %s\n",
                        Grouped(BenchUtil::ReadLong(g_maxQueuedEvents.path)).c_str());
        }
    }
    PrintSummary(workloads, tools, results, expected, !peer.empty());
    RestoreAtExit();
    if (g_interrupted) {
        std::printf("interrupted\n");
        return 130;
    }
    return failed ? 1 : 0;
}
