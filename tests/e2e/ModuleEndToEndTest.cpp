#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Poco/AutoPtr.h>
#include <Poco/Event.h>

#include "ChildProcess.h"
#include "FileNotifyLog.h"
#include "FileNotifyWatchMessage.h"
#include "LogCapture.h"
#include "RecordingConsumer.h"
#include "TestUtil.h"
#include "framework/ModuleHost.h"
#include "framework/TaskRunner.h"

using std::chrono::milliseconds;
using TestUtil::RecordingConsumer;

namespace {

// The module loaded by the host runtime and two consumers that talk to it
// by message only.
class ModuleEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_EQ(0, host.Load(FN_MODULE_PATH, error)) << error;
        ASSERT_EQ(0, host.Start(error)) << error;
        for (auto* runner : {&runnerA, &runnerB})
            ASSERT_EQ(0, runner->Start());
        moduleIdA = a->AddConsumerByName("filenotify_task", "f");
        moduleIdB = b->AddConsumerByName("filenotify_task", "f");
        ASSERT_GT(moduleIdA, 0);
    }
    void TearDown() override { host.Stop(); }

    static Engine::_FileNotifyOpt Options(bool recursive = false, bool inotifyOnly = true) {
        Engine::_FileNotifyOpt opt;
        opt.watchChildFolder = recursive;
        opt.inotifyOnly = inotifyOnly;
        return opt;
    }
    // Sends a request and waits for its answer; reply gets the watch id.
    int Send(RecordingConsumer& from, Engine::FileNotifyWatchMessage* request, std::string& reply) {
        const int moduleId = &from == a.get() ? moduleIdA : moduleIdB;
        return from.SyncSendMsg(moduleId, "f", request, reply, 5000, 1);
    }
    // why, when given, gets the reason the module gave beside the reply.
    int Watch(RecordingConsumer& from, const std::string& path, std::vector<unsigned int> masks,
              const Engine::_FileNotifyOpt& opt, std::string* reply = nullptr, Engine::WatchFailure* why = nullptr) {
        std::string answer;
        auto* request = new Engine::FileNotifyWatchMessage(&from, path, masks, opt);
        const auto failure = request->GetFailureSlot();
        const int result = Send(from, request, answer);
        if (reply != nullptr) *reply = answer;
        if (why != nullptr) *why = failure->Get();
        return result;
    }
    int Unwatch(RecordingConsumer& from, const std::string& path, std::vector<unsigned int> masks,
                const Engine::_FileNotifyOpt& opt) {
        auto* request = new Engine::FileNotifyWatchMessage(&from, path, masks, opt);
        request->setRemoveWatchMessage();
        std::string reply;
        return Send(from, request, reply);
    }
    // Round trips to the module until cond holds, at most 5 s. Each one is a
    // pass of the module's loop (or shares one), and the loop runs its timer
    // every 20 passes.
    bool PingUntil(const std::function<bool()>& cond) {
        const auto deadline = std::chrono::steady_clock::now() + milliseconds(5000);
        while (!cond()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::string reply;
            a->SyncSendMsg(moduleIdA, "f", new Framework::Message("ping"), reply, 5000, 1);
        }
        return true;
    }

    TestUtil::LogCapture log{Engine::GetLoggerPtr()};
    TestUtil::TempDir dir;
    Framework::ModuleHost host;
    Poco::AutoPtr<RecordingConsumer> a{new RecordingConsumer("e2e_consumer_a")};
    Poco::AutoPtr<RecordingConsumer> b{new RecordingConsumer("e2e_consumer_b")};
    Framework::TaskRunner runnerA{a.get()};
    Framework::TaskRunner runnerB{b.get()};
    int moduleIdA = 0;
    int moduleIdB = 0;
};

// From the request to the events and back: after the remove request, a
// file made in the unwatched folder is not told, one made after it in a
// folder still watched is.
TEST_F(ModuleEndToEnd, InotifyWatchFromRequestToEvents) {
    const std::string d = dir / "w/";
    TestUtil::MakeDir(d);
    std::string reply;
    ASSERT_EQ(0, Watch(*a, d, {IN_CREATE | IN_DELETE}, Options(), &reply));
    EXPECT_GE(std::stoi(reply), 1);
    ASSERT_TRUE(a->WaitFor(1));  // the watched folder itself, as created
    EXPECT_EQ(dir / "w 0x40000100", a->Summary()[0]);
    Engine::_FileNotifyOpt quiet = Options();
    quiet.simulateCreate = false;
    ASSERT_EQ(0, Watch(*a, dir.path(), {IN_CREATE}, quiet));
    a->Clear();

    TestUtil::Touch(d + "new");
    ASSERT_EQ(0, ::unlink((d + "new").c_str()));
    ASSERT_TRUE(a->WaitFor(2));
    EXPECT_EQ((std::vector<std::string>{d + "new 0x100", d + "new 0x200"}), a->Summary());
    for (const auto& e : a->Events())
        EXPECT_EQ(std::stoi(reply), e.watchId);

    ASSERT_EQ(0, Unwatch(*a, d, {IN_CREATE | IN_DELETE}, Options()));
    a->Clear();
    TestUtil::Touch(d + "after");
    TestUtil::Touch(dir / "later");
    ASSERT_TRUE(a->WaitFor(1));
    EXPECT_EQ((std::vector<std::string>{dir / "later 0x100"}), a->Summary());
}

