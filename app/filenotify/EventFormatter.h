#pragma once

#include <sys/stat.h>

#include <ctime>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Engine {
class FileNotifyMessage;
}

namespace FileNotifyCli {

// The answer to a permission event, as printed.
struct Verdict {
    bool deny = false;       // what the kernel got
    bool wouldDeny = false;  // --dry-run: what would have been answered
    bool timedOut = false;   // allowed because no verdict came in time
    bool lateDeny = false;   // timedOut: a deny came, too late
};

// Formats one event as a text line or a JSON object line, appended to a
// buffer the caller reuses. Keeps the time of day of the last second and the
// names of the masks seen, so that an event costs no time-zone look-up and
// next to no allocation. One thread at a time.
class EventFormatter {
public:
    explicit EventFormatter(bool json) : _json(json) {}

    // status: the file's status when known, else null. verdict: permission
    // events only. now: the time to print (CLOCK_REALTIME).
    void Append(std::string& out, const Engine::FileNotifyMessage& event, const struct stat* status,
                const Verdict* verdict, const struct timespec& now);

private:
    // The time of day down to the second, formatted, for one second at a time.
    struct SecondCache {
        bool valid = false;
        std::time_t second = 0;
        std::string text;
    };

    void AppendText(std::string& out, const Engine::FileNotifyMessage& event, const Verdict* verdict,
                    const struct timespec& now);
    void AppendJson(std::string& out, const Engine::FileNotifyMessage& event, const struct stat* status,
                    const Verdict* verdict, const struct timespec& now);
    std::string_view Second(std::time_t second);
    const std::string& Names(unsigned int mask);

    bool _json;
    SecondCache _second;
    std::unordered_map<unsigned int, std::string> _names;
};

}  // namespace FileNotifyCli
