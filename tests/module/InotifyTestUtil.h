#pragma once

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "FileInotify.h"
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

// What an inotify instance handed to its receiver, copied out of the buffer.
struct InotifyRecord {
    int type;
    int fd;
    int rootWd;
    std::string path;
    unsigned int mask;
    int removedWd;
};

struct InotifyCollector {
    std::vector<InotifyRecord> records;

    static int Callback(const Engine::InotifyCallBackParm& p, void* data) {
        auto* self = static_cast<InotifyCollector*>(data);
        self->records.push_back({p.type, p.fd, p.rootWd, p.filePath, p.mask, p.removedWd});
        return 0;
    }
    // The type 0 records with this path.
    std::vector<InotifyRecord> For(const std::string& path) const {
        std::vector<InotifyRecord> out;
        for (const auto& r : records)
            if (r.type == Engine::InotifyCallBackParm::TYPE_EVENT && r.path == path) out.push_back(r);
        return out;
    }
    int Count(int type) const {
        int n = 0;
        for (const auto& r : records)
            n += r.type == type ? 1 : 0;
        return n;
    }
};

// Hand-built raw records, laid out as the kernel lays them out.
class RawInotifyBuffer {
public:
    RawInotifyBuffer& Add(int wd, std::uint32_t mask, const std::string& name = "", std::uint32_t len = UINT32_MAX) {
        if (len == UINT32_MAX) len = name.empty() ? 0 : static_cast<std::uint32_t>((name.size() + 16) / 16 * 16);
        inotify_event header{};
        header.wd = wd;
        header.mask = mask;
        header.len = len;
        const std::size_t at = _bytes.size();
        _bytes.resize(at + sizeof header + len, '\0');
        std::memcpy(&_bytes[at], &header, sizeof header);
        std::memcpy(&_bytes[at + sizeof header], name.data(), std::min<std::size_t>(name.size(), len));
        return *this;
    }
    // Drops the last n bytes, as if the buffer had been cut.
    RawInotifyBuffer& Cut(std::size_t n) {
        _bytes.resize(_bytes.size() - n);
        return *this;
    }
    // An aligned copy, as the module's read buffer is.
    const char* data() {
        _aligned.assign((_bytes.size() + sizeof(inotify_event) - 1) / sizeof(inotify_event) + 1, inotify_event{});
        std::memcpy(_aligned.data(), _bytes.data(), _bytes.size());
        return reinterpret_cast<const char*>(_aligned.data());
    }
    int size() const { return static_cast<int>(_bytes.size()); }

private:
    std::vector<char> _bytes;
    std::vector<inotify_event> _aligned;
};

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
