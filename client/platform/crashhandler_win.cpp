#include "crashhandler.h"

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <cwchar>

namespace platform {

namespace {

// The crash reporter's published installation record (wide-character variant), field by
// field as the library reads it. Only the fields the program sets are used; everything else
// stays zero, the library's defaults.
struct CrashInstallInfo {
    WORD size;
    const wchar_t* applicationName;
    const wchar_t* applicationVersion;
    const wchar_t* emailTo;
    const wchar_t* emailSubject;
    const wchar_t* url;
    const wchar_t* senderPath;
    void* crashCallback;
    UINT priorities[5];
    DWORD flags;
    const wchar_t* privacyPolicyUrl;
    const wchar_t* debugHelpDll;
    int miniDumpType;
    const wchar_t* reportSaveFolder;
    const wchar_t* restartCommandLine;
    const wchar_t* languageFile;
    const wchar_t* emailText;
    const wchar_t* smtpProxy;
    const wchar_t* senderIcon;
    const wchar_t* smtpLogin;
    const wchar_t* smtpPassword;
    int restartTimeout;
    int maxReportsPerDay;
};
#if defined(_WIN64)
static_assert(sizeof(CrashInstallInfo) == 184, "the reporter checks the record's size");
#endif

// Keep reports locally without sending them, stored as ZIP archives.
constexpr DWORD keepLocallyAsZip = 0x88000;

using InstallFunction = int(WINAPI*)(CrashInstallInfo*);
using LastErrorFunction = int(WINAPI*)(wchar_t*, UINT);

} // namespace

bool installCrashHandler(const char* name, const char* version, const std::string& folder) {
    static wchar_t applicationName[64];
    static wchar_t applicationVersion[32];
    static wchar_t reportFolder[MAX_PATH];
    std::swprintf(applicationName, 64, L"%hs", name);
    std::swprintf(applicationVersion, 32, L"%hs", version);
    // Each byte becomes one wide character, read as a signed char: the reverse of the lossy
    // narrowing the data folder went through.
    std::size_t length = 0;
    for (; length < folder.size() && length + 1 < MAX_PATH; ++length)
        reportFolder[length] = static_cast<wchar_t>(static_cast<signed char>(folder[length]));
    reportFolder[length] = L'\0';

    CrashInstallInfo info;
    std::memset(&info, 0, sizeof info);
    info.size = static_cast<WORD>(sizeof info);
    info.applicationName = applicationName;
    info.applicationVersion = applicationVersion;
    info.flags = keepLocallyAsZip;
    info.reportSaveFolder = reportFolder;

    // Loaded at run time so that a missing library means "not installed", not a program that
    // cannot start. Texts are printed with "%ls": MinGW's standard printf would read "%s" in a
    // wide format as a narrow text.
    HMODULE library = LoadLibraryA("CrashRpt1403.dll");
    if (!library) {
        std::wprintf(L"%ls\n", L"CrashRpt1403.dll is not installed");
        return false;
    }
    const auto install = reinterpret_cast<InstallFunction>(
        reinterpret_cast<void*>(GetProcAddress(library, MAKEINTRESOURCEA(7))));
    const auto lastError = reinterpret_cast<LastErrorFunction>(
        reinterpret_cast<void*>(GetProcAddress(library, MAKEINTRESOURCEA(23))));
    if (!install || install(&info) != 0) {
        wchar_t message[256] = {};
        if (lastError)
            lastError(message, 256);
        std::wprintf(L"%ls\n", message);
        return false;
    }
    return true;
}

} // namespace platform
