// The Windows platform layer on the Windows API itself: CTest runs it under Wine in a fresh
// prefix. Plain checks, a summary, and a non-zero exit code when one fails.
#include "crashreporting.h"
#include "installrecord.h"
#include "logfilepath.h"
#include "platform/audiocapture.h"
#include "platform/datafolder.h"
#include "platform/firmwaretable.h"
#include "platform/localtime.h"
#include "platform/logstream.h"
#include "platform/smallfile.h"
#include "startup.h"
#include "systemuuid.h"

#include <windows.h>

#include <shlobj.h>

#include <cstdio>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

namespace {

int failed = 0;

void check(bool ok, const char* what) {
    failed += ok ? 0 : 1;
    std::printf("%s  %s\n", ok ? "PASS" : "FAIL", what);
}

std::string standinFolder() {
    const std::string self = _pgmptr;
    return self.substr(0, self.rfind('\\')) + "\\standin";
}

// Runs this program again through the command shell; returns its exit code, its output in
// `childOutput`.
std::string childOutput;
int runChild(const std::wstring& arguments) {
    const std::wstring line = L"\"\"" + std::wstring(_wpgmptr) + L"\" " + arguments + L" 2>NUL\"";
    std::FILE* child = _wpopen(line.c_str(), L"rb");
    char chunk[256];
    childOutput.clear();
    for (std::size_t got; (got = std::fread(chunk, 1, sizeof chunk, child)) > 0;)
        childOutput.append(chunk, got);
    return _pclose(child);
}

} // namespace

