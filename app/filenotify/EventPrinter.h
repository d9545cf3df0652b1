#pragma once

#include <sys/stat.h>

#include <fstream>
#include <mutex>
#include <ostream>
#include <string>

namespace Engine {
class FileNotifyMessage;
}

namespace FileNotifyCli {

// The answer to a permission event, as printed.
struct Verdict {
    bool deny = false;       // what was answered
    bool wouldDeny = false;  // --dry-run: what would have been answered
};

// Writes one line per event, as text or as a JSON object, to stdout or
// appended to a file, flushed per line. Thread-safe.
class EventPrinter {
public:
    // file empty: stdout. IsOpen tells whether the file could be opened.
    EventPrinter(bool json, const std::string& file);

    bool IsOpen() const { return _out != nullptr && _out->good(); }
    // status: the file's status when known, else null. verdict: permission
    // events only.
    void Print(const Engine::FileNotifyMessage& event, const struct stat* status, const Verdict* verdict);

    static std::string TextLine(const Engine::FileNotifyMessage& event, const Verdict* verdict);
    static std::string JsonLine(const Engine::FileNotifyMessage& event, const struct stat* status,
                                const Verdict* verdict);

private:
    bool _json;
    std::ofstream _file;
    std::ostream* _out;
    std::mutex _mutex;
};

}  // namespace FileNotifyCli
