#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "FileNotifyExport.h"

namespace Engine {

// The answer the kernel got for one permission event (a FileNotifyMessage of
// notify type 2), shared by the module and the consumer that judges it.
//
// The consumer's verdict is written to the kernel on the consumer's own
// thread as soon as its handler returns (FileNotifyMessage::MessageHandle
// calls Decide): the waiting process is released without another hop. An
// access has a deadline; a verdict that comes after it, or none at all,
// leaves the access allowed, and the state says so, so that a consumer never
// records a deny the kernel did not get. Thread-safe.
class FILENOTIFY_API FileNotifyPermitAnswer {
public:
    enum class State {
        Pending,           // not answered yet
        Allowed,           // the consumer's allow reached the kernel
        Denied,            // the consumer's deny reached the kernel
        AllowedByTimeout,  // the deadline passed first: allowed, whatever the consumer said
    };
    // Writes the answer to the kernel; true when it did so in time (false:
    // the access had been allowed already at its deadline).
    using Writer = std::function<bool(bool allow)>;

    // Made here, in the library that consumers link: a consumer may hold an
    // answer after the module that made it has been unloaded.
    static std::shared_ptr<FileNotifyPermitAnswer> Create(Writer writer);
    explicit FileNotifyPermitAnswer(Writer writer);

    // The module is going away: its writer is dropped now, while its code is
    // still loaded; an answer still pending counts as allowed (the module
    // has allowed every waiting access).
    void Detach();
    // The consumer's verdict (2 denies, anything else allows).
    void Decide(int verdict);
    // No verdict came in time: the access is allowed (if not answered yet).
    void Expire();

    State GetState() const;
    // The verdict the consumer gave, in time or late; -1 when none.
    int GetVerdict() const;

private:
    mutable std::mutex _mutex;
    Writer _writer;
    State _state = State::Pending;
    int _verdict = -1;
};

}  // namespace Engine
