#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "FileNotifyMessage.h"
#include "FileNotifyOpt.h"
#include "MixedTask.h"
#include "TestUtil.h"
#include "framework/UniqueFd.h"

using Engine::FileNotifyMessage;

namespace {

constexpr int kDenied = 2;

// A consumer as consumers write them: a MixedTask that answers file events.
class RecordingConsumer : public Engine::MixedTask {
public:
    RecordingConsumer()
        : Engine::MixedTask("fn_test_consumer", "fn_test", Framework::TaskCondition::TASK_TYPE_EVENT, 16) {}
    int FileNotifyMessageAction(FileNotifyMessage* message) override {
        ++calls;
        seen = message;
        seenPath = message->GetEventFilePath();
        return kDenied;
    }
    int calls = 0;
    FileNotifyMessage* seen = nullptr;
    std::string seenPath;
};

// The receiver as the first base: a fixed Task-to-receiver offset would miss it.
class ReceiverFirstConsumer : public Engine::AbstractMessageReceiver, public Framework::Task {
public:
    ReceiverFirstConsumer() : Framework::Task("fn_test_receiver_first", "fn_test", Framework::TaskCondition::TASK_TYPE_EVENT, 16) {}
    int Run() override { return 0; }
    int FileNotifyMessageAction(FileNotifyMessage*) override { return 7; }
};

class PlainTask : public Framework::Task {
public:
    PlainTask() : Framework::Task("fn_test_plain", "fn_test", Framework::TaskCondition::TASK_TYPE_EVENT, 16) {}
    int Run() override { return 0; }
};

void* AsFrameworkTask(Framework::Task* task) { return task; }

}  // namespace

TEST(FileNotifyMessageTest, StoresPathsWithoutOneTrailingSlash) {
    const struct {
        const char* in;
        const char* out;
    } cases[] = {{"/a/b/", "/a/b"}, {"/a/b//", "/a/b/"}, {"/", ""}, {"", ""}, {"/a/b", "/a/b"}, {"a/", "a"}};
    for (const auto& c : cases) {
        FileNotifyMessage message(0, c.in, 0x2);
        EXPECT_EQ(c.out, message.GetEventFilePath()) << c.in;
        EXPECT_EQ(c.out, message.FormatFolderName(c.in)) << c.in;
        message.SetMoveEvent(c.in);
        EXPECT_EQ(c.out, message.GetMovetoFile()) << c.in;
    }
}

TEST(FileNotifyMessageTest, NewMessageDefaults) {
    FileNotifyMessage message(2, "/x/", 0x10000);
    EXPECT_EQ("filenotify", message.GetMsgName());
    EXPECT_EQ(2, message.GetNotifyType());
    EXPECT_EQ(0x10000u, message.GetEventMask());
    EXPECT_EQ(-1, message.GetWatchId());
    EXPECT_EQ("-1", message.GetWatchIdString());
    EXPECT_EQ(0ul, message.GetExtParm());
    EXPECT_EQ(0u, message.GetEventProcessId());
    EXPECT_EQ("", message.GetEventProcess());
    EXPECT_EQ("", message.GetMovetoFile());
    EXPECT_EQ("", message.GetWatchFile());
    EXPECT_FALSE(message.IsStatValid());
}

TEST(FileNotifyMessageTest, SettersKeepWhatTheSenderFilledIn) {
    FileNotifyMessage message(0, "/w/f", 0x100);
    message.SetMoveEvent("/w/g/");
    EXPECT_EQ(0x1C0u, message.GetEventMask());
    EXPECT_EQ("/w/g", message.GetMovetoFile());
    message.SetMoveEvent("/w/h");  // already a move: the bits stay, the target is replaced
    EXPECT_EQ(0x1C0u, message.GetEventMask());
    EXPECT_EQ("/w/h", message.GetMovetoFile());

    message.SetWatchFile(10001, "/w/");
    EXPECT_EQ(10001, message.GetWatchId());
    EXPECT_EQ("10001", message.GetWatchIdString());
    EXPECT_EQ("/w/", message.GetWatchFile());  // the watched object as registered, slash kept
    message.SetExtParm(0xFFFFFFFFFFFFul);
    EXPECT_EQ(0xFFFFFFFFFFFFul, message.GetExtParm());
    message.SetProcess(4242, "/usr/bin/cat");
    EXPECT_EQ(4242u, message.GetEventProcessId());
    EXPECT_EQ("/usr/bin/cat", message.GetEventProcess());
}

TEST(FileNotifyMessageTest, StatFromDescriptor) {
    TestUtil::TempDir tmp;
    std::ofstream(tmp / "five") << "12345";
    Framework::UniqueFd fd(::open((tmp / "five").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(fd.valid());
    FileNotifyMessage message(1, tmp / "five", 0x2);
    message.Stat(fd.get());
    ASSERT_TRUE(message.IsStatValid());
    EXPECT_TRUE(S_ISREG(message.Stat().st_mode));
    EXPECT_EQ(5, message.Stat().st_size);
    message.Stat(-1);
    EXPECT_FALSE(message.IsStatValid());
}

TEST(FileNotifyMessageTest, HandleReachesTheConsumersReceiverPart) {
    Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer);
    FileNotifyMessage message(2, "/a/b/", 0x10000);
    EXPECT_EQ(kDenied, message.MessageHandle(AsFrameworkTask(consumer.get())));
    EXPECT_EQ(&message, consumer->seen);
    EXPECT_EQ("/a/b", consumer->seenPath);

    Poco::AutoPtr<ReceiverFirstConsumer> receiverFirst(new ReceiverFirstConsumer);
    EXPECT_EQ(7, message.MessageHandle(AsFrameworkTask(receiverFirst.get())));
}

TEST(FileNotifyMessageTest, HandleRefusesTasksThatAreNoReceiver) {
    Poco::AutoPtr<PlainTask> plain(new PlainTask);
    FileNotifyMessage message(0, "/a", 0x2);
    EXPECT_NE(0, message.MessageHandle(AsFrameworkTask(plain.get())));
    EXPECT_NE(0, message.MessageHandle(nullptr));
}

TEST(FileNotifyMessageTest, FrameworkDeliversToTheReceiverOnTheConsumersQueue) {
    Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer);
    ASSERT_EQ(0, consumer->EnqueueMsg(new FileNotifyMessage(0, "/queued/", 0x100)));
    EXPECT_EQ(1, consumer->BulkConsumeMsg(8));
    EXPECT_EQ(1, consumer->calls);
    EXPECT_EQ("/queued", consumer->seenPath);
}

TEST(FileNotifyOptTest, DefaultsOnlySimulateCreateIsSet) {
    const Engine::_FileNotifyOpt opt;
    EXPECT_FALSE(opt.watchChildFolder || opt.watchSymLink || opt.onlyDir || opt.wholeMount || opt.permit ||
                 opt.remove || opt.timerFound || opt.fillStat || opt.inotifyOnly);
    EXPECT_TRUE(opt.simulateCreate);
    EXPECT_TRUE(opt.eventMasks.empty() && opt.ignorePath.empty() && opt.ignoreFileExt.empty());
    EXPECT_EQ(0ul, opt.extParm);
    EXPECT_EQ(0u, opt.combinedMask);
}
