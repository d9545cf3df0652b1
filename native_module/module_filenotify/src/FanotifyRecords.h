#pragma once

#include <sys/fanotify.h>

#include <cstddef>

#include "FileNotifyMask.h"

namespace Engine {

// The bits of an event that holds its process until it is answered.
constexpr unsigned int kFanPermissionBits = FileNotifyMask::kPermissionBits;

// The record at data, copied out (records need not be aligned for the
// 64-bit mask); false when no whole record starts there.
bool FanotifyRecordAt(const char* data, std::size_t remaining, fanotify_event_metadata& record);

// Writes the verdict on the permission event eventFd to the group groupFd,
// again after EINTR. False, with errno kept, when the write fails. Never
// logs: the permission reader thread uses it too.
bool WriteFanotifyAnswer(int groupFd, int eventFd, bool allow);

// A permission event of the agent's own process: it is allowed at once and
// never put to a consumer, which may be the very thread that waits.
bool IsOwnAccess(const fanotify_event_metadata& record);

}  // namespace Engine
