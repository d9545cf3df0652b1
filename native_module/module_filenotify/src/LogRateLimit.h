#pragma once

#include <chrono>

namespace Engine {

// Lets one record of a kind through a second, so that what can repeat
// without end (a changing tree) cannot flood the log; counts the rest.
class LogRateLimit {
public:
    // True when a record may be written now; held is then the number of
    // records held back since the last one.
    bool Admit(unsigned long& held) {
        const auto now = std::chrono::steady_clock::now();
        if (_last != std::chrono::steady_clock::time_point{} && now - _last < std::chrono::seconds(1)) {
            ++_held;
            return false;
        }
        _last = now;
        held = _held;
        _held = 0;
        return true;
    }

private:
    std::chrono::steady_clock::time_point _last{};
    unsigned long _held = 0;
};

}  // namespace Engine
