#include "OutputSink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace FileNotifyCli {

OutputSink::OutputSink(const std::string& file) {
    if (file.empty()) return;
    _file.reset(::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    if (!_file.valid()) _error = errno;
}

bool OutputSink::Write(const std::string& data) {
    if (_error != 0) return false;
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(Fd(), data.data() + done, data.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else if (n == 0 || errno != EINTR) {
            _error = n == 0 ? EIO : errno;  // 0 would only repeat
            return false;
        }
    }
    return true;
}

void OutputSink::Fail(int error) {
    if (_error == 0) _error = error;
}

bool OutputSink::IsPipeWriter() const {
    struct stat status {};
    return _error == 0 && ::fstat(Fd(), &status) == 0 && S_ISFIFO(status.st_mode) &&
           (::fcntl(Fd(), F_GETFL) & O_ACCMODE) == O_WRONLY;
}

}  // namespace FileNotifyCli
