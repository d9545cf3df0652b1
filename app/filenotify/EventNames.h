#pragma once

#include <string>
#include <vector>

namespace FileNotifyCli {

// The command's side of the event names: what -e takes and how masks are
// printed. The names and bits themselves are Engine::FileNotifyMask's table.

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
