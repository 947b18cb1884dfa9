#include "datafolder.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

int openFolder(int parent, const char* name) {
    return openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// A link can lead anywhere somebody chose, and whoever may write to a folder that is not sticky
// can rename or replace what lies in it. The shared folders are sticky and belong to whichever
// user ran the program first: every user's runs walk through them.
bool trusted(int folder) {
    struct stat info {};
    if (fstat(folder, &info) != 0 || !S_ISDIR(info.st_mode))
        return false;
    if (info.st_mode & S_ISVTX)
        return true;
    // The group we run as counts as ours: with a group per user, the umask leaves folders
    // writable by that group.
    const bool othersMayWrite =
        (info.st_mode & S_IWOTH) || ((info.st_mode & S_IWGRP) && info.st_gid != getegid());
    return (info.st_uid == 0 || info.st_uid == geteuid()) && !othersMayWrite;
}

// The folder `name` inside `parent`, made and shared when missing; -1 when it cannot be had
// or is not to be trusted.
int enterFolder(int parent, const char* name) {
    int folder = openFolder(parent, name);
    if (folder < 0 && errno == ENOENT && mkdirat(parent, name, 0700) == 0) {
        folder = openFolder(parent, name);
        // mkdirat honours the umask; the mode is only ours to set on folders we made.
        if (folder >= 0 && fchmod(folder, sharedFolderMode) != 0) {
            close(folder);
            return -1;
        }
    }
    if (folder >= 0 && !trusted(folder)) {
        close(folder);
        return -1;
    }
    return folder;
}

// Walks the chain one folder at a time through descriptors, never by path, so that nothing
// can be put in between a check and the next step.
bool makeFolderChain(const std::string& path) {
    const bool absolute = !path.empty() && path[0] == '/';
    int folder = absolute ? open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : AT_FDCWD;
    std::size_t begin = 0;
    while (folder != -1 && begin < path.size()) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string name = path.substr(begin, end - begin);
        begin = end + 1;
        if (name.empty() || name == ".")
            continue;
        const int next = enterFolder(folder, name.c_str());
        if (folder != AT_FDCWD)
            close(folder);
        folder = next;
    }
    if (folder == -1)
        return false;
    if (folder != AT_FDCWD)
        close(folder);
    return true;
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
    // Reports stay inside the data folder: a folder made anywhere else, such as the working
    // directory when there is no data folder, would be left world-writable there.
    const std::string folder = dataFolder + "/crashs";
    return dataFolder == baseFolder() && makeFolderChain(folder) ? folder : std::string();
}

} // namespace platform
