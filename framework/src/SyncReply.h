#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace Framework {

// The meeting point of a synchronous sender and the thread that handles its
// message. Shared by both (shared_ptr), so whichever leaves last frees it:
// a sender that gave up never leaves the handler a dangling pointer.
class SyncReply {
public:
    // Handler side; only the first call counts.
    void Complete(int result, const std::string& reply);
    // Sender side: true with the handler's result and reply, or false when
    // the deadline passed first.
    bool WaitUntil(std::chrono::steady_clock::time_point deadline, int& result, std::string& reply);

private:
    std::mutex _mutex;
    std::condition_variable _done;
    bool _completed = false;
    int _result = 0;
    std::string _reply;
};

}  // namespace Framework
