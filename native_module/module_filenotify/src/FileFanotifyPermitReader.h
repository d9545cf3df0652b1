#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "framework/UniqueFd.h"

struct fanotify_event_metadata;

namespace Engine {

class FileFanotifyPermitBook;

// Reads a permission group's queue on a thread of its own, so that the
// agent's own accesses are never left waiting for the module task.
//
// The kernel holds every process that opens a file under a FAN_OPEN_PERM mark
// until the group answers, the group's own process included. When the module
// task itself opens a file there (a log rotation, a folder walk, its
// configuration), or waits for a consumer that opens the file it is judging,
// nobody would answer: the agent would hang, and with it every process that
// touches the guarded files. This reader answers FAN_ALLOW at once to every
// permission event of the agent's own process, offers every other
// permission event to its dispatch (which may ask the consumer itself), and
// hands the rest, unchanged, to the module task, which wakes on GetReadyFd. Every other
// permission event goes into the book with its deadline, and this thread
// allows whatever is still unanswered when the deadline comes, however busy
// the module task is.
//
// The reader never logs or opens files: either could block on the group it
// serves. Start, Stop and the destructor run on the module task's thread;
// Take runs there too.
class FileFanotifyPermitReader {
public:
    // (descriptor, ticket in the book) of one permission event handed over.
    using Ticket = std::pair<int, std::uint64_t>;
    // Tried first for each permission event in the book, on this thread;
    // true when it took care of the event (it must not log or block).
    using Dispatch = std::function<bool(const struct fanotify_event_metadata& event, std::uint64_t ticket)>;

    // fanotifyFd: the permission group; not owned, and open until Stop.
    // dispatch may be empty: then every event is handed to the module task.
    FileFanotifyPermitReader(int fanotifyFd, std::shared_ptr<FileFanotifyPermitBook> book, Dispatch dispatch = {});
    ~FileFanotifyPermitReader();
    FileFanotifyPermitReader(const FileFanotifyPermitReader&) = delete;
    FileFanotifyPermitReader& operator=(const FileFanotifyPermitReader&) = delete;

    // 0, or the errno of the eventfd or thread creation.
    int Start();
    // Ends and joins the thread and closes the descriptors of the
    // notification records never taken; the permission events are the book's.
    void Stop();

    // Readable while records wait to be taken.
    int GetReadyFd() const { return _ready.get(); }
    // Moves whole records (at most size bytes) into buffer, the tickets of
    // the permission events among them into tickets (cleared first), and the
    // pids of the own accesses allowed since the last call into ownPids.
    // Returns the bytes moved, 0 when nothing waits.
    long Take(char* buffer, long size, std::vector<int>& ownPids, std::vector<Ticket>& tickets);

private:
    void Run();
    // The poll time-out in ms: until the next deadline of the book.
    int NextTimeoutMs();
    void ReadAll(std::vector<char>& buffer);
    void Sort(const char* data, std::size_t length);

    const int _fanotifyFd;
    const std::shared_ptr<FileFanotifyPermitBook> _book;
    const Dispatch _dispatch;
    Framework::UniqueFd _ready;  // eventfd: records are waiting
    Framework::UniqueFd _stop;   // eventfd: the thread must end
    std::thread _thread;
    std::mutex _mutex;
    std::vector<char> _records;           // whole fanotify_event_metadata records, in arrival order
    std::deque<std::uint64_t> _ticketOf;  // per record in _records: its ticket, 0 for none
    std::vector<int> _ownPids;
};

}  // namespace Engine
