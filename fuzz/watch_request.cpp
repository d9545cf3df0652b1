// Watch requests with fuzzed paths, masks and options, handled by a module
// task driven on this thread (not started), then removed again. Paths stay
// inside a temporary tree: the fuzzed part is put below it with its ".."
// parts dropped. No permission or whole-mount marks: nothing outside the
// tree is ever marked. A removed watch must leave no kernel watch or mark
// and no pending request behind.

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>

#include "FileNotifyMask.h"
#include "FileNotifyTask.h"
#include "FileNotifyWatchMessage.h"
#include "FuzzUtil.h"
#include "MixedTask.h"

namespace {

// The kernel's inotify watches and fanotify marks of this process, whatever
// the module's books say.
int KernelMarks() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
        std::ifstream info(entry.path());
        std::string line;
        while (std::getline(info, line))
            count += line.rfind("inotify wd:", 0) == 0 || line.rfind("fanotify ino:", 0) == 0 ? 1 : 0;
    }
    return count;
}

// root + relative, with every ".." part of relative dropped, also one that
// goes on after a NUL byte: the kernel reads the path up to the NUL.
std::string Confined(const std::string& root, const std::string& relative) {
    std::string path = root;
    std::size_t start = 0;
    while (start <= relative.size()) {
        std::size_t end = relative.find('/', start);
        if (end == std::string::npos) end = relative.size();
        const std::string part = relative.substr(start, end - start);
        if (part != ".." && part.compare(0, 3, std::string("..\0", 3)) != 0)
            path += part + (end < relative.size() ? "/" : "");
        start = end + 1;
    }
    return path;
}

struct Module {
    FuzzUtil::TempTree tree;
    Poco::AutoPtr<Engine::FileNotifyTask> task{new Engine::FileNotifyTask()};
    // Never started: what the task sends it waits in its queue, the rest is dropped.
    Poco::AutoPtr<Engine::MixedTask> consumer{
        new Engine::MixedTask("fuzz_consumer", "fuzz", Framework::TaskCondition::TASK_TYPE_EVENT, 64)};

    Module() {
        FuzzUtil::QuietModuleLog();
        (void)!::symlink("a", (tree.path() + "l").c_str());
        FUZZ_CHECK(task->Init() == 0, "the task does not start");
    }
    void Pump() {
        while (task->GetEventWaiter().WaitAndHandleEvent(0, 128) > 0) {
        }
    }
    void Handle(Engine::FileNotifyWatchMessage& request) {
        request.MessageHandle(static_cast<Framework::Task*>(task.get()));
        Pump();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Module& module = *new Module();
    FuzzUtil::Input in(data, size);
    Engine::_FileNotifyOpt opt;
    opt.watchChildFolder = in.Bit();
    opt.watchSymLink = in.Bit();
    opt.onlyDir = in.Bit();
    opt.inotifyOnly = in.Bit();
    opt.simulateCreate = in.Bit();
    opt.fillStat = in.Bit();
    opt.extParm = in.Take<std::uint16_t>();
    std::vector<unsigned int> masks(1 + in.Take<std::uint8_t>() % 3);
    for (unsigned int& mask : masks)
        mask = in.Take<std::uint32_t>() & ~Engine::FileNotifyMask::kPermissionBits;
    for (int i = in.Take<std::uint8_t>() % 3; i > 0; --i)
        opt.ignorePath.push_back(Confined(module.tree.path(), in.String()));
    for (int i = in.Take<std::uint8_t>() % 3; i > 0; --i)
        opt.ignoreFileExt.push_back(in.String());
    const std::string path = Confined(module.tree.path(), in.Rest());
    // A fanotify mark on a link itself (links not followed) cannot be taken
    // off by path: the removal's flags have no FAN_MARK_DONT_FOLLOW, so it
    // reaches the link's target, and the mark stays until the group closes.
    // Fanotify requests here follow links.
    if (!opt.inotifyOnly) opt.watchSymLink = true;

    Engine::FileNotifyWatchMessage add(module.consumer.get(), path, masks, opt);
    module.Handle(add);
    FUZZ_CHECK(add.GetMsgReply() != "-1" || add.GetFailure().reason != Engine::WatchFailure::Reason::None,
               "a request that made no watch says no reason");
    // A missing path is pending once per engine that the request uses, and
    // a remove request takes one pending record at a time.
    const int parts = (add.GetFanotifyMask() != 0 ? 1 : 0) + (add.GetInotifyMask() != 0 ? 1 : 0);
    for (int i = 0; i < std::max(parts, 1); ++i) {
        Engine::FileNotifyWatchMessage remove(module.consumer.get(), path, masks, opt);
        remove.setRemoveWatchMessage();
        module.Handle(remove);
    }
    // The empty prefix matches every record of the one consumer.
    bool pending = false;
    module.task->RemovePendingWatch(module.consumer->GetTaskId(), "", pending);
    FUZZ_CHECK(!pending, "a removed request is still pending");
    FUZZ_CHECK(KernelMarks() == 0, "a removed watch left kernel watches or marks");
    return 0;
}
