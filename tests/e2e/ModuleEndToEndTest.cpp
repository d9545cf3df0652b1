#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
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

namespace {

// The module loaded by the host runtime and a consumer that talks to it by
// message only.
class ModuleEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_EQ(0, host.Load(FN_MODULE_PATH, error)) << error;
        ASSERT_EQ(0, host.Start(error)) << error;
        ASSERT_EQ(0, runner.Start());
        moduleId = a->AddConsumerByName("filenotify_task", "f");
        ASSERT_GT(moduleId, 0);
    }
    void TearDown() override { host.Stop(); }

    static Engine::_FileNotifyOpt Options(bool recursive = false, bool inotifyOnly = true, bool permit = false) {
        Engine::_FileNotifyOpt opt;
        opt.watchChildFolder = recursive;
        opt.inotifyOnly = inotifyOnly;
        opt.permit = permit;
        return opt;
    }
    // Sends a request and waits for its answer, which goes to reply.
    int Send(Framework::Message* request) { return a->SyncSendMsg(moduleId, "f", request, reply, 5000, 1); }
    // An add request, or a remove request.
    int Watch(const std::string& path, std::vector<unsigned int> masks, const Engine::_FileNotifyOpt& opt,
              bool remove = false) {
        auto* request = new Engine::FileNotifyWatchMessage(a.get(), path, masks, opt);
        if (remove) request->setRemoveWatchMessage();
        return Send(request);
    }

    TestUtil::LogCapture log{Engine::GetLoggerPtr()};
    TestUtil::TempDir dir;
    Framework::ModuleHost host;
    Poco::AutoPtr<TestUtil::RecordingConsumer> a{new TestUtil::RecordingConsumer("e2e_consumer")};
    Framework::TaskRunner runner{a.get()};
    int moduleId = 0;
    std::string reply;
};

// From the request to the events and back: after the remove request, a
// file made in the unwatched folder is not told. A path that does not exist
// yet is watched once it appears; one whose request was removed while
// pending is not. A request without events, or a permission request without
// an open, makes no watch.
TEST_F(ModuleEndToEnd, RequestsAnswersAndEvents) {
    const std::string d = dir / "w/";
    TestUtil::MakeDir(d);
    ASSERT_EQ(0, Watch(d, {IN_CREATE | IN_DELETE}, Options()));
    const int id = std::stoi(reply);
    EXPECT_GE(id, 1);
    ASSERT_TRUE(a->WaitFor(1));  // the watched folder itself, as created
    EXPECT_EQ(dir / "w 0x40000100", a->Summary()[0]);
    EXPECT_EQ(0, Watch(dir.path(), {}, Options()));
    EXPECT_EQ("-1", reply);
    EXPECT_NE(0, Watch(dir.path(), {FAN_MODIFY}, Options(false, false, true)));
    EXPECT_TRUE(log.Has(Engine::LOG_ERROR, "No find FAN_OPEN or FAN_ACCESS event,m_watchMask=2"));
    const std::string later = dir / "later";
    EXPECT_EQ(1, Watch(later, {IN_CREATE}, Options()));
    EXPECT_EQ(1, Watch("  " + dir.path() + "  ", {IN_CREATE}, Options())) << "blanks belong to the name";
    EXPECT_EQ(1, Watch(dir / "never", {IN_CREATE}, Options()));
    EXPECT_EQ(0, Send(new Engine::FileNotifyWatchMessage(a.get(), dir / "never", false)));
    a->Clear();

    TestUtil::Touch(d + "new");
    ASSERT_EQ(0, ::unlink((d + "new").c_str()));
    ASSERT_TRUE(a->WaitFor(2));
    EXPECT_EQ((std::vector<std::string>{d + "new 0x100", d + "new 0x200"}), a->Summary());
    for (const auto& e : a->Events())
        EXPECT_EQ(id, e.watchId);

    ASSERT_EQ(0, Watch(d, {IN_CREATE | IN_DELETE}, Options(), true));
    a->Clear();
    TestUtil::Touch(d + "after");
    TestUtil::MakeDir(dir / "never");
    TestUtil::MakeDir(later);
    // The timer that watches pending paths runs every 20 passes of the
    // module's loop: each round trip is one, or shares one.
    TestUtil::WaitUntil([&] {
        if (a->Count() > 0) return true;
        Send(new Framework::Message("ping"));
        return false;
    });
    TestUtil::Touch(dir / "never/x");
    TestUtil::Touch(later + "/x");
    ASSERT_TRUE(a->WaitForPath(later + "/x"));
    EXPECT_EQ((std::vector<std::string>{later + " 0x40000100", later + "/x 0x100"}), a->Summary());
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
    ASSERT_EQ(0, Watch(d, masks, opt));
    std::ofstream(d + "f") << "x";
    EXPECT_TRUE(a->WaitForEvent([](const auto& e) { return e.notifyType == 0 && e.mask == IN_CREATE; }));
    EXPECT_TRUE(a->WaitForEvent([](const auto& e) { return e.notifyType == 1 && (e.mask & FAN_MODIFY) != 0; }));

    ASSERT_EQ(0, Watch(d, masks, opt, true));
    TestUtil::MakeDir(d + "other");
    ASSERT_EQ(0, Watch(d + "other", {IN_CREATE}, Options()));
    ASSERT_TRUE(TestUtil::WaitUntil([&] { return a->HasLine(d + "other 0x40000100"); }));  // after the removal
    a->Clear();
    std::ofstream(d + "g") << "x";
    TestUtil::Touch(d + "other/later");
    ASSERT_TRUE(a->WaitFor(1));
    EXPECT_EQ((std::vector<std::string>{d + "other/later 0x100"}), a->Summary());
}

