#pragma once

#include <string>

#include "framework/UniqueFd.h"

namespace FileNotifyCli {

// Where the lines go: stdout, or a file opened for appending. Written with
// plain write(2) from the consumer's own buffer, which decides when to flush.
class OutputSink {
public:
    // file empty: stdout. Error() tells why a file could not be opened.
    explicit OutputSink(const std::string& file);
    OutputSink(const OutputSink&) = delete;
    OutputSink& operator=(const OutputSink&) = delete;

    // Writes all of data, going on after a partial write or a signal. On
    // failure keeps the error and returns false; later writes do nothing.
    bool Write(const std::string& data);
    // The errno that stopped the output, 0 while it works.
    int Error() const { return _error; }
    // Marks the output as failed from outside, such as a pipe's reader gone.
    void Fail(int error);

    int Fd() const { return _file.valid() ? _file.get() : 1; }
    // Whether this is only the writing end of a pipe: its reader going away
    // shows as an error on an epoll set without anything being written.
    bool IsPipeWriter() const;

private:
    Framework::UniqueFd _file;  // -o FILE; stdout is not ours to close
    int _error = 0;
};

}  // namespace FileNotifyCli
