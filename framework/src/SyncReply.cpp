#include "SyncReply.h"

namespace Framework {

void SyncReply::Complete(int result, const std::string& reply) {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_completed) return;
        _completed = true;
        _result = result;
        _reply = reply;
    }
    _done.notify_all();
}

bool SyncReply::WaitUntil(std::chrono::steady_clock::time_point deadline, int& result, std::string& reply) {
    std::unique_lock<std::mutex> lock(_mutex);
    if (!_done.wait_until(lock, deadline, [this] { return _completed; })) return false;
    result = _result;
    reply = _reply;
    return true;
}

}  // namespace Framework
