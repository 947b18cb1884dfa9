#include "smallfile.h"

#include <windows.h>

namespace platform {

bool readSmallFile(const std::string& path, std::size_t maxBytes, std::string& content) {
    content.clear();
    // A folder does not open without backup semantics; a pipe or device is told by its type.
    const HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    LARGE_INTEGER size{};
    bool whole = GetFileType(file) == FILE_TYPE_DISK && GetFileSizeEx(file, &size) &&
                 static_cast<unsigned long long>(size.QuadPart) <= maxBytes;
    // One byte more than allowed is asked for, so that a file grown since the check is refused.
    std::size_t length = 0;
    if (whole)
        content.resize(maxBytes + 1);
    while (whole && length < content.size()) {
        DWORD got = 0;
        whole = ReadFile(file, &content[length], static_cast<DWORD>(content.size() - length), &got,
                         nullptr) != 0;
        if (got == 0)
            break;
        length += got;
    }
    CloseHandle(file);
    whole = whole && length <= maxBytes;
    content.resize(whole ? length : 0);
    return whole;
}

} // namespace platform
