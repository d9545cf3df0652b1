#include "OutputSink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace FileNotifyCli {

namespace {

constexpr std::chrono::milliseconds kFinishOnExit{2000};

}  // namespace

OutputSink::OutputSink(const std::string& file, std::function<void()> onFailure, bool ownWriter) {
    _state->onFailure = std::move(onFailure);
    if (!file.empty()) {
        _state->file.reset(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
        if (!_state->file.valid()) {
            _state->error = errno;
            return;
        }
    }
    if (ownWriter) _writer = std::thread(&OutputSink::Run, _state);
}

OutputSink::~OutputSink() {
    if (!_writer.joinable()) return;
    // The writer ends once it has written what waits.
    std::unique_lock<std::mutex> lock(_state->mutex);
    _state->stop = true;
    _state->changed.notify_all();
    const bool done = _state->changed.wait_for(lock, kFinishOnExit, [this] { return _state->done; });
    lock.unlock();
    if (done) {
        _writer.join();
    } else {
        _writer.detach();  // stuck in write(2); it holds its own share of the state
    }
}

bool OutputSink::State::WriteAll(const std::string& data) {
    std::size_t written = 0;
    while (written < data.size()) {
        const ssize_t n = ::write(fd(), data.data() + written, data.size() - written);
        if (n > 0) {
            written += static_cast<std::size_t>(n);
        } else if (n == 0 || errno != EINTR) {
            int expected = 0;
            // 0 would only repeat.
            if (error.compare_exchange_strong(expected, n == 0 ? EIO : errno) && onFailure) onFailure();
            return false;
        }
    }
    return true;
}

void OutputSink::Run(std::shared_ptr<State> state) {
    std::unique_lock<std::mutex> lock(state->mutex);
    for (;;) {
        state->changed.wait(lock, [&] { return state->stop || !state->waiting.empty(); });
        if (state->waiting.empty()) break;
        std::string chunk;
        chunk.swap(state->waiting);
        state->writing = chunk.size();
        lock.unlock();
        if (state->error == 0) state->WriteAll(chunk);
        lock.lock();
        state->writing = 0;
        state->changed.notify_all();
    }
    state->done = true;
    state->changed.notify_all();
}

bool OutputSink::Write(std::string& data, bool mayWait) {
    if (Error() != 0) {
        data.clear();
        return false;
    }
    if (!_writer.joinable()) {
        const bool written = _state->WriteAll(data);
        data.clear();
        return written;
    }
    {
        std::unique_lock<std::mutex> lock(_state->mutex);
        if (mayWait) {
            _state->changed.wait(
                lock, [this] { return _state->waiting.size() + _state->writing < kMaxWaiting || _state->error != 0; });
        }
        if (_state->waiting.empty()) {
            _state->waiting.swap(data);
        } else {
            _state->waiting += data;
        }
    }
    data.clear();
    _state->changed.notify_all();
    return Error() == 0;
}

bool OutputSink::Drain(std::chrono::milliseconds timeout) {
    if (!_writer.joinable()) return Error() == 0;
    std::unique_lock<std::mutex> lock(_state->mutex);
    return _state->changed.wait_for(lock, timeout, [this] {
        return (_state->waiting.empty() && _state->writing == 0) || _state->error != 0;
    }) && _state->error == 0;
}

void OutputSink::Fail(int error) {
    {
        std::lock_guard<std::mutex> lock(_state->mutex);
        int expected = 0;
        _state->error.compare_exchange_strong(expected, error);
    }
    _state->changed.notify_all();
}

bool OutputSink::IsPipeWriter() const {
    struct stat status {};
    return Error() == 0 && ::fstat(Fd(), &status) == 0 && S_ISFIFO(status.st_mode) &&
           (::fcntl(Fd(), F_GETFL) & O_ACCMODE) == O_WRONLY;
}

}  // namespace FileNotifyCli
