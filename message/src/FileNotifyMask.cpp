#include "FileNotifyMask.h"

#include <sys/fanotify.h>
#include <sys/inotify.h>

#include <cctype>

namespace Engine {

using M = FileNotifyMask;

// The table is written out in numbers so that consumers need no kernel
// header; the build checks them against the kernel's.
static_assert(M::kAccess == IN_ACCESS);
static_assert(M::kAccess == FAN_ACCESS);
static_assert(M::kModify == IN_MODIFY);
static_assert(M::kModify == FAN_MODIFY);
static_assert(M::kAttrib == IN_ATTRIB);
static_assert(M::kCloseWrite == IN_CLOSE_WRITE);
static_assert(M::kCloseWrite == FAN_CLOSE_WRITE);
static_assert(M::kCloseNowrite == IN_CLOSE_NOWRITE);
static_assert(M::kCloseNowrite == FAN_CLOSE_NOWRITE);
static_assert(M::kOpen == IN_OPEN);
static_assert(M::kOpen == FAN_OPEN);
static_assert(M::kMovedFrom == IN_MOVED_FROM);
static_assert(M::kMovedTo == IN_MOVED_TO);
static_assert(M::kCreate == IN_CREATE);
static_assert(M::kDelete == IN_DELETE);
static_assert(M::kDeleteSelf == IN_DELETE_SELF);
static_assert(M::kMoveSelf == IN_MOVE_SELF);
static_assert(M::kInotifyEvents == IN_ALL_EVENTS);
static_assert(M::kOpenExec == FAN_OPEN_EXEC);
static_assert(M::kOpenPermission == FAN_OPEN_PERM);
static_assert(M::kAccessPermission == FAN_ACCESS_PERM);
static_assert(M::kOpenExecPermission == FAN_OPEN_EXEC_PERM);
static_assert(M::kUnmount == IN_UNMOUNT);
static_assert(M::kIgnored == IN_IGNORED);
static_assert(M::kOverflow == IN_Q_OVERFLOW);
static_assert(M::kOverflow == FAN_Q_OVERFLOW);
static_assert(M::kOnlyDir == IN_ONLYDIR);
static_assert(M::kDontFollow == IN_DONT_FOLLOW);
static_assert(M::kExclUnlink == IN_EXCL_UNLINK);
static_assert(M::kEventOnChild == FAN_EVENT_ON_CHILD);
static_assert(M::kMaskAdd == IN_MASK_ADD);
static_assert(M::kOneShot == IN_ONESHOT);
static_assert(M::kOnDirectory == IN_ISDIR);
static_assert(M::kOnDirectory == FAN_ONDIR);
static_assert((M::kEventBits & (M::kStatusBits | M::kOnDirectory | M::kEventOnChild)) == 0);

const std::vector<FileNotifyMask::_Name>& FileNotifyMask::Table() {
    static const std::vector<_Name> table = {
        {"access", kAccess, Kind::Event, true},
        {"modify", kModify, Kind::Event, true},
        {"attrib", kAttrib, Kind::Event, true},
        {"close_write", kCloseWrite, Kind::Event, true},
        {"close_nowrite", kCloseNowrite, Kind::Event, true},
        {"open", kOpen, Kind::Event, true},
        {"moved_from", kMovedFrom, Kind::Event, true},
        {"moved_to", kMovedTo, Kind::Event, true},
        {"create", kCreate, Kind::Event, true},
        {"delete", kDelete, Kind::Event, true},
        {"delete_self", kDeleteSelf, Kind::Event, true},
        {"move_self", kMoveSelf, Kind::Event, true},
        {"open_exec", kOpenExec, Kind::Event, false},
        {"unmount", kUnmount, Kind::Status, false},
        {"q_overflow", kOverflow, Kind::Status, false},
        {"ignored", kIgnored, Kind::Status, false},
        {"open_perm", kOpenPermission, Kind::Event, false},
        {"access_perm", kAccessPermission, Kind::Event, false},
        {"open_exec_perm", kOpenExecPermission, Kind::Event, false},
        {"onlydir", kOnlyDir, Kind::Flag, false},
        {"dont_follow", kDontFollow, Kind::Flag, false},
        {"excl_unlink", kExclUnlink, Kind::Flag, false},
        {"event_on_child", kEventOnChild, Kind::Flag, false},
        {"mask_create", kMaskCreate, Kind::Flag, false},
        {"mask_add", kMaskAdd, Kind::Flag, false},
        {"isdir", kOnDirectory, Kind::Flag, false},
        {"oneshot", kOneShot, Kind::Flag, false},
        {"close", kClose, Kind::Alias, true},
        {"move", kMove, Kind::Alias, true},
        {"all", kInotifyEvents, Kind::Alias, true},
    };
    return table;
}

bool FileNotifyMask::Selects(unsigned int wanted, unsigned int event, bool fanotifyEvent) {
    if (wanted == 0) return false;
    if ((event & (kUnmount | kOverflow)) != 0) return true;
    if ((event & wanted & kEventBits) == 0) return false;
    return !fanotifyEvent || (event & kOnDirectory) == 0 || (wanted & kOnDirectory) != 0;
}

unsigned int FileNotifyMask::BitsOfName(const std::string& name) {
    for (const _Name& entry : Table()) {
        if (entry.requestable && name == entry.name) return entry.bits;
    }
    return 0;
}

std::vector<std::string> FileNotifyMask::NamesOf(unsigned int mask) {
    std::vector<std::string> names;
    for (const _Name& entry : Table()) {
        if (entry.kind == Kind::Alias || (mask & entry.bits) == 0) continue;
        std::string upper(entry.name);
        for (char& c : upper)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        names.push_back(std::move(upper));
    }
    return names;
}

}  // namespace Engine
