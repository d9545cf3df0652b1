// The inotify record walk fed raw bytes, on one instance with real watches
// on a temporary tree: descriptors 1 to 4 name the tree's root, its
// subfolders a/ and a/b/, and a file root. (An instance per input would
// cost the kernel's grace period of about 8 ms at each close.)

#include <sys/inotify.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "FileInotify.h"
#include "FileNotifyLimit.h"
#include "FuzzUtil.h"

namespace {

struct Walk {
    const char* begin;
    const char* end;
    int treeWd;
    int fileWd;
};

int Check(const Engine::InotifyCallBackParm& parm, void* data) {
    const auto* walk = static_cast<const Walk*>(data);
    if (parm.type != Engine::InotifyCallBackParm::TYPE_EVENT) return 0;
    FUZZ_CHECK(parm.rootWd == walk->treeWd || parm.rootWd == walk->fileWd, "an event of no root");
    FUZZ_CHECK(!parm.filePath.empty(), "an event without a path");
    if (parm.event == nullptr) return 0;
    const char* record = reinterpret_cast<const char*>(parm.event);
    FUZZ_CHECK(record >= walk->begin && record + sizeof(inotify_event) + parm.event->len <= walk->end,
               "a record outside the buffer");
    return 0;
}

struct Instance {
    FuzzUtil::TempTree tree;
    Engine::FileNotifyLimit limit;
    Engine::FileInotify inotify{&limit};
    int treeWd = 0;
    int fileWd = 0;

    Instance() {
        FuzzUtil::QuietModuleLog();
        FUZZ_CHECK(inotify.AddWatch(tree.path(), IN_ALL_EVENTS, treeWd, true, false, false) == 0, "no tree watch");
        FUZZ_CHECK(inotify.AddWatch(tree.path() + "f", IN_ALL_EVENTS, fileWd, false, false, true) == 0,
                   "no file watch");
    }
    // Ends the batch as a read does, without the tree changes it queued:
    // fuzzed names could lead anywhere. Each input starts from the same state.
    void EndBatch() {
        inotify.ClearRefreshWatch();
        char real[4096] __attribute__((aligned(8)));
        inotify.ReadEvents(real, sizeof real, &Ignore, nullptr);
        inotify.RefreshWatch(&Ignore, nullptr);
    }
    static int Ignore(const Engine::InotifyCallBackParm&, void*) { return 0; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Instance& instance = *new Instance();
    // Aligned, as the module's read buffer is.
    std::vector<inotify_event> aligned(size / sizeof(inotify_event) + 1);
    std::memcpy(aligned.data(), data, size);
    const char* buffer = reinterpret_cast<const char*>(aligned.data());
    Walk walk{buffer, buffer + size, instance.treeWd, instance.fileWd};
    instance.inotify.DoWithEvents(buffer, static_cast<int>(size), &Check, &walk);
    instance.EndBatch();
    return 0;
}
