#include "EventNames.h"

#include <Poco/Exception.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

namespace FileNotifyCli {

const std::vector<EventName>& EventNameTable() {
    // Reported names first, in bit order; aliases after them.
    static const std::vector<EventName> table = {
        {"access", 0x1, true},         {"modify", 0x2, true},         {"attrib", 0x4, true},
        {"close_write", 0x8, true},    {"close_nowrite", 0x10, true}, {"open", 0x20, true},
        {"moved_from", 0x40, true},    {"moved_to", 0x80, true},      {"create", 0x100, true},
        {"delete", 0x200, true},       {"delete_self", 0x400, true},  {"move_self", 0x800, true},
        {"q_overflow", 0x4000, false}, {"open_perm", 0x10000, false}, {"access_perm", 0x20000, false},
        {"isdir", 0x40000000, false},  {"close", 0x18, true},         {"move", 0xC0, true},
        {"all", 0xFFF, true},
    };
    return table;
}

unsigned int DefaultWatchMask() {
    return 0x100 | 0x200 | 0x2 | 0x4 | 0x8 | 0x40 | 0x80 | 0x400 | 0x800;
}

std::string ValidEventNames() {
    std::string valid;
    for (const EventName& entry : EventNameTable()) {
        if (!entry.selectable) continue;
        if (!valid.empty()) valid += ", ";
        valid += entry.name;
    }
    return valid;
}

unsigned int ParseEventNames(const std::string& list) {
    unsigned int mask = 0;
    Poco::StringTokenizer names(list, ",", Poco::StringTokenizer::TOK_TRIM | Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    for (const std::string& typed : names) {
        const std::string name = Poco::toLower(typed);
        unsigned int bits = 0;
        for (const EventName& entry : EventNameTable()) {
            if (entry.selectable && name == entry.name) bits = entry.mask;
        }
        if (bits == 0)
            throw Poco::InvalidArgumentException("unknown event name '" + typed +
                                                 "'; valid names: " + ValidEventNames());
        mask |= bits;
    }
    if (mask == 0) throw Poco::InvalidArgumentException("-e needs at least one event name");
    return mask;
}

std::vector<std::string> EventNameListOf(unsigned int mask) {
    std::vector<std::string> names;
    for (const EventName& entry : EventNameTable()) {
        // Single bits only: the aliases would repeat what is listed.
        if ((entry.mask & (entry.mask - 1)) == 0 && (mask & entry.mask) != 0)
            names.push_back(Poco::toUpper(std::string(entry.name)));
    }
    return names;
}

std::string EventNamesOf(unsigned int mask) {
    std::string joined;
    for (const std::string& name : EventNameListOf(mask))
        joined += (joined.empty() ? "" : ",") + name;
    return joined;
}

}  // namespace FileNotifyCli
