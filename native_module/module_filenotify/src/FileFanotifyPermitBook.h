#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>

namespace Engine {

// The permission events of one fanotify group that wait for their answer,
// each with its deadline. Exactly one answer reaches the kernel for each:
// a verdict given in time, or FAN_ALLOW at the deadline, at a stop, or at
// once when the book is full (every waiting event holds a descriptor, and a
// process out of descriptors gets its accesses denied by the kernel).
//
// Shared (shared_ptr) by the group's reader thread, the module task and the
// verdicts that consumers give on their own threads: all calls are
// thread-safe. An event is known by its ticket, never by its descriptor's
// number, which the kernel hands out again once the descriptor is closed.
// The descriptor stays open until the event is answered and its holder has
// released it. After Close nothing more is written to the group.
class FileFanotifyPermitBook {
public:
    using Clock = std::chrono::steady_clock;
    // The time an access may wait for its verdict.
    static constexpr std::chrono::milliseconds kAnswerWithin{1000};
    static constexpr std::size_t kCapacity = 512;

    // groupFd: the permission group; not owned, open until Close.
    explicit FileFanotifyPermitBook(int groupFd);
    ~FileFanotifyPermitBook();
    FileFanotifyPermitBook(const FileFanotifyPermitBook&) = delete;
    FileFanotifyPermitBook& operator=(const FileFanotifyPermitBook&) = delete;

    // Takes a permission event read at readAt, with its descriptor; returns
    // its ticket, or 0 when it could not wait (book full or closed): it was
    // allowed and its descriptor closed here.
    std::uint64_t Add(int eventFd, Clock::time_point readAt);
    // Answers the event unless it was answered already: true when this
    // answer reached the kernel.
    bool Answer(std::uint64_t ticket, bool allow);
    // The holder is done with the event's descriptor.
    void Release(std::uint64_t ticket);
    Clock::time_point DeadlineOf(std::uint64_t ticket) const;
    // Allows every event whose deadline has come; returns the earliest
    // deadline still ahead (Clock::time_point::max() when none).
    Clock::time_point ExpireDue(Clock::time_point now);
    // Allows every event still waiting; with close, writes nothing to the
    // group from then on and closes the descriptors still held.
    void AllowAll(bool close);
    // Events allowed at once because the book was full, since the last call.
    std::uint64_t TakeRefused();

private:
    struct Entry {
        int fd;
        Clock::time_point deadline;
        bool answered;
        bool released;
    };
    using Entries = std::map<std::uint64_t, Entry>;

    // Answers the entry (under the lock) and forgets it once released.
    Entries::iterator Settle(Entries::iterator entry, bool allow);

    mutable std::mutex _mutex;
    const int _groupFd;
    bool _closed = false;
    std::uint64_t _nextTicket = 1;
    Entries _entries;  // by ticket: read order, so also deadline order
    std::uint64_t _refused = 0;
};

}  // namespace Engine
