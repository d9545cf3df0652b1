#include "sdk/FileUtils.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "framework/UniqueFd.h"

namespace SDK {

namespace {

bool StatMode(const std::string& path, mode_t& mode) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return false;
    mode = st.st_mode;
    return true;
}

// Appends up to maxBytes from fd until end of file; false on a read error.
bool ReadUpTo(int fd, std::string& content, std::size_t maxBytes) {
    constexpr std::size_t kChunk = std::size_t{64} * 1024;
    while (content.size() < maxBytes) {
        const std::size_t have = content.size();
        const std::size_t want = std::min(kChunk, maxBytes - have);
        content.resize(have + want);
        const ssize_t got = ::read(fd, &content[have], want);
        if (got < 0) {
            content.resize(have);
            if (errno == EINTR) continue;
            return false;
        }
        content.resize(have + static_cast<std::size_t>(got));
        if (got == 0) break;
    }
    return true;
}

}  // namespace

bool FileUtils::IsFile(const std::string& path) {
    mode_t mode = 0;
    return StatMode(path, mode) && S_ISREG(mode);
}

bool FileUtils::ReadFile(const std::string& path, std::string& content, std::size_t maxBytes) {
    content.clear();
    // O_NONBLOCK so that a FIFO given by mistake cannot block the open; it is
    // refused below, and regular files ignore the flag.
    Framework::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!fd.valid()) return false;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (!ReadUpTo(fd.get(), content, maxBytes)) {
        content.clear();
        return false;
    }
    return true;
}

bool DirUtils::IsDir(const std::string& path) {
    mode_t mode = 0;
    return StatMode(path, mode) && S_ISDIR(mode);
}

bool FileUtils::ReadLink(const std::string& link, std::string& target) {
    std::error_code error;
    const std::filesystem::path read = std::filesystem::read_symlink(link, error);
    if (error) {
        errno = error.value();
        return false;
    }
    target = read.native();
    return true;
}

}  // namespace SDK
