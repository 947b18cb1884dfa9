#include "smallfile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

bool readSmallFile(const std::string& path, std::size_t maxBytes, std::string& content) {
    content.clear();
    // Non-blocking, so that a pipe put in the file's place cannot hold the reader; what is read
    // is what was checked, through the one descriptor.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat info {};
    bool whole = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
                 static_cast<unsigned long long>(info.st_size) <= maxBytes;
    // One byte more than allowed is asked for, so that a file grown since the check is refused.
    std::size_t length = 0;
    if (whole)
        content.resize(maxBytes + 1);
    while (whole && length < content.size()) {
        const ssize_t got = read(fd, &content[length], content.size() - length);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            whole = got == 0;
            break;
        }
        length += static_cast<std::size_t>(got);
    }
    close(fd);
    whole = whole && length <= maxBytes;
    content.resize(whole ? length : 0);
    return whole;
}

} // namespace platform
