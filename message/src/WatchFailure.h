#pragma once

#include <cerrno>
#include <mutex>
#include <string>
#include <utility>

namespace Engine {

// Why a watch request was not made a watch, as values: the module fills it
// where the add fails, and the sender reads it beside the reply.
struct WatchFailure {
    enum class Reason {
        None,              // watched, or nothing went wrong
        Pending,           // the path does not exist yet: watched once it appears
        BadPath,           // a path that could never be watched as written (detail says why)
        BadRequest,        // the request itself cannot be served (detail says why)
        Duplicate,         // this consumer watches the path already, or a recursive watch covers it
        LimitReached,      // the inotify watch limit (the numbers below)
        PermissionDenied,  // the kernel refused the module access (error)
        Unavailable,       // the engine the request needs (detail) could not be opened (error: why)
        KernelError,       // any other refusal of the kernel (error)
    };

    Reason reason = Reason::None;
    int error = 0;  // the errno behind the reason, 0 when none is known
    // LimitReached. needed 0: the kernel's own limit was hit (ENOSPC), which
    // the watches of every process of the user share; else the tree needs
    // needed watches and the module may add only allowed more.
    int needed = 0;
    int allowed = 0;
    int kernelLimit = 0;  // fs.inotify.max_user_watches when the limit was computed, 0 if unknown
    int percent = 0;      // the share of it the module may use
    std::string detail;   // BadPath, BadRequest: why, for people; Unavailable: the engine

    // A refusal of the kernel: a denied access, or anything else.
    static WatchFailure FromErrno(int error) {
        return Of(error == EACCES || error == EPERM ? Reason::PermissionDenied : Reason::KernelError, error);
    }
    static WatchFailure Of(Reason reason, int error = 0, std::string detail = std::string()) {
        WatchFailure failure;
        failure.reason = reason;
        failure.error = error;
        failure.detail = std::move(detail);
        return failure;
    }
};

// Shared by a watch request and its sender, who keeps it across the send:
// the module writes it before the reply goes out. Locked, as a sender that
// gave up waiting may read while a late handler writes.
class WatchFailureSlot {
public:
    WatchFailure Get() const {
        std::lock_guard<std::mutex> lock(_mutex);
        return _failure;
    }
    void Set(WatchFailure failure) {
        std::lock_guard<std::mutex> lock(_mutex);
        _failure = std::move(failure);
    }

private:
    mutable std::mutex _mutex;
    WatchFailure _failure;
};

}  // namespace Engine
