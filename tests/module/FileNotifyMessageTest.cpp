#include <string>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "FileNotifyMessage.h"
#include "MixedTask.h"

using Engine::FileNotifyMessage;
using Framework::TaskCondition;

namespace {

// A consumer as consumers write them: a MixedTask that answers file events.
class Consumer : public Engine::MixedTask {
public:
    Consumer() : Engine::MixedTask("fn_test_consumer", "fn_test", TaskCondition::TASK_TYPE_EVENT, 16) {}
    int FileNotifyMessageAction(FileNotifyMessage* message) override { return message->GetNotifyType(); }
};

// The receiver as the first base: a fixed Task-to-receiver offset would miss it.
class ReceiverFirst : public Engine::AbstractMessageReceiver, public Framework::Task {
public:
    ReceiverFirst() : Framework::Task("fn_test_receiver_first", "fn_test", TaskCondition::TASK_TYPE_EVENT, 16) {}
    int Run() override { return 0; }
    int FileNotifyMessageAction(FileNotifyMessage*) override { return 7; }
};

class PlainTask : public Framework::Task {
public:
    PlainTask() : Framework::Task("fn_test_plain", "fn_test", TaskCondition::TASK_TYPE_EVENT, 16) {}
    int Run() override { return 0; }
};

}  // namespace

TEST(FileNotifyMessageTest, PathsLoseOneTrailingSlashAndMoveSetsBothBits) {
    const std::pair<const char*, const char*> cases[] = {
        {"/a/b/", "/a/b"}, {"/a/b//", "/a/b/"}, {"/", ""}, {"", ""}, {"/a/b", "/a/b"}};
    for (const auto& c : cases) {
        FileNotifyMessage message(0, c.first, 0x100);
        message.SetMoveEvent("/old/");
        message.SetMoveEvent(c.first);  // a second move keeps the bits and replaces the target
        EXPECT_EQ(c.second, message.GetEventFilePath()) << c.first;
        EXPECT_EQ(c.second, message.GetMovetoFile()) << c.first;
        EXPECT_EQ(0x1C0u, message.GetEventMask()) << c.first;
    }
}

// The framework hands MessageHandle the receiving Framework::Task*.
TEST(FileNotifyMessageTest, HandleFindsTheReceiverPartOfTheTask) {
    Poco::AutoPtr<Consumer> consumer(new Consumer);
    Poco::AutoPtr<ReceiverFirst> receiverFirst(new ReceiverFirst);
    Poco::AutoPtr<PlainTask> plain(new PlainTask);
    FileNotifyMessage message(2, "/a/b/", 0x10000);
    EXPECT_EQ(2, message.MessageHandle(static_cast<Framework::Task*>(consumer.get())));  // the notify type
    EXPECT_EQ(7, message.MessageHandle(static_cast<Framework::Task*>(receiverFirst.get())));
    EXPECT_EQ(1, message.MessageHandle(static_cast<Framework::Task*>(plain.get())));
    EXPECT_EQ(1, message.MessageHandle(nullptr));
}
