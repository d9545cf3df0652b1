#include "FileFanotify.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "CpuYield.h"
#include "FileFanotifyPermitBook.h"
#include "FileFanotifyPermitReader.h"
#include "FileNotifyLog.h"
#include "FileNotifyPermitAnswer.h"
#include "FileNotifyTask.h"
#include "framework/Event.h"

namespace Engine {

FileFanotify::FileFanotify() = default;

FileFanotify::~FileFanotify() {
    if (_fd >= 0) Finalize();
    _fd = -1;
    event.reset();
}

int FileFanotify::GetEventFd() const {
    return _reader ? _reader->GetReadyFd() : _fd;
}

int FileFanotify::Initialize(bool isBlock) {
    block = isBlock;
    if (_fd != -1) {
        FN_LOG(LOG_ERROR, "repeat call initialize");
        return 1;
    }
    // Permission events need the content class; both groups are read until
    // EAGAIN. Event descriptors are read-only and never inherited.
    const unsigned int flags = FAN_CLOEXEC | FAN_NONBLOCK | (block ? FAN_CLASS_CONTENT : FAN_CLASS_NOTIF);
    _fd = ::fanotify_init(flags, O_RDONLY | O_CLOEXEC);
    if (_fd < 0) {
        _initError = errno;
        FN_LOG(LOG_ERROR, "call fanotify_init failed,error=%d", _initError);
        return 1;
    }
    _initError = 0;
    return 0;
}

void FileFanotify::Finalize() noexcept {
    if (_fd < 0) {
        FN_LOG(LOG_ERROR, "No Initialize for fanotify_init");
        return;
    }
    // The waiter forgets the descriptor and the reader ends before the group
    // goes; every access still waiting is allowed, and nothing is written
    // to the group's number once it is closed and may be reused.
    event.reset();
    _reader.reset();
    if (_book) _book->AllowAll(true);
    std::vector<std::weak_ptr<FileNotifyPermitAnswer>> answers;
    {
        std::lock_guard<std::mutex> lock(_answersMutex);
        answers.swap(_answers);
    }
    for (const auto& handed : answers) {
        if (auto answer = handed.lock()) answer->Detach();
    }
    if (::close(_fd) == 0) {
        _fd = -1;
    } else {
        FN_LOG(LOG_ERROR, "failed to close _fd %d", _fd);
    }
}

unsigned int FileFanotify::AddMarkFlags(const _FileNotifyOpt& opt) {
    unsigned int flags = FAN_MARK_ADD;
    if (!opt.watchSymLink) flags |= FAN_MARK_DONT_FOLLOW;
    if (opt.onlyDir) flags |= FAN_MARK_ONLYDIR;
    if (opt.wholeMount) flags |= FAN_MARK_MOUNT;
    return flags;
}

unsigned int FileFanotify::RemoveMarkFlags(const _FileNotifyOpt& opt) {
    return FAN_MARK_REMOVE | (opt.wholeMount ? FAN_MARK_MOUNT : 0U);
}

int FileFanotify::Mark(const char* path, unsigned int flags, unsigned int mask, const _FileNotifyOpt& opt) {
    _lastFailure = WatchFailure();
    if (path == nullptr) {
        FN_LOG(LOG_ERROR, "filepath is null");
        return 1;
    }
    if (_fd < 0) {
        FN_LOG(LOG_ERROR, "No Initialize for fanotify_init");
        _lastFailure = WatchFailure::Of(WatchFailure::Reason::Unavailable, _initError, "fanotify");
        return 1;
    }
    if (opt.watchChildFolder) mask |= FAN_EVENT_ON_CHILD;
    if (::fanotify_mark(_fd, flags, mask, AT_FDCWD, path) < 0) {
        // ENOENT: the path is gone; EXDEV/ENODEV/EOPNOTSUPP: a file system
        // that cannot be marked this way.
        const int error = errno;
        FN_LOG(LOG_ERROR, "call fanotify_mark failed,errno=%d", error);
        _lastFailure = WatchFailure::FromErrno(error);
        return 1;
    }
    return 0;
}

int FileFanotify::AddWatch(const char* path, unsigned int mask, const _FileNotifyOpt& opt) {
    FN_LOG(LOG_DEBUG, "FileFanotify AddWatch=%s", std::string(path != nullptr ? path : ""));
    return Mark(path, AddMarkFlags(opt), mask, opt);
}

int FileFanotify::RemoveWatch(const char* path, unsigned int mask, const _FileNotifyOpt& opt) {
    FN_LOG(LOG_DEBUG, "FileFanotify RemoveWatch=%s", std::string(path != nullptr ? path : ""));
    return Mark(path, RemoveMarkFlags(opt), mask, opt);
}

int FileFanotify::AddEventWatch(Framework::Task* task, EventHandler handler) {
    if (event) return 0;
    if (_fd < 0) return 1;  // the refused Initialize has said why
    if (block && !_reader) {
        auto book = std::make_shared<FileFanotifyPermitBook>(_fd);
        auto reader = std::make_unique<FileFanotifyPermitReader>(_fd, book, _dispatch);
        const int result = reader->Start();
        if (result == 0) {
            _book = std::move(book);
            _reader = std::move(reader);
        } else {
            FN_LOG(LOG_ERROR, "permission reader not started,error=%d; the task reads the group itself", result);
        }
    }
    auto* callback = new Framework::EventCallback<FileNotifyTask>(static_cast<FileNotifyTask*>(task), handler);
    event = std::make_unique<Framework::Event>(callback, nullptr, GetEventFd());
    const int result = task->GetEventWaiter().AddEvent(event.get());
    if (result != 0) FN_LOG(LOG_ERROR, "call AddEvent failed errorCode=%d", result);
    return result;
}

long FileFanotify::ReadBatch(char* buffer, int size) {
    _batchTickets.clear();
    _batchReadAt = std::chrono::steady_clock::now();
    if (_reader) {
        std::vector<int> ownPids;
        const long taken = _reader->Take(buffer, size, ownPids, _batchTickets);
        for (int pid : ownPids)
            FN_LOG(LOG_DEBUG, kOwnAccessAllowedText, pid);
        ReportRefused();
        return taken;
    }
    ssize_t length;
    do {
        length = ::read(_fd, buffer, static_cast<std::size_t>(size));
    } while (length < 0 && errno == EINTR);
    return static_cast<long>(length);
}

void FileFanotify::SetHeld(bool held) {
    _held = held;
    if (event) event->SetEnabled(!held);
}

int FileFanotify::ReadEvents(char* buffer, int size, FanotifyCallback callback, void* userData) {
    while (!_held) {
        const long length = ReadBatch(buffer, size);
        if (length <= 0) return 0;  // EAGAIN: drained
        FN_CPU_YIELD();
        if (DoWithEvents(buffer, length, callback, userData) != 0) FN_LOG(LOG_ERROR, "call DoWithEvents failed");
    }
    return 0;
}

int FileFanotify::DoWithEvents(char* buffer, long length, FanotifyCallback callback, void* userData) {
    fanotify_event_metadata record{};
    const char* at = buffer;
    long remaining = length;
    while (FanotifyRecordAt(at, static_cast<std::size_t>(remaining), record)) {
        if ((record.mask & FAN_Q_OVERFLOW) != 0) {
            ++_overflowCount;
            FN_LOG(LOG_ERROR, "fanotify queue overflow");
            ReleaseRest(at, remaining);
            return 0;
        }
        if (record.vers <= 1) {
            // The record is not walked, but its descriptor and those behind
            // it are ours all the same (event_len and fd have kept their
            // places since the first version): left open they would leak, and waiting
            // accesses would hold their processes until the group closes.
            FN_LOG(LOG_ERROR, "Kernel fanotify version too old");
            ReleaseRest(at, remaining);
            return 0;
        }
        if (record.fd >= 0) {
            callback(_fd, block, &record, userData);
            // A waiting access's descriptor is the book's: it stays open
            // until the access is answered.
            const std::uint64_t ticket = TicketOf(record.fd);
            if (ticket != 0) {
                _book->Release(ticket);
            } else {
                ::close(record.fd);
            }
        }
        at += record.event_len;
        remaining -= static_cast<long>(record.event_len);
        FN_CPU_YIELD();
    }
    return 0;
}

// Records dropped unread (an overflow, an unknown version) still hold
// descriptors, and permission events among them hold processes: allow and
// close each one.
void FileFanotify::ReleaseRest(const char* data, long length) const {
    fanotify_event_metadata record{};
    for (; FanotifyRecordAt(data, static_cast<std::size_t>(length), record);
         data += record.event_len, length -= static_cast<long>(record.event_len)) {
        if (record.fd < 0) continue;
        const std::uint64_t ticket = TicketOf(record.fd);
        if (ticket != 0) {
            _book->Answer(ticket, true);
            _book->Release(ticket);
            continue;
        }
        if (block && (record.mask & kFanPermissionBits) != 0) {
            WriteFanotifyAnswer(_fd, record.fd, true);
        }
        ::close(record.fd);
    }
}

std::uint64_t FileFanotify::TicketOf(int eventFd) const {
    for (const auto& entry : _batchTickets) {
        if (entry.first == eventFd) return entry.second;
    }
    return 0;
}

void FileFanotify::ReportRefused() {
    _refused += _book->TakeRefused();
    const auto now = std::chrono::steady_clock::now();
    if (_refused == 0 || now - _refusedLogged < std::chrono::seconds(1)) return;
    FN_LOG(LOG_WARNING, "%Lu accesses allowed at once: %z permission events were waiting already",
           static_cast<Poco::UInt64>(_refused), FileFanotifyPermitBook::kCapacity);
    _refused = 0;
    _refusedLogged = now;
}

std::chrono::steady_clock::time_point FileFanotify::DeadlineOf(int eventFd) const {
    const std::uint64_t ticket = TicketOf(eventFd);
    if (ticket != 0) return _book->DeadlineOf(ticket);
    return _batchReadAt + FileFanotifyPermitBook::kAnswerWithin;
}

std::shared_ptr<FileNotifyPermitAnswer> FileFanotify::NewAnswer(int eventFd) {
    return NewTicketAnswer(TicketOf(eventFd));
}

std::shared_ptr<FileNotifyPermitAnswer> FileFanotify::NewTicketAnswer(std::uint64_t ticket) {
    FileNotifyPermitAnswer::Writer writer;
    if (ticket != 0) {
        writer = [book = _book, ticket](bool allow) { return book->Answer(ticket, allow); };
    } else {
        // Without a reader the task answers after the consumer, on its own thread.
        writer = [](bool) { return true; };
    }
    auto answer = FileNotifyPermitAnswer::Create(std::move(writer));
    std::lock_guard<std::mutex> lock(_answersMutex);
    _answers.erase(std::remove_if(_answers.begin(), _answers.end(), [](const auto& a) { return a.expired(); }),
                   _answers.end());
    _answers.push_back(answer);
    return answer;
}

void FileFanotify::AllowWaiting() {
    if (_book) _book->AllowAll(false);
}

int FileFanotify::DoResponse(int eventFd, bool isAllow) {
    if (_fd < 0) {
        FN_LOG(LOG_ERROR, "Invalid FD %d", _fd);
        return 1;
    }
    const std::uint64_t ticket = TicketOf(eventFd);
    if (ticket != 0) {
        _book->Answer(ticket, isAllow);
        return 0;
    }
    if (!WriteFanotifyAnswer(_fd, eventFd, isAllow)) {
        const int error = errno;
        FN_LOG(LOG_ERROR, "call write response_struct fd=%d,isAllow=%b failed,errno=%d", _fd, isAllow, error);
        return 1;
    }
    return 0;
}

}  // namespace Engine
