#include "settingslocation.h"

#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

const char* settingsPath() {
    return nullptr;
}

void keepSettingsPrivate(const char* file) {
    const std::string path = file;
    const std::size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0)
        mkdir(path.substr(0, slash).c_str(), 0700);
    // The toolkit saves through a new file that takes over the old one's mode, so a file that
    // is private before the first save stays private.
    const int descriptor = open(file, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0)
        return;
    fchmod(descriptor, 0600);
    close(descriptor);
}

} // namespace platform