// The engine widens the kernel mask for its own bookkeeping (self events,
// folder creations of trees): consumers still get only what they asked for,
// on a tree and on a single folder, also when the root goes and comes back.
// The folder bit asked for lets no folder event through.
TEST_F(ModuleEndToEnd, ConsumersGetOnlyTheEventsTheyAskedFor) {
    const std::string root = dir / "r";
    TestUtil::MakeDir(root);
    ASSERT_EQ(0, Watch(*a, root, {IN_MODIFY | IN_ISDIR}, Options(true)));
    ASSERT_EQ(0, Watch(*b, root, {IN_MODIFY | IN_ISDIR}, Options(false)));
    TestUtil::MakeDir(root + "/sub");
    std::ofstream(root + "/f") << "x";
    ASSERT_EQ(0, ::unlink((root + "/f").c_str()));
    ASSERT_EQ(0, ::rmdir((root + "/sub").c_str()));
    ASSERT_EQ(0, ::rmdir(root.c_str()));
    TestUtil::MakeDir(root);
    // Both watches are back once a write reaches both; what came before it
    // in each queue is all there is.
    ASSERT_TRUE(PingUntil([&] {
        std::ofstream(root + "/g") << "x";
        return a->HasLine(root + "/g 0x2") && b->HasLine(root + "/g 0x2");
    })) << ::testing::PrintToString(a->Summary())
        << ::testing::PrintToString(b->Summary());
    for (RecordingConsumer* consumer : {a.get(), b.get()}) {
        const auto all = consumer->Summary();
        EXPECT_EQ(root + "/f 0x2", all.front());
        for (std::size_t i = 1; i < all.size(); ++i)
            EXPECT_EQ(root + "/g 0x2", all[i]) << consumer->GetTaskName();
    }
}

// A path that does not exist yet is watched once it appears; one whose
// request was removed while pending is not, though it appears as well.
TEST_F(ModuleEndToEnd, PendingPathsAreWatchedOnceTheyAppear) {
    const std::string root = dir / "later";
    std::string reply;
    EXPECT_EQ(1, Watch(*a, root, {IN_CREATE}, Options(), &reply));
    EXPECT_EQ("-1", reply);
    EXPECT_EQ(1, Watch(*a, dir / "never", {IN_CREATE}, Options(), &reply));
    EXPECT_EQ(0, Send(*a, new Engine::FileNotifyWatchMessage(a.get(), dir / "never", false), reply));
    TestUtil::MakeDir(dir / "never");
    TestUtil::MakeDir(root);
    ASSERT_TRUE(PingUntil([&] { return a->Count() >= 1; }));  // one pass of the timer watches both

    TestUtil::Touch(dir / "never/x");
    TestUtil::Touch(root + "/x");
    ASSERT_TRUE(a->WaitForPath(root + "/x"));
    EXPECT_EQ((std::vector<std::string>{root + " 0x40000100", root + "/x 0x100"}), a->Summary());
}

TEST_F(ModuleEndToEnd, BadRequestsAreRefusedPlainly) {
    std::string reply;
    Engine::WatchFailure why;
    // Blanks make a path that never exists: it stays pending.
    EXPECT_EQ(1, Watch(*a, "  " + dir.path() + "  ", {IN_CREATE}, Options(), &reply, &why));
    EXPECT_EQ("-1", reply);
    EXPECT_EQ(Engine::WatchFailure::Reason::Pending, why.reason);
    // A second watch of the same path by the same consumer is refused.
    ASSERT_EQ(0, Watch(*a, dir.path(), {IN_CREATE}, Options(), &reply, &why));
    EXPECT_EQ(Engine::WatchFailure::Reason::None, why.reason);
    EXPECT_EQ(1, Watch(*a, dir.path(), {IN_DELETE}, Options(), &reply, &why));
    EXPECT_EQ("-1", reply);
    EXPECT_EQ(Engine::WatchFailure::Reason::Duplicate, why.reason);
    EXPECT_EQ(0, Unwatch(*a, dir.path(), {IN_CREATE}, Options()));
    EXPECT_EQ(1, Unwatch(*a, dir.path(), {IN_CREATE}, Options()));
    EXPECT_TRUE(log.Has(Engine::LOG_ERROR,
                        "No found watch,taskId=" + std::to_string(a->GetTaskId()) + ",filepath=" + dir.path()));
    EXPECT_EQ(0, Watch(*a, dir.path(), {}, Options(), &reply));
    EXPECT_EQ("-1", reply);
    Engine::_FileNotifyOpt permit = Options(false, false);
    permit.permit = true;
    EXPECT_NE(0, Watch(*a, dir.path(), {FAN_MODIFY}, permit, &reply));
    EXPECT_TRUE(log.Has(Engine::LOG_ERROR, "No find FAN_OPEN or FAN_ACCESS event,m_watchMask=2"));
}

