#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>

#include "FileNotifyLog.h"
#include "FileNotifyMessage.h"
#include "FileNotifyTask.h"
#include "FileNotifyWatchMessage.h"
#include "HeldThread.h"
#include "InotifyTestUtil.h"
#include "LogCapture.h"
#include "ProbedTask.h"
#include "RecordingConsumer.h"
#include "TestUtil.h"
#include "framework/TaskRunner.h"

using Engine::FileNotifyMessage;
using TestUtil::RecordingConsumer;

namespace {

// The receiver as the first base: a fixed Task-to-receiver offset would miss it.
class ReceiverFirst : public Engine::AbstractMessageReceiver, public Framework::Task {
public:
    ReceiverFirst()
        : Framework::Task("fn_test_receiver_first", "fn_test", Framework::TaskCondition::TASK_TYPE_EVENT, 16) {}
    int Run() override { return 0; }
    int FileNotifyMessageAction(FileNotifyMessage*) override { return 7; }
};

}  // namespace

TEST(FileNotifyMessageTest, PathsLoseOneTrailingSlashAndHandleFindsTheReceiverPartOfTheTask) {
    const std::pair<const char*, const char*> cases[] = {{"/a/b/", "/a/b"}, {"/a/b//", "/a/b/"}, {"/", ""}};
    for (const auto& c : cases) {
        FileNotifyMessage message(0, c.first, 0x100);
        message.SetMoveEvent("/old/");
        message.SetMoveEvent(c.first);  // a second move keeps the bits and replaces the target
        EXPECT_EQ(c.second, message.GetEventFilePath()) << c.first;
        EXPECT_EQ(c.second, message.GetMovetoFile()) << c.first;
        EXPECT_EQ(0x1C0u, message.GetEventMask()) << c.first;
    }
    // The framework hands MessageHandle the receiving Framework::Task*.
    Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer());
    consumer->verdict = 5;
    Poco::AutoPtr<ReceiverFirst> receiverFirst(new ReceiverFirst);
    Poco::AutoPtr<TestUtil::ProbedTask> noReceiver(new TestUtil::ProbedTask());
    FileNotifyMessage message(2, "/a/b/", 0x10000);
    EXPECT_EQ(5, message.MessageHandle(static_cast<Framework::Task*>(consumer.get())));
    EXPECT_EQ(7, message.MessageHandle(static_cast<Framework::Task*>(receiverFirst.get())));
    EXPECT_EQ(1, message.MessageHandle(static_cast<Framework::Task*>(noReceiver.get())));
    EXPECT_EQ(1, message.MessageHandle(nullptr));
}

// Handled on this thread, whose bypasses are lowered: a path that cannot come
// into existence as written is refused once with its reason and never waits;
// a missing one waits. (The empty and the too long path: FilenotifyCli.)
TEST(FileNotifyTask, RequestsForPathsThatCanNeverBeWatchedAreRefused) {
    TestUtil::TempDir dir;
    TestUtil::MakeDir(dir / "locked");
    ASSERT_EQ(0, ::chmod((dir / "locked").c_str(), 0));
    ASSERT_EQ(0, ::symlink((dir / "loop").c_str(), (dir / "loop").c_str()));
    Poco::AutoPtr<TestUtil::ProbedTask> task(new TestUtil::ProbedTask());
    Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer());
    consumer->Publish();  // a live sender, though never started
    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    TestUtil::DropPermissionBypass asUnprivileged;
    struct stat status {};
    if (::stat((dir / "locked/x").c_str(), &status) == 0 || errno != EACCES) {
        GTEST_SKIP() << "mode 000 does not stop a search here";
    }
    const std::pair<std::string, const char*> cases[] = {
        {dir / std::string(300, 'n'), "longer than NAME_MAX"},
        {dir / "locked/x", "may not be searched"},
        {dir / "loop/x", "links loop"},
        {dir / "later/x", ""},  // kept pending
    };
    for (const auto& [path, said] : cases) {
        const std::size_t pending = task->PendingWatches().size();
        const long errors = log.Count(Engine::LOG_ERROR);
        Engine::FileNotifyWatchMessage request(consumer.get(), path, {IN_CREATE},
                                               TestUtil::InotifyOptions(IN_CREATE, false));
        EXPECT_EQ(1, request.MessageHandle(static_cast<Framework::Task*>(task.get()))) << said;
        EXPECT_EQ("-1", request.GetMsgReply()) << said;
        const bool refused = *said != '\0';
        EXPECT_EQ(refused ? Engine::WatchFailure::Reason::BadPath : Engine::WatchFailure::Reason::Pending,
                  request.GetFailure().reason)
            << said;
        EXPECT_EQ(pending + (refused ? 0 : 1), task->PendingWatches().size()) << said;
        ASSERT_EQ(errors + (refused ? 1 : 0), log.Count(Engine::LOG_ERROR)) << said << "\n" << log.Dump();
        if (refused) {
            EXPECT_NE(std::string::npos, log.Texts(Engine::LOG_ERROR).back().find(said)) << log.Dump();
        }
    }
    ::chmod((dir / "locked").c_str(), 0755);
}

// A consumer released while its request waits behind a busy module thread:
// the request fails cleanly, nothing of the consumer is touched (the
// sanitizer build checks that), and no watch is made for nobody.
TEST(FileNotifyTask, ARequestWhoseSenderIsGoneFailsCleanly) {
    TestUtil::TempDir dir;
    TestUtil::LogCapture log(Engine::GetLoggerPtr());
    Poco::AutoPtr<TestUtil::ProbedTask> task(new TestUtil::ProbedTask());
    Framework::TaskRunner taskRunner(task.get());
    ASSERT_EQ(0, taskRunner.Start());
    int senderId = 0;
    {
        TestUtil::HeldThread busy(*task);
        ASSERT_TRUE(busy.held);
        Poco::AutoPtr<RecordingConsumer> consumer(new RecordingConsumer());
        Framework::TaskRunner consumerRunner(consumer.get());
        ASSERT_EQ(0, consumerRunner.Start());
        senderId = consumer->GetTaskId();
        consumer->AddConsumer(task->GetTaskId(), "f", task.get());
        ASSERT_EQ(0, consumer->SendMsg(task->GetTaskId(), "f",
                                       new Engine::FileNotifyWatchMessage(consumer.get(), dir.path(), {IN_CREATE},
                                                                          TestUtil::InotifyOptions(IN_CREATE, true))));
        consumerRunner.Stop();
    }  // the consumer is gone, then the module thread goes on
    const std::string gone = "the sender of a watch request is gone, taskId=" + std::to_string(senderId);
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return log.Has(Engine::LOG_ERROR, gone); })) << log.Dump();
    EXPECT_TRUE(task->InotifyWatch().GetWatchData().Empty());
    EXPECT_TRUE(task->PendingWatches().empty());
}
