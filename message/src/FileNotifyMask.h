#pragma once

#include <string>
#include <vector>

#include "FileNotifyExport.h"

namespace Engine {

// The bits of inotify and fanotify masks with their names: one table for the
// module, its consumers and the command. Both interfaces give a name they
// share the same number (FAN_MODIFY == IN_MODIFY, FAN_ONDIR == IN_ISDIR,
// FAN_Q_OVERFLOW == IN_Q_OVERFLOW). The fanotify bits that clash with inotify
// ones (FAN_FS_ERROR, FAN_RENAME) exist only for groups that report file
// handles, which this module never opens. Pure: no kernel call, any thread.
class FILENOTIFY_API FileNotifyMask {
public:
    enum class Kind {
        Event,   // something happened to a file: selects and is reported
        Status,  // the kernel says something about a watch or its queue
        Flag,    // qualifies an event or a mark; never an event by itself
        Alias,   // a name for several event bits, for requests
    };
    struct _Name {
        const char* name;  // lower case
        unsigned int bits;
        Kind kind;
        bool requestable;  // a consumer of inotify events may ask for it by name
    };

    // Events (inotify, and fanotify where the number is shared).
    static constexpr unsigned int kAccess = 0x1;
    static constexpr unsigned int kModify = 0x2;
    static constexpr unsigned int kAttrib = 0x4;
    static constexpr unsigned int kCloseWrite = 0x8;
    static constexpr unsigned int kCloseNowrite = 0x10;
    static constexpr unsigned int kOpen = 0x20;
    static constexpr unsigned int kMovedFrom = 0x40;
    static constexpr unsigned int kMovedTo = 0x80;
    static constexpr unsigned int kCreate = 0x100;
    static constexpr unsigned int kDelete = 0x200;
    static constexpr unsigned int kDeleteSelf = 0x400;
    static constexpr unsigned int kMoveSelf = 0x800;
    static constexpr unsigned int kOpenExec = 0x1000;  // fanotify only
    static constexpr unsigned int kOpenPermission = 0x10000;
    static constexpr unsigned int kAccessPermission = 0x20000;
    static constexpr unsigned int kOpenExecPermission = 0x40000;
    // Status.
    static constexpr unsigned int kUnmount = 0x2000;
    static constexpr unsigned int kOverflow = 0x4000;
    static constexpr unsigned int kIgnored = 0x8000;
    // Flags: on events (kOnDirectory) or on marks and watches (the others).
    static constexpr unsigned int kOnlyDir = 0x01000000;
    static constexpr unsigned int kDontFollow = 0x02000000;
    static constexpr unsigned int kExclUnlink = 0x04000000;
    static constexpr unsigned int kEventOnChild = 0x08000000;
    static constexpr unsigned int kMaskCreate = 0x10000000;
    static constexpr unsigned int kMaskAdd = 0x20000000;
    static constexpr unsigned int kOnDirectory = 0x40000000;
    static constexpr unsigned int kOneShot = 0x80000000;

    static constexpr unsigned int kClose = kCloseWrite | kCloseNowrite;
    static constexpr unsigned int kMove = kMovedFrom | kMovedTo;
    static constexpr unsigned int kInotifyEvents = 0xFFF;
    static constexpr unsigned int kPermissionBits = kOpenPermission | kAccessPermission | kOpenExecPermission;
    static constexpr unsigned int kEventBits = kInotifyEvents | kOpenExec | kPermissionBits;
    static constexpr unsigned int kStatusBits = kUnmount | kOverflow | kIgnored;
    // What a request routes to fanotify (the bits it reports with the acting
    // process, the permission bits and the folder flag); inotify takes the rest.
    static constexpr unsigned int kFanotifyRequestBits =
        kAccess | kModify | kCloseWrite | kCloseNowrite | kOpen | kOpenPermission | kAccessPermission | kOnDirectory;
    static constexpr unsigned int kInotifyRequestBits = ~kFanotifyRequestBits;

    // Every named bit: single bits in bit order, then the aliases.
    static const std::vector<_Name>& Table();

    // Whether an event with mask event reaches a consumer that asked for
    // wanted (the union of its masks):
    //  - only event bits select: some event bit of the event is one the
    //    consumer asked for. Flags select nothing, in either mask: asking for
    //    the folder flag does not let every folder event through;
    //  - fanotify (fanotifyEvent) reports folders only to marks that have
    //    FAN_ONDIR, so a folder event needs kOnDirectory in wanted too;
    //    inotify reports folder events whatever the mask, so there the flag
    //    neither widens nor narrows;
    //  - kUnmount and kOverflow pass whenever wanted is not 0: the kernel
    //    sends them whatever the mask, and they say that the watch or the
    //    queue broke, which no consumer can learn otherwise;
    //  - kIgnored alone passes nowhere: it is the kernel's bookkeeping.
    static bool Selects(unsigned int wanted, unsigned int event, bool fanotifyEvent);

    // The bits of a requestable name (lower case), 0 for any other text.
    static unsigned int BitsOfName(const std::string& name);
    // The names (upper case) of the single bits set in mask, in bit order.
    static std::vector<std::string> NamesOf(unsigned int mask);
};

}  // namespace Engine
