#include "EventNames.h"

#include <Poco/Exception.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

#include "FileNotifyMask.h"

namespace FileNotifyCli {

using Engine::FileNotifyMask;

unsigned int DefaultWatchMask() {
    return FileNotifyMask::kCreate | FileNotifyMask::kDelete | FileNotifyMask::kModify | FileNotifyMask::kAttrib |
           FileNotifyMask::kCloseWrite | FileNotifyMask::kMove | FileNotifyMask::kDeleteSelf |
           FileNotifyMask::kMoveSelf;
}

std::string ValidEventNames() {
    std::string valid;
    for (const FileNotifyMask::_Name& entry : FileNotifyMask::Table()) {
        if (!entry.requestable) continue;
        if (!valid.empty()) valid += ", ";
        valid += entry.name;
    }
    return valid;
}

unsigned int ParseEventNames(const std::string& list) {
    unsigned int mask = 0;
    Poco::StringTokenizer names(list, ",", Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    for (const std::string& typed : names) {
        const unsigned int bits = FileNotifyMask::BitsOfName(Poco::toLower(typed));
        if (bits == 0)
            throw Poco::InvalidArgumentException("unknown event name '" + typed +
                                                 "'; valid names: " + ValidEventNames());
        mask |= bits;
    }
    if (mask == 0) throw Poco::InvalidArgumentException("-e needs at least one event name");
    return mask;
}

std::vector<std::string> EventNameListOf(unsigned int mask) {
    return FileNotifyMask::NamesOf(mask);
}

std::string EventNamesOf(unsigned int mask) {
    std::string joined;
    for (const std::string& name : EventNameListOf(mask))
        joined += (joined.empty() ? "" : ",") + name;
    return joined;
}

}  // namespace FileNotifyCli
