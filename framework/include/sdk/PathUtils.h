#pragma once

#include <string>

#include "framework/Export.h"

namespace SDK {

class FRAMEWORK_API PathUtils {
public:
    // The last component of a path: "/a/b/c.txt" -> "c.txt", "/a/b/" -> "b",
    // "c" -> "c", "/" and "" -> "".
    static std::string GetFileNameFromPath(const std::string& path);

    // Lexical normalisation, without touching the file system, so that it
    // works on paths that no longer exist: repeated "/" collapsed, "." dropped,
    // ".." removing the component before it ("/.." stays "/"; a relative path
    // keeps leading ".."). A trailing "/" is kept. Bytes other than "/" and
    // "." are opaque: newlines and non-UTF-8 bytes pass unchanged.
    static std::string GetCanonicalizePath(const std::string& path);

    // The agent's installation folder, with a trailing "/". Set by the host
    // with SetInstallationPath; otherwise the parent folder of the folder
    // holding the running executable (<home>/bin/agent -> <home>/).
    // Returns false when it cannot be found.
    static bool GetInstallationPath(std::string& path);
    // An empty path goes back to the default.
    static void SetInstallationPath(const std::string& path);
};

}  // namespace SDK
