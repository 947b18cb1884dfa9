// Stands in for the crash reporter's library: keeps the record it is given for the test to
// read, and refuses the installation while STANDIN_REFUSE is set.
#include "installrecord.h"

namespace {
InstallRecord seen{};
}

extern "C" {

int WINAPI standinInstall(const InstallRecord* record) {
    seen = *record;
    return GetEnvironmentVariableA("STANDIN_REFUSE", nullptr, 0) != 0 ? 1 : 0;
}

int WINAPI standinLastError(wchar_t* buffer, UINT size) {
    lstrcpynW(buffer, L"" STANDIN_REFUSAL, static_cast<int>(size));
    return lstrlenW(buffer);
}

const InstallRecord* standinRecord() {
    return &seen;
}
}
