// What a watched tree costs, filenotify watch -r beside inotifywait -m -r,
// the tools taking turns on the same trees under /dev/shm:
//   memory  resident bytes per watched folder: the tool's VmRSS once its
//           watches are in place, less its VmRSS on an empty folder, over
//           the folders (10,000 and 50,000 below the root)
//   stop    SIGTERM to the end of the process, on the 50,000-folder tree
// Medians of the runs and the ratio filenotify / inotifywait. The kernel's
// memory of the watches is in neither figure.
//
//   tree_bench [--runs N]

#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "BenchUtil.h"
#include "framework/UniqueFd.h"

namespace {

using Clock = std::chrono::steady_clock;
using BenchUtil::Grouped;
using BenchUtil::TempDir;

constexpr int kFoldersPerTop = 99;  // each top folder holds 99 more: 100 a top folder
constexpr auto kReadyTimeout = std::chrono::seconds(120);
constexpr auto kExitTimeout = std::chrono::seconds(30);

struct Tool {
    const char* label;
    std::string binary;
    bool filenotify;
    const char* readyText;  // on stderr once the watches are in place
};

// A tree of folders below root (ending in "/"): folders / 100 top folders of
// 100 each. False when a folder could not be made.
bool MakeTree(const std::string& root, long folders) {
    for (long top = 0; top < folders / (kFoldersPerTop + 1); ++top) {
        const std::string folder = root + "t" + std::to_string(top) + "/";
        if (::mkdir(folder.c_str(), 0755) != 0) return false;
        for (int sub = 0; sub < kFoldersPerTop; ++sub) {
            if (::mkdir((folder + "s" + std::to_string(sub)).c_str(), 0755) != 0) return false;
        }
    }
    return true;
}

long ResidentBytes(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6) * 1024;
    }
    return -1;
}

struct Sample {
    long rss = -1;       // once ready
    double stopMs = -1;  // SIGTERM to its end
    std::string error;
};

// Reads err until text was written, or the time-out. Keeps what was read.
bool WaitForText(int err, const char* text, std::string& seen) {
    const auto deadline = Clock::now() + kReadyTimeout;
    char buffer[4096];
    while (seen.find(text) == std::string::npos) {
        pollfd ready{err, POLLIN, 0};
        if (::poll(&ready, 1, BenchUtil::Milliseconds(deadline - Clock::now())) <= 0) return false;
        const ssize_t length = ::read(err, buffer, sizeof(buffer));
        if (length == 0) return false;
        if (length > 0) seen.append(buffer, static_cast<std::size_t>(length));
    }
    return true;
}

// Starts the tool on root, takes its VmRSS when it is ready, then stops it.
Sample Measure(const Tool& tool, const std::string& root) {
    Sample sample;
    std::vector<std::string> args{tool.binary};
    if (tool.filenotify) {
        args.insert(args.end(), {"watch", "--no-initial-create", "-r", root});
    } else {
        args.insert(args.end(), {"-m", "-r", root});
    }
    BenchUtil::PipedChild child;
    sample.error = BenchUtil::SpawnPiped(args, 1 << 16, child);
    if (!sample.error.empty()) return sample;
    const Framework::UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, child.pid, 0)));
    std::string seen;
    if (WaitForText(child.err.get(), tool.readyText, seen)) {
        sample.rss = ResidentBytes(child.pid);
    } else {
        sample.error = "not ready: " + BenchUtil::OneLine(seen);
    }
    const auto start = Clock::now();
    ::kill(child.pid, SIGTERM);
    pollfd ended{pidfd.get(), POLLIN, 0};
    const bool done = ::poll(&ended, 1, BenchUtil::Milliseconds(kExitTimeout)) > 0;
    sample.stopMs = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    if (!done) {
        ::kill(child.pid, SIGKILL);
        if (sample.error.empty()) sample.error = "did not end within 30 s of SIGTERM";
    }
    int status = 0;
    ::waitpid(child.pid, &status, 0);
    return sample;
}

double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

std::string FindInPath(const char* name) {
    for (const char* folder : {"/usr/local/bin/", "/usr/bin/", "/bin/"}) {
        const std::string candidate = std::string(folder) + name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return std::string();
}

}  // namespace

int main(int argc, char** argv) {
    long runs = 5;
    for (int i = 1; i < argc; ++i) {
        if (!BenchUtil::NumberOption(argc, argv, i, "--runs", 99, runs)) {
            std::fprintf(stderr, "usage: %s [--runs N]\n", argv[0]);
            return 2;
        }
    }
    std::vector<Tool> tools;
    const std::string peer = FindInPath("inotifywait");
    if (peer.empty()) {
        std::printf("inotifywait is missing (Debian: apt-get install inotify-tools): no peer, no ratios\n");
    } else {
        tools.push_back({"inotifywait", peer, false, "Watches established."});
    }
    tools.push_back({"filenotify", FN_CLI_PATH, true, "watching 1 path"});

    const std::vector<long> sizes{0, 10000, 50000};
    // rss[tool][size], stop[tool] (the largest tree)
    std::vector<std::vector<std::vector<double>>> rss(tools.size(), std::vector<std::vector<double>>(sizes.size()));
    std::vector<std::vector<double>> stop(tools.size());
    bool failed = false;
    for (std::size_t s = 0; s < sizes.size(); ++s) {
        const TempDir dir("/dev/shm/", "fn_tree_bench_");
        if (dir.path().empty() || !MakeTree(dir.path(), sizes[s])) {
            std::printf("cannot make a tree of %s folders under /dev/shm\n", Grouped(sizes[s]).c_str());
            return 1;
        }
        for (long run = 0; run < runs; ++run) {
            for (std::size_t turn = 0; turn < tools.size(); ++turn) {
                const std::size_t t = (turn + static_cast<std::size_t>(run)) % tools.size();
                const Sample sample = Measure(tools[t], dir.path());
                if (!sample.error.empty()) {
                    std::printf("%s, %s folders: FAILED: %s\n", tools[t].label, Grouped(sizes[s]).c_str(),
                                sample.error.c_str());
                    failed = true;
                    continue;
                }
                rss[t][s].push_back(static_cast<double>(sample.rss));
                if (s + 1 == sizes.size()) stop[t].push_back(sample.stopMs);
            }
        }
    }

    std::printf("\nMedians of %ld runs; ratio = filenotify / inotifywait\n", runs);
    std::printf("%-12s %18s %18s %10s\n", "tool", "B per folder 10k", "B per folder 50k", "stop 50k");
    std::vector<double> per10k(tools.size()), per50k(tools.size()), stopMs(tools.size());
    for (std::size_t t = 0; t < tools.size(); ++t) {
        const double empty = Median(rss[t][0]);
        per10k[t] = (Median(rss[t][1]) - empty) / static_cast<double>(sizes[1]);
        per50k[t] = (Median(rss[t][2]) - empty) / static_cast<double>(sizes[2]);
        stopMs[t] = Median(stop[t]);
        std::printf("%-12s %18.1f %18.1f %7.1f ms   (empty folder: %s kB)\n", tools[t].label, per10k[t], per50k[t],
                    stopMs[t], Grouped(static_cast<long>(empty / 1024)).c_str());
    }
    if (tools.size() == 2 && per10k[0] > 0 && per50k[0] > 0 && stopMs[0] > 0) {
        std::printf("%-12s %18.2f %18.2f %10.2f\n", "ratio", per10k[1] / per10k[0], per50k[1] / per50k[0],
                    stopMs[1] / stopMs[0]);
    }
    return failed ? 1 : 0;
}
