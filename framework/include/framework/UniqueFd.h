#pragma once

#include <unistd.h>

#include <utility>

namespace Framework {

// Owns one file descriptor. Valid when >= 0: descriptor 0 is a descriptor.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : _fd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : _fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return _fd; }
    bool valid() const { return _fd >= 0; }
    int release() { return std::exchange(_fd, -1); }
    void reset(int fd = -1) {
        if (_fd >= 0) ::close(_fd);
        _fd = fd;
    }

private:
    int _fd = -1;
};

}  // namespace Framework
