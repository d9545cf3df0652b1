// The fanotify record walk fed raw bytes. Every record the kernel could have
// written (a whole header, a length that fits) and that carries a
// descriptor gets a real one of /dev/null. Each must be closed exactly once,
// after its callback if it had one; in a permission group, every
// permission event must reach the callback or be allowed before its close.
// The walk's close and write calls come here first (linked with
// --wrap=close,--wrap=write).

#include <fcntl.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <vector>

#include "FileFanotify.h"
#include "FuzzUtil.h"

extern "C" int __real_close(int fd);
extern "C" ssize_t __real_write(int fd, const void* data, size_t size);

namespace {

struct Planted {
    bool permission = false;
    bool called = false;
    bool answered = false;
    bool closed = false;
};

std::map<int, Planted> g_planted;  // by descriptor, for the input in hand

int Check(int, bool, fanotify_event_metadata* record, void*) {
    auto it = g_planted.find(record->fd);
    FUZZ_CHECK(it != g_planted.end(), "a callback with a descriptor that no record had");
    FUZZ_CHECK(!it->second.closed, "a callback with a closed descriptor");
    it->second.called = true;
    return 0;
}

// Gives each record with a descriptor one of its own, as the kernel does.
void Plant(std::vector<char>& bytes) {
    std::size_t at = 0;
    fanotify_event_metadata record{};
    while (bytes.size() - at >= sizeof record) {
        std::memcpy(&record, &bytes[at], sizeof record);
        if (record.event_len < sizeof record || record.event_len > bytes.size() - at) break;
        if (record.fd >= 0) {
            const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
            FUZZ_CHECK(fd >= 0, "cannot open /dev/null");
            g_planted[fd].permission = (record.mask & Engine::kFanPermissionBits) != 0;
            std::memcpy(&bytes[at + offsetof(fanotify_event_metadata, fd)], &fd, sizeof fd);
        }
        at += record.event_len;
    }
}

}  // namespace

extern "C" int __wrap_close(int fd) {
    auto it = g_planted.find(fd);
    if (it != g_planted.end()) {
        FUZZ_CHECK(!it->second.closed, "an event descriptor closed twice");
        it->second.closed = true;
    }
    return __real_close(fd);
}

extern "C" ssize_t __wrap_write(int fd, const void* data, size_t size) {
    if (size == sizeof(fanotify_response)) {
        fanotify_response answer{};
        std::memcpy(&answer, data, sizeof answer);
        auto it = g_planted.find(answer.fd);
        if (it != g_planted.end()) {
            FUZZ_CHECK(!it->second.closed, "an answer after the close");
            FUZZ_CHECK(answer.response == FAN_ALLOW, "a released event was not allowed");
            it->second.answered = true;
        }
    }
    return __real_write(fd, data, size);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A permission group and a notification group; opened when this
    // process may, else only their kind is set, and answers go nowhere.
    static Engine::FileFanotify* groups = [] {
        FuzzUtil::QuietModuleLog();
        auto* made = new Engine::FileFanotify[2];
        made[0].Initialize(false);
        made[1].Initialize(true);
        return made;
    }();
    if (size == 0) return 0;
    const bool block = (data[0] & 1U) != 0;
    Engine::FileFanotify& group = groups[block ? 1 : 0];
    std::vector<char> bytes(data + 1, data + size);
    g_planted.clear();
    Plant(bytes);
    group.DoWithEvents(bytes.data(), static_cast<long>(bytes.size()), &Check, nullptr);
    for (const auto& [fd, planted] : g_planted) {
        FUZZ_CHECK(planted.closed, "an event descriptor left open");
        if (block && planted.permission) {
            FUZZ_CHECK(planted.called || planted.answered, "a permission event neither handed on nor allowed");
        }
    }
    g_planted.clear();
    return 0;
}
