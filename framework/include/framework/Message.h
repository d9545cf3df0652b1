#pragma once

#include <memory>
#include <string>

#include "framework/Export.h"

namespace Framework {

class SyncReply;

// A message between tasks.
//
// The sender allocates it with new and hands it to Task::SendMsg,
// Task::SyncSendMsg or Task::EnqueueMsg; from that call on the framework owns
// it, whatever the call returns. The receiving task's thread calls
// MessageHandle with the receiving Framework::Task* (as void*) and deletes the
// message afterwards. A handler may write a reply string, which reaches a
// synchronous sender.
class FRAMEWORK_API Message {
public:
    explicit Message(const std::string& name);
    virtual ~Message();
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // Runs on the receiving task's thread; task is that Framework::Task*.
    // The result reaches a synchronous sender as SyncSendMsg's result.
    virtual int MessageHandle(void* task);

    const std::string& GetMsgName() const { return _name; }
    std::string& GetMsgReply() { return _reply; }

private:
    friend class Task;

    std::string _name;
    std::string _reply;
    // Set only while a synchronous sender may be waiting for this message.
    std::shared_ptr<SyncReply> _sync;
};

}  // namespace Framework
