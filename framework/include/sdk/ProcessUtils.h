#pragma once

#include <string>

#include "framework/Export.h"

namespace SDK {

class FRAMEWORK_API ProcessUtils {
public:
    // The executable of process pid, from /proc/<pid>/exe. deleted is set to
    // whether the file has been removed since the process started (the
    // kernel's " (deleted)" suffix is taken off the path). Returns false,
    // with exePath empty, when the process is gone or not readable.
    static bool GetProcessExePath(unsigned int pid, std::string& exePath, bool& deleted);
};

class FRAMEWORK_API TimeUtils {
public:
    // Milliseconds on the monotonic clock: for measuring distances only.
    static long long GetCurrentSystemTickUsed();
};

}  // namespace SDK
