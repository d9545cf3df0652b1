#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace BenchUtil {

// A fresh folder under base (e.g. "/dev/shm/"), removed with its contents.
// path() ends in "/", and is empty when the folder could not be made.
class TempDir {
public:
    TempDir(const char* base, const char* prefix) {
        std::string name = std::string(base) + prefix + "XXXXXX";
        if (::mkdtemp(name.data()) != nullptr) _path = name + "/";
    }
    ~TempDir() {
        std::error_code ignored;
        if (!_path.empty()) std::filesystem::remove_all(_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return _path; }

private:
    std::string _path;
};

}  // namespace BenchUtil
