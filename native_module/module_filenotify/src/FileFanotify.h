#pragma once

#include <sys/fanotify.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "FanotifyRecords.h"
#include "FileNotifyOpt.h"
#include "WatchFailure.h"

namespace Framework {
class Event;
class Task;
}  // namespace Framework

namespace Engine {

class FileNotifyTask;
class FileFanotifyPermitBook;
class FileNotifyPermitAnswer;
class FileFanotifyPermitReader;

// Receives one event record; fanotifyFd and block tell which group it came
// from. The record's descriptor is closed after the call: use it, never keep
// or close it. The result is ignored.
using FanotifyCallback = int (*)(int fanotifyFd, bool block, struct fanotify_event_metadata* metadata, void* userData);

// One fanotify group: a notification group, or a permission ("block") group
// of the content class. Places and removes marks, reads and walks the event
// queue, closes each event's descriptor after its callback, and answers
// permission events. Used on the module task's thread; a permission group
// also has a reader thread of its own (FileFanotifyPermitReader).
class FileFanotify {
public:
    using EventHandler = int (FileNotifyTask::*)(int fd, unsigned int events, void* arg);

    FileFanotify();
    ~FileFanotify();
    FileFanotify(const FileFanotify&) = delete;
    FileFanotify& operator=(const FileFanotify&) = delete;

    int GetFd() const { return _fd; }
    // The descriptor registered with the task's event waiter: the group's
    // own, or for a permission group its reader's ready descriptor.
    int GetEventFd() const;

    // Opens the group; 0, or 1 (logged) when it is open already or the
    // kernel refuses (EPERM without CAP_SYS_ADMIN).
    int Initialize(bool block);
    // Stops the reader and closes the group: the kernel allows every access
    // still waiting for an answer.
    void Finalize() noexcept;

    // The mark flags that AddWatch and RemoveWatch use for these options.
    static unsigned int AddMarkFlags(const _FileNotifyOpt& opt);
    static unsigned int RemoveMarkFlags(const _FileNotifyOpt& opt);
    // One fanotify_mark; FAN_EVENT_ON_CHILD joins mask for recursive options.
    // LastFailure tells why the last one that returned non-zero failed.
    int Mark(const char* path, unsigned int flags, unsigned int mask, const _FileNotifyOpt& opt);
    int AddWatch(const char* path, unsigned int mask, const _FileNotifyOpt& opt);
    const WatchFailure& LastFailure() const { return _lastFailure; }
    int RemoveWatch(const char* path, unsigned int mask, const _FileNotifyOpt& opt);

    // For a permission group, before AddEventWatch: what its reader tries
    // first with each permission event (see FileFanotifyPermitReader).
    using PermitDispatch = std::function<bool(const struct fanotify_event_metadata& event, std::uint64_t ticket)>;
    void SetPermitDispatch(PermitDispatch dispatch) { _dispatch = std::move(dispatch); }
    // Registers the group with the task's event waiter, once; a permission
    // group starts its reader first. 0, or the framework's error code.
    int AddEventWatch(Framework::Task* task, EventHandler handler);
    // Drains the queue into buffer and walks every batch. Always 0.
    int ReadEvents(char* buffer, int size, FanotifyCallback callback, void* userData);
    // Walks length bytes of records. Always 0.
    int DoWithEvents(char* buffer, long length, FanotifyCallback callback, void* userData);
    // Answers one permission event. 0, or 1 (logged). An event whose
    // deadline has passed has been allowed already: the call changes nothing.
    int DoResponse(int eventFd, bool isAllow);
    // Permission events of the current batch: when the access must be
    // answered by, and a writer of the answer for any thread (true when it
    // was in time; it stays valid after the group is closed, and then writes
    // nothing).
    std::chrono::steady_clock::time_point DeadlineOf(int eventFd) const;
    std::shared_ptr<FileNotifyPermitAnswer> NewAnswer(int eventFd);
    // Any thread: the answer object of the event of a ticket of the book
    // (0: no ticket, the task answers).
    std::shared_ptr<FileNotifyPermitAnswer> NewTicketAnswer(std::uint64_t ticket);
    // Any thread: allows every access still waiting (a stop has begun).
    void AllowWaiting();

    // The errno of the last refused Initialize, 0 when it succeeded.
    int GetInitError() const { return _initError; }
    // FAN_Q_OVERFLOW records seen: each one means events were lost.
    unsigned long GetOverflowCount() const { return _overflowCount; }
    // A held group reads nothing more (its events wait in the kernel's
    // queue) and is not reported ready, until released. Never hold a
    // permission group: its events hold processes.
    void SetHeld(bool held);

private:
    long ReadBatch(char* buffer, int size);
    void ReleaseRest(const char* data, long length) const;
    // The event's ticket in the book, 0 when it has none.
    std::uint64_t TicketOf(int eventFd) const;
    void ReportRefused();

    bool block = false;
    int _fd = -1;
    std::unique_ptr<Framework::Event> event;
    std::shared_ptr<FileFanotifyPermitBook> _book;
    std::unique_ptr<FileFanotifyPermitReader> _reader;
    std::vector<std::pair<int, std::uint64_t>> _batchTickets;  // (descriptor, ticket) of the batch in hand
    std::chrono::steady_clock::time_point _batchReadAt;
    std::uint64_t _refused = 0;
    PermitDispatch _dispatch;
    // Answers handed to consumers: detached at Finalize, before the module's
    // code can be unloaded under them.
    std::mutex _answersMutex;
    std::vector<std::weak_ptr<FileNotifyPermitAnswer>> _answers;
    std::chrono::steady_clock::time_point _refusedLogged;
    int _initError = 0;
    WatchFailure _lastFailure;
    unsigned long _overflowCount = 0;
    bool _held = false;
};

// The debug record of a permission event of the agent's own process, which
// is allowed at once.
constexpr const char* kOwnAccessAllowedText = "allow own access at once, pid=%d";

}  // namespace Engine
