#pragma once

#include <atomic>
#include <string>

#include <Poco/AutoPtr.h>

#include "framework/Message.h"
#include "framework/Task.h"

namespace FrameworkTest {

// Counts what happens to the messages of one test.
struct Probe {
    std::atomic<int> handled{0};
    std::atomic<int> destroyed{0};
};

// A message that reports its handling and destruction and answers with a
// fixed result and reply.
class ProbeMessage : public Framework::Message {
public:
    explicit ProbeMessage(Probe& probe, int result = 0, std::string reply = std::string())
        : Framework::Message("probe"), _probe(probe), _result(result), _replyText(std::move(reply)) {}
    ~ProbeMessage() override { ++_probe.destroyed; }
    int MessageHandle(void*) override {
        GetMsgReply() = _replyText;
        ++_probe.handled;
        return _result;
    }

private:
    Probe& _probe;
    int _result;
    std::string _replyText;
};

// A task that only serves its queue.
class ServeTask : public Framework::Task {
public:
    ServeTask(const std::string& name, int capacity)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TASK_TYPE_EVENT, capacity) {}
    int Run() override { return ServeMessages(3000); }

private:
    ~ServeTask() override = default;
};

// Reachable at once, running or not: messages queue for it.
inline Poco::AutoPtr<ServeTask> MakeServeTask(const std::string& name, int capacity = 1024) {
    Poco::AutoPtr<ServeTask> task(new ServeTask(name, capacity));
    task->Publish();
    return task;
}

}  // namespace FrameworkTest
