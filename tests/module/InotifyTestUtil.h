#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "FileNotifyOpt.h"
#include "TestUtil.h"

namespace TestUtil {

// Options of an inotify-only watch for mask, without the simulated creation.
inline Engine::_FileNotifyOpt InotifyOptions(unsigned int mask, bool recursive) {
    Engine::_FileNotifyOpt opt;
    opt.watchChildFolder = recursive;
    opt.eventMasks = {mask};
    opt.combinedMask = mask;
    opt.inotifyOnly = true;
    opt.simulateCreate = false;
    return opt;
}

// The kernel's inotify watches of a process (this one by default), from its
// fdinfo: what is really placed, whatever the bookkeeping says.
inline int KernelInotifyWatches(const std::filesystem::path& process = "/proc/self") {
    int count = 0;
    std::error_code gone;  // another process may end meanwhile
    for (const auto& entry : std::filesystem::directory_iterator(process / "fdinfo", gone)) {
        std::ifstream info(entry.path());
        std::string line;
        while (std::getline(info, line))
            count += line.rfind("inotify wd:", 0) == 0 ? 1 : 0;
    }
    return count;
}

// Creates and removes nested folders below 40 parents of root until stopped, as a
// build or a cache would.
class Churn {
public:
    explicit Churn(const std::string& root) : _root(root) {
        _thread = std::thread([this] {
            for (unsigned long n = 0; !_stop; ++n) {
                // Made again when the root was.
                const std::string parent = _root + "p" + std::to_string(n % kParents) + "/n";
                ::mkdir(parent.substr(0, parent.size() - 2).c_str(), 0755);
                ::mkdir(parent.c_str(), 0755);
                ::mkdir((parent + "/m").c_str(), 0755);
                ::rmdir((parent + "/m").c_str());
                ::rmdir(parent.c_str());
            }
        });
    }
    ~Churn() { Stop(); }
    void Stop() {
        _stop = true;
        if (_thread.joinable()) _thread.join();
    }
    static constexpr int kParents = 40;

private:
    const std::string _root;
    std::atomic<bool> _stop{false};
    std::thread _thread;
};

inline int CountFolders(const std::string& root) {
    int count = 1;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
        count += entry.is_directory() ? 1 : 0;
    return count;
}

}  // namespace TestUtil