// The consumer decides; once the request is removed it is not asked again.
// A permission event still in its hands when the module is stopped and
// unloaded: the access is released at the stop, and the late verdict runs no
// code of the unloaded module.
TEST_F(FanotifyEndToEnd, PermitRequestLetsTheConsumerDecideUntilTheModuleIsGone) {
    TestUtil::Touch(dir / "secret");
    ASSERT_EQ(0, Watch(dir.path(), {FAN_OPEN}, Options(true, false, true)));
    EXPECT_EQ("10000", reply);
    a->verdict = 2;
    EXPECT_EQ(EPERM, TestUtil::OpenFromChild(dir / "secret"));
    ASSERT_EQ(0, Send(new Engine::FileNotifyWatchMessage(a.get(), dir.path(), true)));
    EXPECT_EQ(0, TestUtil::OpenFromChild(dir / "secret"));
    EXPECT_EQ(1u, a->Count());

    Poco::Event asked(false);
    Poco::Event gate(false);
    std::shared_ptr<Engine::FileNotifyPermitAnswer> answer;
    // Set while the consumer is idle: the next event is handed over after it.
    a->onEvent = [&](const Engine::FileNotifyMessage& message) {
        answer = message.GetPermitAnswer();
        asked.set();
        gate.wait();
    };
    const TestUtil::AtScopeEnd stopFirst([&] {
        gate.set();
        runner.Stop();
    });
    ASSERT_EQ(0, Watch(dir.path(), {FAN_OPEN}, Options(true, false, true)));
    TestUtil::OpeningChild child(dir / "secret");
    ASSERT_TRUE(asked.tryWait(5000));
    host.Stop();
    ASSERT_TRUE(child.Wait(milliseconds(5000)));
    EXPECT_EQ(0, child.result());
    gate.set();
    ASSERT_TRUE(a->WaitFor(2));
    EXPECT_EQ(Engine::FileNotifyPermitAnswer::State::AllowedByTimeout, answer->GetState());
    EXPECT_EQ(2, answer->GetVerdict());
}

}  // namespace
