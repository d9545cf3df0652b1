#pragma once

#include <cstddef>
#include <string>

#include "framework/Export.h"

namespace SDK {

class FRAMEWORK_API FileUtils {
public:
    // True for a regular file; follows symbolic links.
    static bool IsFile(const std::string& path);

    // Reads at most maxBytes of the file into content (replacing it).
    // False, with content empty, when the file cannot be opened or read, or
    // is not a regular file (a FIFO would block, a device may never end).
    static bool ReadFile(const std::string& path, std::string& content, std::size_t maxBytes);

    // The whole target of the symbolic link, however long, into target.
    // False, with target unchanged and errno set, when link cannot be read.
    static bool ReadLink(const std::string& link, std::string& target);
};

class FRAMEWORK_API DirUtils {
public:
    // True for a folder; follows symbolic links.
    static bool IsDir(const std::string& path);
};

}  // namespace SDK
