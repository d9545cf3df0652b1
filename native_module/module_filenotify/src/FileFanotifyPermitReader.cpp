#include "FileFanotifyPermitReader.h"

#include "FanotifyRecords.h"
#include "FileFanotifyPermitBook.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <system_error>

namespace Engine {

namespace {

constexpr std::size_t kReadBufferSize = 8192;

void WriteAll(int fd, const void* data, std::size_t size) {
    ssize_t written;
    do {
        written = ::write(fd, data, size);
    } while (written < 0 && errno == EINTR);
}

}  // namespace

FileFanotifyPermitReader::FileFanotifyPermitReader(int fanotifyFd, std::shared_ptr<FileFanotifyPermitBook> book,
                                                   Dispatch dispatch)
    : _fanotifyFd(fanotifyFd), _book(std::move(book)), _dispatch(std::move(dispatch)) {}

FileFanotifyPermitReader::~FileFanotifyPermitReader() {
    Stop();
}

int FileFanotifyPermitReader::Start() {
    Framework::UniqueFd ready(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    Framework::UniqueFd stop(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!ready.valid() || !stop.valid()) return errno;
    _ready = std::move(ready);
    _stop = std::move(stop);
    try {
        _thread = std::thread(&FileFanotifyPermitReader::Run, this);
    } catch (const std::system_error& error) {
        return error.code().value();
    }
    return 0;
}

void FileFanotifyPermitReader::Stop() {
    if (_thread.joinable()) {
        const std::uint64_t one = 1;
        WriteAll(_stop.get(), &one, sizeof one);
        _thread.join();
    }
    std::lock_guard<std::mutex> lock(_mutex);
    fanotify_event_metadata header{};
    for (std::size_t at = 0; FanotifyRecordAt(_records.data() + at, _records.size() - at, header);
         at += header.event_len) {
        const std::uint64_t ticket = _ticketOf.front();
        _ticketOf.pop_front();
        if (ticket != 0) {
            _book->Release(ticket);
        } else if (header.fd >= 0) {
            ::close(header.fd);
        }
    }
    _records.clear();
}

int FileFanotifyPermitReader::NextTimeoutMs() {
    const auto now = std::chrono::steady_clock::now();
    const auto next = _book->ExpireDue(now);
    if (next == std::chrono::steady_clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now).count();
    return left < INT_MAX ? static_cast<int>(left) : INT_MAX;
}

void FileFanotifyPermitReader::Run() {
    std::vector<char> buffer(kReadBufferSize);
    pollfd fds[2] = {{_fanotifyFd, POLLIN, 0}, {_stop.get(), POLLIN, 0}};
    for (;;) {
        // Deadlines first: an access never waits past its own.
        if (::poll(fds, 2, NextTimeoutMs()) < 0) {
            // EINTR, or out of memory for a moment: try again shortly.
            const struct timespec pause { 0, 1000000 };
            if (errno != EINTR) ::nanosleep(&pause, nullptr);
            continue;
        }
        if ((fds[1].revents & POLLIN) != 0) return;
        if ((fds[0].revents & POLLNVAL) != 0) return;  // the group is closed: Stop follows
        if ((fds[0].revents & (POLLIN | POLLERR)) != 0) ReadAll(buffer);
    }
}

void FileFanotifyPermitReader::ReadAll(std::vector<char>& buffer) {
    for (;;) {
        const ssize_t length = ::read(_fanotifyFd, buffer.data(), buffer.size());
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) return;  // drained; an error is tried again at the next readiness
        Sort(buffer.data(), static_cast<std::size_t>(length));
    }
}

void FileFanotifyPermitReader::Sort(const char* data, std::size_t length) {
    std::vector<char> forward;
    std::vector<std::uint64_t> tickets;
    std::vector<int> own;
    fanotify_event_metadata header{};
    const auto now = std::chrono::steady_clock::now();
    for (std::size_t at = 0; FanotifyRecordAt(data + at, length - at, header); at += header.event_len) {
        const bool permission = (header.mask & kFanPermissionBits) != 0 && header.fd >= 0;
        if (permission && IsOwnAccess(header)) {
            WriteFanotifyAnswer(_fanotifyFd, header.fd, true);
            ::close(header.fd);
            own.push_back(header.pid);
            continue;
        }
        std::uint64_t ticket = 0;
        // A full book allowed it at once: nothing is left to hand over.
        if (permission && (ticket = _book->Add(header.fd, now)) == 0) continue;
        if (ticket != 0 && _dispatch && _dispatch(header, ticket)) {
            _book->Release(ticket);
            continue;
        }
        forward.insert(forward.end(), data + at, data + at + header.event_len);
        tickets.push_back(ticket);
    }
    if (forward.empty() && own.empty()) return;
    std::lock_guard<std::mutex> lock(_mutex);
    _records.insert(_records.end(), forward.begin(), forward.end());
    _ticketOf.insert(_ticketOf.end(), tickets.begin(), tickets.end());
    _ownPids.insert(_ownPids.end(), own.begin(), own.end());
    const std::uint64_t one = 1;
    WriteAll(_ready.get(), &one, sizeof one);
}

long FileFanotifyPermitReader::Take(char* buffer, long size, std::vector<int>& ownPids, std::vector<Ticket>& tickets) {
    tickets.clear();
    std::lock_guard<std::mutex> lock(_mutex);
    ownPids.insert(ownPids.end(), _ownPids.begin(), _ownPids.end());
    _ownPids.clear();
    std::size_t taken = 0;
    fanotify_event_metadata header{};
    while (FanotifyRecordAt(_records.data() + taken, _records.size() - taken, header) &&
           taken + header.event_len <= static_cast<std::size_t>(size)) {
        taken += header.event_len;
        if (_ticketOf.front() != 0) tickets.emplace_back(header.fd, _ticketOf.front());
        _ticketOf.pop_front();
    }
    if (taken > 0) std::memcpy(buffer, _records.data(), taken);
    _records.erase(_records.begin(), _records.begin() + static_cast<std::ptrdiff_t>(taken));
    if (_records.empty()) {
        std::uint64_t count = 0;
        // Cleared under the lock that Sort signals under: no wake-up is lost.
        (void)!::read(_ready.get(), &count, sizeof count);
    }
    return static_cast<long>(taken);
}

}  // namespace Engine
