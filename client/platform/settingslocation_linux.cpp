#include "settingslocation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

const char* settingsPath() {
    return nullptr;
}

void keepSettingsPrivate(const char* file) {
    // The toolkit saves through a new file that takes over the old one's mode, so the file
    // stays private once it is. A link is left alone: its target is not ours to change.
    const int descriptor = open(file, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0)
        return;
    fchmod(descriptor, S_IRUSR | S_IWUSR);
    close(descriptor);
}

} // namespace platform
