#include "startup.h"

#include <windows.h>

#include <shellapi.h>

#include <string>
#include <vector>

// A GUI-subsystem program: the command line arrives wide and is handed on in the system's
// ANSI code page.
int WINAPI WinMain(HINSTANCE, HINSTANCE, LPSTR, int) {
    int count = 0;
    LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
    if (!wide)
        return -1;

    std::vector<std::string> narrow(static_cast<std::size_t>(count));
    std::vector<char*> argv;
    for (int i = 0; i < count; ++i) {
        const int size = WideCharToMultiByte(CP_ACP, 0, wide[i], -1, nullptr, 0, nullptr, nullptr);
        std::string& arg = narrow[static_cast<std::size_t>(i)];
        arg.assign(size > 0 ? static_cast<std::size_t>(size) : 1, '\0');
        if (size > 0)
            WideCharToMultiByte(CP_ACP, 0, wide[i], -1, &arg[0], size, nullptr, nullptr);
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    LocalFree(wide);

    return runClient(count, argv.data());
}
