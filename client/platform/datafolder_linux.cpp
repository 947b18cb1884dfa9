#include "datafolder.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sys/stat.h>

namespace platform {

const std::size_t maxPath = PATH_MAX;

namespace {

// Folders are shared between the users of the machine, like the Windows folder they stand
// for: world-writable and sticky so nobody removes another user's files.
constexpr mode_t sharedFolderMode = 01777;

std::string baseFolder() {
    const char* configured = std::getenv("BRINDLEWAVE_DATA_DIR");
    if (configured && *configured)
        return configured;
    return "/var/tmp/Myrtlebrook/Brindlewave";
}

bool makeFolder(const std::string& path) {
    if (mkdir(path.c_str(), sharedFolderMode) == 0) {
        // mkdir honours the umask; the mode is only ours to set on folders we made.
        return chmod(path.c_str(), sharedFolderMode) == 0;
    }
    struct stat info {};
    return errno == EEXIST && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool makeFolderChain(const std::string& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        if (!makeFolder(path.substr(0, slash)))
            return false;
    }
    return makeFolder(path);
}

} // namespace

bool logFolder(std::string& folder) {
    const std::string logs = baseFolder() + "/logs";
    if (!makeFolderChain(logs)) {
        folder.clear();
        return false;
    }
    folder = logs + "/";
    return true;
}

std::string dataFolder() {
    const std::string base = baseFolder();
    return makeFolderChain(base) ? base : std::string(".");
}

std::string crashFolder(const std::string& dataFolder) {
    const std::string folder = dataFolder + "/crashs";
    makeFolder(folder);
    return folder;
}

} // namespace platform