class FanotifyEndToEnd : public ModuleEndToEnd {
protected:
    void SetUp() override {
        const std::string missing = TestUtil::FanotifyMissing();
        if (!missing.empty()) GTEST_SKIP() << missing;
        ModuleEndToEnd::SetUp();
    }
};

TEST_F(FanotifyEndToEnd, MixedRequestUsesBothEnginesAndRemovesBoth) {
    const std::string d = dir.path();
    Engine::_FileNotifyOpt opt = Options(true, false);
    opt.simulateCreate = false;
    const std::vector<unsigned int> masks = {FAN_MODIFY | FAN_OPEN, IN_CREATE};
    ASSERT_EQ(0, Watch(*a, d, masks, opt));
    std::ofstream(d + "f") << "x";
    char exe[4096] = {};
    ASSERT_GT(::readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
    ASSERT_TRUE(TestUtil::WaitUntil([&] {
        bool inotify = false;
        bool fanotify = false;
        for (const auto& e : a->Events()) {
            inotify |= e.notifyType == 0 && e.mask == IN_CREATE;
            fanotify |= e.notifyType == 1 && e.pid == static_cast<unsigned int>(::getpid()) && e.exe == exe;
        }
        return inotify && fanotify;
    })) << ::testing::PrintToString(a->Summary());

    ASSERT_EQ(0, Unwatch(*a, d, masks, opt));
    TestUtil::MakeDir(d + "other");
    ASSERT_EQ(0, Watch(*a, d + "other", {IN_CREATE}, Options()));
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return a->HasLine(d + "other 0x40000100"); }));  // after the removal
    a->Clear();
    std::ofstream(d + "g") << "x";
    TestUtil::Touch(d + "other/later");
    ASSERT_TRUE(a->WaitFor(1));
    EXPECT_EQ((std::vector<std::string>{d + "other/later 0x100"}), a->Summary());
}

TEST_F(FanotifyEndToEnd, PermitRequestLetsTheConsumerDecide) {
    TestUtil::Touch(dir / "secret");
    Engine::_FileNotifyOpt opt = Options(true, false);
    opt.permit = true;
    std::string reply;
    ASSERT_EQ(0, Watch(*a, dir.path(), {FAN_OPEN}, opt, &reply));
    EXPECT_EQ("10000", reply);
    a->verdict = 2;
    EXPECT_EQ(EPERM, TestUtil::OpenFromChild(dir / "secret"));
    // Removed: the judge, which still denies, is not asked again.
    ASSERT_EQ(0, Send(*a, new Engine::FileNotifyWatchMessage(a.get(), dir.path(), true), reply));
    EXPECT_EQ(0, TestUtil::OpenFromChild(dir / "secret"));
    EXPECT_EQ(1u, a->Count());
}

// A permission event still in a consumer's hands when the module is stopped
// and unloaded: the access is released at the stop, and the late verdict
// runs no code of the unloaded module.
TEST_F(FanotifyEndToEnd, AConsumerMayJudgeAfterTheModuleIsGone) {
    TestUtil::Touch(dir / "secret");
    Poco::Event gate(false);
    std::shared_ptr<Engine::FileNotifyPermitAnswer> answer;
    a->verdict = 2;
    std::mutex mutex;
    a->onEvent = [&](const Engine::FileNotifyMessage& message) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            answer = message.GetPermitAnswer();
        }
        gate.wait();
    };
    const TestUtil::AtScopeEnd stopFirst([&] {
        gate.set();
        runnerA.Stop();
    });
    Engine::_FileNotifyOpt opt = Options(true, false);
    opt.permit = true;
    ASSERT_EQ(0, Watch(*a, dir.path(), {FAN_OPEN}, opt));
    TestUtil::OpeningChild child(dir / "secret");
    ASSERT_TRUE(TestUtil::WaitUntil([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return answer != nullptr;
    }));
    host.Stop();
    ASSERT_TRUE(child.Wait(milliseconds(5000)));
    EXPECT_EQ(0, child.result());
    gate.set();
    ASSERT_TRUE(a->WaitFor(1));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(Engine::FileNotifyPermitAnswer::State::AllowedByTimeout, answer->GetState());
    EXPECT_EQ(2, answer->GetVerdict());
}

}  // namespace
