#include "framework/Message.h"

#include "SyncReply.h"
#include "framework/Task.h"

namespace Framework {

Message::Message(const std::string& name) : _name(name) {}

Message::~Message() {
    // A message freed unhandled (queue full, receiver gone) releases its
    // synchronous sender at once instead of letting it wait out the time-out.
    if (_sync) _sync->Complete(MSG_ERR_NOT_HANDLED, std::string());
}

int Message::MessageHandle(void* /*task*/) {
    return 0;
}

}  // namespace Framework
