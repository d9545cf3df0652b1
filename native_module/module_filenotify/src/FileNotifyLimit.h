#pragma once

#include <string>

namespace Engine {

// How many inotify watches, inotify instances and open files the module may
// use: a percentage of the kernel's limits under /proc/sys/fs. Owned by the
// inotify manager and used on the module task's thread only.
class FileNotifyLimit {
public:
    // Where the kernel's limits are read from.
    struct KernelFiles {
        std::string maxUserInstances = "/proc/sys/fs/inotify/max_user_instances";
        std::string fileMax = "/proc/sys/fs/file-max";
        std::string maxUserWatches = "/proc/sys/fs/inotify/max_user_watches";
    };

    // Both compute the limits at once (InitLimit).
    FileNotifyLimit();
    explicit FileNotifyLimit(KernelFiles files);

    // The integer at the start of the file; 0 when it cannot be read.
    static int GetFileSetting(const std::string& path);

    // Each limit becomes percent of its kernel value; a kernel value of 0 or
    // less leaves that limit as it was.
    void CalculateLimitParam(int percent, int maxUserInstances, int fileMax, int maxUserWatches);
    // Kernel values with the percentage of the framework's resource configuration.
    void InitLimit();
    // Kernel values again (they may have been raised) with the percentage of
    // <installation>/conf/resource.conf, key "inotify".
    void AutoScaleLimit();

    // Watches still allowed; negative once more are held than allowed.
    int GetPermitWatchSize() const { return _limitWatches - _usedWatches; }
    int GetPermitFileSize() const { return _limitFile; }
    int GetLimitInstances() const { return _limitInstances; }
    int GetLimitWatches() const { return _limitWatches; }
    // fs.inotify.max_user_watches as last read (0 before a readable value)
    // and the percentage of it that the watch limit is.
    int GetKernelWatches() const { return _kernelWatches; }
    int GetWatchPercent() const { return _watchPercent; }
    // delta > 0 for watches added, < 0 for watches removed.
    void UpdateWatchSize(int delta) { _usedWatches += delta; }

private:
    struct KernelValues {
        int maxUserInstances;
        int fileMax;
        int maxUserWatches;
    };
    KernelValues ReadKernelValues() const;

    int _percent = 30;
    int _limitInstances = 10;
    int _limitFile = 1024;
    int _limitWatches = 1024;
    int _usedWatches = 0;
    int _kernelWatches = 0;
    int _watchPercent = 0;
    KernelFiles _files;
};

}  // namespace Engine
