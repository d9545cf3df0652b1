#include "FileFanotifyPermitBook.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "FanotifyRecords.h"

namespace Engine {

FileFanotifyPermitBook::FileFanotifyPermitBook(int groupFd) : _groupFd(groupFd) {}

FileFanotifyPermitBook::~FileFanotifyPermitBook() {
    // The group may be closed and its number given to another file: only
    // the descriptors, which are still ours, are closed here.
    for (const auto& entry : _entries)
        ::close(entry.second.fd);
}

std::uint64_t FileFanotifyPermitBook::Add(int eventFd, Clock::time_point readAt) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_closed || _entries.size() >= kCapacity) {
        if (!_closed) WriteFanotifyAnswer(_groupFd, eventFd, true);
        ::close(eventFd);
        ++_refused;
        return 0;
    }
    const std::uint64_t ticket = _nextTicket++;
    _entries.emplace(ticket, Entry{eventFd, readAt + kAnswerWithin, false, false});
    return ticket;
}

FileFanotifyPermitBook::Entries::iterator FileFanotifyPermitBook::Settle(Entries::iterator entry, bool allow) {
    if (!_closed) WriteFanotifyAnswer(_groupFd, entry->second.fd, allow);
    entry->second.answered = true;
    if (!entry->second.released) return std::next(entry);
    ::close(entry->second.fd);
    return _entries.erase(entry);
}

bool FileFanotifyPermitBook::Answer(std::uint64_t ticket, bool allow) {
    std::lock_guard<std::mutex> lock(_mutex);
    auto entry = _entries.find(ticket);
    if (_closed || entry == _entries.end() || entry->second.answered) return false;
    Settle(entry, allow);
    return true;
}

void FileFanotifyPermitBook::Release(std::uint64_t ticket) {
    std::lock_guard<std::mutex> lock(_mutex);
    auto entry = _entries.find(ticket);
    if (entry == _entries.end()) return;
    entry->second.released = true;
    if (!entry->second.answered) return;
    ::close(entry->second.fd);
    _entries.erase(entry);
}

FileFanotifyPermitBook::Clock::time_point FileFanotifyPermitBook::DeadlineOf(std::uint64_t ticket) const {
    std::lock_guard<std::mutex> lock(_mutex);
    auto entry = _entries.find(ticket);
    return entry == _entries.end() ? Clock::time_point::min() : entry->second.deadline;
}

FileFanotifyPermitBook::Clock::time_point FileFanotifyPermitBook::ExpireDue(Clock::time_point now) {
    std::lock_guard<std::mutex> lock(_mutex);
    for (auto entry = _entries.begin(); entry != _entries.end();) {
        if (entry->second.answered) {
            ++entry;
        } else if (entry->second.deadline <= now) {
            entry = Settle(entry, true);
        } else {
            return entry->second.deadline;  // read order: the later ones are due later
        }
    }
    return Clock::time_point::max();
}

void FileFanotifyPermitBook::AllowAll(bool close) {
    std::lock_guard<std::mutex> lock(_mutex);
    for (auto entry = _entries.begin(); entry != _entries.end();)
        entry = entry->second.answered ? std::next(entry) : Settle(entry, true);
    if (!close) return;
    _closed = true;
    for (const auto& entry : _entries)
        ::close(entry.second.fd);
    _entries.clear();
}

std::uint64_t FileFanotifyPermitBook::TakeRefused() {
    std::lock_guard<std::mutex> lock(_mutex);
    return std::exchange(_refused, 0);
}

}  // namespace Engine
