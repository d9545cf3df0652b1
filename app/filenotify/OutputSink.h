#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "framework/UniqueFd.h"

namespace FileNotifyCli {

// Where the lines go: stdout, or a file opened for appending, written with
// plain write(2). With a writer thread (a guard), an output that is slow or
// blocked (a full pipe, a paused terminal, a slow disk) never holds up the
// consumer, and with it the verdicts. Without one (watch), the consumer
// writes itself: cheaper, and a slow output holds back the events, which
// then wait in the kernel.
class OutputSink {
public:
    // Bytes that may wait for a slow output before Write blocks: a reader
    // that stalls for long holds back what feeds it, instead of memory
    // growing without end.
    static constexpr std::size_t kMaxWaiting = std::size_t{16} << 20;

    // file empty: stdout. Error() tells why a file could not be opened.
    // onFailure runs once, on the writing thread, when a write fails.
    OutputSink(const std::string& file, std::function<void()> onFailure, bool ownWriter);
    bool HasOwnWriter() const { return _writer.joinable(); }
    // Gives the writer a moment to finish, then leaves it (a blocked write
    // must not keep the program from ending).
    ~OutputSink();
    OutputSink(const OutputSink&) = delete;
    OutputSink& operator=(const OutputSink&) = delete;

    // Hands data over to the writer (it is taken: data is left empty).
    // mayWait: block while kMaxWaiting bytes wait already. False once the
    // output has failed; what comes after a failure is dropped.
    bool Write(std::string& data, bool mayWait = true);
    // Waits up to timeout for everything handed over to be written; false
    // when some is still waiting (the output failed, or is stuck).
    bool Drain(std::chrono::milliseconds timeout);
    // The errno that stopped the output, 0 while it works.
    int Error() const { return _state->error.load(); }
    // Marks the output as failed from outside, such as a pipe's reader gone.
    void Fail(int error);

    int Fd() const { return _state->fd(); }
    // Whether this is only the writing end of a pipe: its reader going away
    // shows as an error on an epoll set without anything being written.
    bool IsPipeWriter() const;

private:
    // Shared with the writer thread, which may outlive this object.
    struct State {
        Framework::UniqueFd file;  // -o FILE; stdout is not ours to close
        std::atomic<int> error{0};
        std::mutex mutex;
        std::condition_variable changed;
        std::string waiting;
        std::size_t writing = 0;
        bool stop = false;
        bool done = false;
        std::function<void()> onFailure;

        int fd() const { return file.valid() ? file.get() : 1; }
        bool WriteAll(const std::string& data);
    };
    static void Run(std::shared_ptr<State> state);

    std::shared_ptr<State> _state = std::make_shared<State>();
    std::thread _writer;
};

}  // namespace FileNotifyCli
