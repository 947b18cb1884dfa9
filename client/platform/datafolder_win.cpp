#include "datafolder.h"

#include <windows.h>

#include <shlobj.h>

namespace platform {

const std::size_t maxPath = MAX_PATH;

namespace {
// CSIDL_COMMON_APPDATA | CSIDL_FLAG_CREATE: the shell creates the folder chain when missing.
constexpr int commonAppDataCreate = 0x8023;
} // namespace

bool logFolder(std::string& folder) {
    char path[MAX_PATH] = {};
    const HRESULT result = SHGetFolderPathAndSubDirA(nullptr, commonAppDataCreate, nullptr, 0,
                                                     "\\Myrtlebrook\\Brindlewave\\logs\\", path);
    folder = path;
    if (FAILED(result))
        return false;
    // Windows keeps the sub-folder text's trailing backslash, Wine drops it; the file name
    // goes right behind the folder either way.
    if (folder.empty() || folder.back() != '\\')
        folder += '\\';
    return true;
}

std::string dataFolder() {
    wchar_t path[MAX_PATH] = {};
    if (FAILED(SHGetFolderPathAndSubDirW(nullptr, commonAppDataCreate, nullptr, 0,
                                         L"\\Myrtlebrook\\Brindlewave", path)))
        return ".";
    // Keeping only the low byte of every character is lossy for paths outside the
    // single-byte range; the crash reporter is given the same lossy text on purpose.
    std::string narrow;
    for (const wchar_t* c = path; *c; ++c)
        narrow.push_back(static_cast<char>(*c & 0xFF));
    return narrow;
}

std::string crashFolder(const std::string& dataFolder) {
    // The crash reporter creates the folder itself when it first writes a report.
    return dataFolder + "\\crashs";
}

} // namespace platform
