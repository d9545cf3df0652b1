#pragma once

#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

#include "framework/UniqueFd.h"

namespace Engine {

// Reads a permission group's queue on a thread of its own, so that the
// agent's own accesses are never left waiting for the module task.
//
// The kernel holds every process that opens a file under a FAN_OPEN_PERM mark
// until the group answers, the group's own process included. When the module
// task itself opens a file there (a log rotation, a folder walk, its
// configuration), or waits for a consumer that opens the file it is judging,
// nobody would answer: the agent would hang, and with it every process that
// touches the guarded files. This reader answers FAN_ALLOW at once to every
// permission event of the agent's own process and hands all other records,
// unchanged, to the module task, which wakes on GetReadyFd.
//
// The reader never logs or opens files: either could block on the group it
// serves. Start, Stop and the destructor run on the module task's thread;
// Take runs there too.
class FileFanotifyPermitReader {
public:
    // fanotifyFd: the permission group; not owned, and open until Stop.
    explicit FileFanotifyPermitReader(int fanotifyFd);
    ~FileFanotifyPermitReader();
    FileFanotifyPermitReader(const FileFanotifyPermitReader&) = delete;
    FileFanotifyPermitReader& operator=(const FileFanotifyPermitReader&) = delete;

    // 0, or the errno of the eventfd or thread creation.
    int Start();
    // Ends and joins the thread and closes the event descriptors of records
    // never taken; the group's close then allows their accesses.
    void Stop();

    // Readable while records wait to be taken.
    int GetReadyFd() const { return _ready.get(); }
    // Moves whole records (at most size bytes) into buffer and the pids of
    // the own accesses allowed since the last call into ownPids. Returns the
    // bytes moved, 0 when nothing waits.
    long Take(char* buffer, long size, std::vector<int>& ownPids);

private:
    void Run();
    void Sort(const char* data, std::size_t length);

    const int _fanotifyFd;
    Framework::UniqueFd _ready;  // eventfd: records are waiting
    Framework::UniqueFd _stop;   // eventfd: the thread must end
    std::thread _thread;
    std::mutex _mutex;
    std::vector<char> _records;  // whole fanotify_event_metadata records, in arrival order
    std::vector<int> _ownPids;
};

}  // namespace Engine