// The entry function as the Windows entry calls it, in the "entry" child: the arguments in
// code page 1252.
int runClient(int argc, char** argv) {
    const bool asExpected = GetACP() == 1252 && argc == 4 && std::strcmp(argv[1], "entry") == 0 &&
                            std::strcmp(argv[2], "Gr\xFC\xDF"
                                                 "e aus K\xF6ln am Rhein") == 0 &&
                            std::strcmp(argv[3], "plain") == 0 && argv[4] == nullptr;
    return asExpected ? 7 : 1;
}

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "entry")
        return WinMain(GetModuleHandleW(nullptr), nullptr, GetCommandLineA(), 0);
    if (mode == "longname") {
        logfile::filePath("C:\\", std::string(MAX_PATH, 'p'));
        return 0;
    }
    if (mode == "refused") {
        SetDllDirectoryA(standinFolder().c_str());
        SetEnvironmentVariableA("STANDIN_REFUSE", "1");
        return installCrashReporting() ? 1 : 0;
    }

    // In the program's order: crash reporting asks for the data folder before the log opens.
    char common[MAX_PATH] = {};
    SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, common);
    const std::string product = std::string(common) + "\\Myrtlebrook\\Brindlewave";
    check(GetFileAttributesA((std::string(common) + "\\Myrtlebrook").c_str()) ==
              INVALID_FILE_ATTRIBUTES,
          "a fresh machine has no data folder");
    // Without the folder the shell answers with an error, so the path alone shows it was made.
    const std::string data = platform::dataFolder();
    check(data == product, "SHGetFolderPathAndSubDirW creates the data folder");
    std::string logs;
    check(platform::logFolder(logs) && logs == product + "\\logs\\",
          "SHGetFolderPathAndSubDirA creates the logs folder; it ends in one backslash");

    platform::WallClock now;
    SYSTEMTIME before{}, after{};
    do {
        GetLocalTime(&before);
        now = platform::localTime();
        GetLocalTime(&after);
    } while (before.wSecond != after.wSecond);
    check(now.year == before.wYear && now.month == before.wMonth && now.day == before.wDay &&
              now.hour == before.wHour && now.minute == before.wMinute &&
              now.second == before.wSecond,
          "the local time is GetLocalTime's");
    const std::string name = logfile::fileName("brindle_client", 2025, 3, 5, 9, 7, 3);
    check(name == "brindle_client_2025_03_05_09_07_03.txt", "log file name format");
    std::ostream* log = platform::openLogStream(logfile::filePath(logs, name));
    *log << "first" << std::endl;
    // The C library opens for reading and writing and lets others do both: it is refused while
    // the log denies either.
    std::FILE* second = std::fopen((product + "\\logs\\" + name).c_str(), "r+b");
    char text[32] = {};
    check(second && std::fgets(text, sizeof text, second) && std::strcmp(text, "first\r\n") == 0,
          "the open log file lies in logs; a second handle reads and writes it");
    if (second)
        std::fclose(second);
    check(runChild(L"longname") == 3, "a name too long for 260 characters aborts");
    // A file this run may not write, here one held open without sharing: the name is left for
    // the next, "_2".
    const std::string taken = logs + logfile::fileName("brindle_client", 2025, 3, 5, 9, 7, 3, 2);
    const HANDLE held =
        CreateFileA(taken.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    check(taken.substr(taken.size() - 6) == "_2.txt" && !platform::openLogStream(taken),
          "a log name held by a file that may not be written is left for another");
    CloseHandle(held);
    std::string content;
    check(platform::readSmallFile(taken, 0, content) && content.empty() &&
              !platform::readSmallFile(logs, 64, content) &&
              !platform::readSmallFile(logs + name, 6, content),
          "only a plain file within the limit is read");

    const uint32_t size = platform::rawSmbiosTable(nullptr, 0);
    std::vector<uint8_t> table(size);
    const bool fetched = size > 8 && platform::rawSmbiosTable(table.data(), size) == size;
    SystemUuid uuid;
    const bool found = fetched && findSystemUuid(table.data(), size, uuid);
    char hex[33] = "none";
    for (std::size_t i = 0; found && i < uuid.bytes.size(); ++i)
        std::snprintf(hex + 2 * i, 3, "%02x", uuid.bytes[i]);
    // Wine stores the D-Bus machine id's bytes there, or all 0xFF (no identifier) without one.
    char machineId[33] = "none";
    if (std::FILE* file = std::fopen("Z:\\var\\lib\\dbus\\machine-id", "r")) {
        std::fscanf(file, "%32s", machineId);
        std::fclose(file);
    }
    check(fetched && std::strcmp(hex, machineId) == 0, "the firmware table's walk finds its UUID");

    check(!installCrashReporting(), "without CrashRpt1403.dll the installer returns false");
    SetDllDirectoryA(standinFolder().c_str());
    check(installCrashReporting(), "the stand-in library accepts the installation");
    using RecordFunction = const InstallRecord* (*)();
    const auto recordSeen = reinterpret_cast<RecordFunction>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleA("CrashRpt1403.dll"), "standinRecord")));
    InstallRecord record = *recordSeen();
    check(record.size == 184 && record.flags == 0x88000 && record.applicationName &&
              std::wcscmp(record.applicationName, L"Brindlewave") == 0 &&
              record.applicationVersion && std::wcscmp(record.applicationVersion, L"0.1") == 0 &&
              record.reportSaveFolder &&
              std::wstring(record.reportSaveFolder) ==
                  std::wstring(data.begin(), data.end()) + L"\\crashs",
          "record of size 184, flags 0x88000, \"Brindlewave\" \"0.1\", reports in \\crashs");
    record.size = 0;
    record.flags = 0;
    record.applicationName = record.applicationVersion = record.reportSaveFolder = nullptr;
    const InstallRecord zero{};
    check(std::memcmp(&record, &zero, sizeof record) == 0, "every other field is zero");
    check(runChild(L"refused") == 0 && childOutput == STANDIN_REFUSAL "\r\n",
          "a refused installation prints the library's text and a new line");

    check(runChild(L"entry \"Gr\u00FC\u00DFe aus K\u00F6ln am Rhein\" plain") == 7,
          "wide arguments reach the entry in code page 0");

    // Whatever devices Wine's audio engine finds, an unknown source is refused by its name, and
    // a capture told to stop waits for nothing.
    platform::AudioCapture sound;
    check(!sound.open("Brindle's none") && sound.lastError() == "No sound source Brindle's none",
          "an unknown sound source is refused by name");
    sound.interrupt();
    check(!sound.open("output") && sound.lastError().empty(), "a stopped capture opens nothing");

    std::printf("%d failed\n", failed);
    return failed == 0 ? 0 : 1;
}
