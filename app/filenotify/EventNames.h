#pragma once

#include <string>
#include <vector>

namespace FileNotifyCli {

// Event names and their bits, in one table: the inotify bits, which the
// fanotify events share for access, modify, close and open, plus the flags
// that events carry.
struct EventName {
    const char* name;   // lower case, as typed after -e
    unsigned int mask;  // bits it selects or reports
    bool selectable;    // may be typed after -e
};

const std::vector<EventName>& EventNameTable();

// The default of `watch`: what changes a file or a tree.
unsigned int DefaultWatchMask();

// The names that -e takes, comma-separated.
std::string ValidEventNames();

// The mask of a comma-separated list of names, case-insensitive. Throws
// Poco::InvalidArgumentException naming the bad entry and the valid names.
unsigned int ParseEventNames(const std::string& list);

// Upper-case names of the bits in mask, joined by commas ("CREATE,ISDIR").
std::string EventNamesOf(unsigned int mask);
std::vector<std::string> EventNameListOf(unsigned int mask);

}  // namespace FileNotifyCli
