#include "FanotifyRecords.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Engine {

bool FanotifyRecordAt(const char* data, std::size_t remaining, fanotify_event_metadata& record) {
    if (remaining < sizeof record) return false;
    std::memcpy(&record, data, sizeof record);
    return record.event_len >= sizeof record && record.event_len <= remaining;
}

bool WriteFanotifyAnswer(int groupFd, int eventFd, bool allow) {
    const fanotify_response answer{eventFd, allow ? static_cast<__u32>(FAN_ALLOW) : static_cast<__u32>(FAN_DENY)};
    ssize_t written;
    do {
        written = ::write(groupFd, &answer, sizeof answer);
    } while (written < 0 && errno == EINTR);
    return written >= 0;
}

bool IsOwnAccess(const fanotify_event_metadata& record) {
    return (record.mask & kFanPermissionBits) != 0 && record.pid == ::getpid();
}

}  // namespace Engine
