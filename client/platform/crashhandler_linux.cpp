#include "crashhandler.h"

#include "crashstack.h"

#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

namespace platform {

namespace {

// Everything the handler needs is prepared at installation: in the handler only
// async-signal-safe calls are allowed.
char reportFolder[PATH_MAX];
char applicationName[64];
char applicationVersion[32];

struct CrashSignal {
    int number;
    const char* name;
};
constexpr CrashSignal crashSignals[] = {
    {SIGSEGV, "SIGSEGV"}, {SIGBUS, "SIGBUS"},   {SIGILL, "SIGILL"},
    {SIGFPE, "SIGFPE"},   {SIGABRT, "SIGABRT"},
};

class Text {
public:
    Text(char* buffer, std::size_t capacity) : buffer(buffer), capacity(capacity) {
        buffer[0] = '\0';
    }
    Text& operator<<(const char* text) {
        while (*text && length + 1 < capacity)
            buffer[length++] = *text++;
        buffer[length] = '\0';
        return *this;
    }
    Text& operator<<(unsigned long long value) {
        char digits[24];
        int count = 0;
        do {
            digits[count++] = static_cast<char>('0' + value % 10);
            value /= 10;
        } while (value);
        char reversed[24];
        for (int i = 0; i < count; ++i)
            reversed[i] = digits[count - 1 - i];
        reversed[count] = '\0';
        return *this << static_cast<const char*>(reversed);
    }
    std::size_t size() const { return length; }

private:
    char* buffer;
    std::size_t capacity;
    std::size_t length = 0;
};

void writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written <= 0)
            return;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

const char* signalName(int number) {
    for (const CrashSignal& crash : crashSignals)
        if (crash.number == number)
            return crash.name;
    return "unknown";
}

void onCrash(int number, siginfo_t* info, void*) {
    const unsigned long long pid = static_cast<unsigned long long>(getpid());
    const unsigned long long seconds = static_cast<unsigned long long>(time(nullptr));

    char path[PATH_MAX + 64];
    Text(path, sizeof path) << reportFolder << "/crash_" << seconds << "_" << pid << ".txt";
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0) {
        char report[1024];
        Text text(report, sizeof report);
        text << "Application: " << applicationName << "\nVersion: " << applicationVersion
             << "\nSignal: " << static_cast<unsigned long long>(number) << " ("
             << signalName(number) << ")\nFault address: "
             << static_cast<unsigned long long>(
                    reinterpret_cast<uintptr_t>(info ? info->si_addr : nullptr))
             << "\nProcess: " << pid << "\nTime: " << seconds << "\nBack trace:\n";
        writeAll(fd, report, text.size());
        void* frames[64];
        backtrace_symbols_fd(frames, backtrace(frames, 64), fd);
        close(fd);
    }
    // The handler was reset to the default action on entry; the signal is blocked until we
    // return, so the process then ends as it would have without us.
    raise(number);
}

void copy(char* target, std::size_t size, const char* source) {
    std::strncpy(target, source, size - 1);
    target[size - 1] = '\0';
}

} // namespace

bool installCrashHandler(const char* name, const char* version, const std::string& folder) {
    if (folder.empty()) {
        std::printf("crash reporting: no folder for reports\n");
        return false;
    }
    copy(applicationName, sizeof applicationName, name);
    copy(applicationVersion, sizeof applicationVersion, version);
    copy(reportFolder, sizeof reportFolder, folder.c_str());

    // The first back trace loads the unwinder, which allocates: do it now, not in a crash.
    void* warmUp[2];
    backtrace(warmUp, 2);
    prepareThreadForCrashes();

    struct sigaction action {};
    action.sa_sigaction = onCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    // All or none: a process that reports some crashes and not others would pass for covered.
    struct sigaction previous[std::size(crashSignals)]{};
    for (std::size_t i = 0; i < std::size(crashSignals); ++i) {
        if (sigaction(crashSignals[i].number, &action, &previous[i]) != 0) {
            std::printf("crash reporting: cannot handle %s\n", crashSignals[i].name);
            while (i-- > 0)
                sigaction(crashSignals[i].number, &previous[i], nullptr);
            return false;
        }
    }
    return true;
}

} // namespace platform
