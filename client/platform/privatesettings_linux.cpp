#include "privatesettings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

bool makeSettingsPrivate(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0700);
    // The file lies in the user's own configuration folder, where a link is the user's choice
    // (kept settings are often linked in from elsewhere): it is followed, but the file at its
    // end must be the user's own.
    const int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    struct stat info {};
    const bool done = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() &&
                      fchmod(fd, 0600) == 0;
    close(fd);
    return done;
}

} // namespace platform
