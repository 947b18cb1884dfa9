#include "logfile.h"

#include "platform/datafolder.h"
#include "platform/localtime.h"
#include "platform/logstream.h"

#include <chrono>
#include <mutex>

std::ostream* logStream = nullptr;

namespace logfile {

namespace {
std::mutex lineMutex;
} // namespace

void lockLine() {
    lineMutex.lock();
}
void unlockLine() {
    lineMutex.unlock();
}

Masked secret(const std::string& text) {
    // Nothing to hide in an empty one, and "***" would claim there was.
    return {text, text.empty() ? std::string() : std::string("***")};
}

long long steadyMilliseconds() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace logfile

namespace {
// Enough for every user of a machine; past it somebody is filling the folder on purpose.
constexpr int maxNameAttempts = 100;
} // namespace

void openLogFile(std::string prefix) {
    const platform::WallClock now = platform::localTime();

    // Without the shared folder there is no log file: anywhere else, such as the working folder,
    // the file would lie where nobody looks for it, or open to others.
    std::string folder;
    if (!platform::logFolder(folder)) {
        logLine("FAIL create logs:", folder);
        return;
    }
    // Another user's run in the same second, or somebody who planted files, may hold the name.
    std::ostream* stream = nullptr;
    std::string path;
    for (int attempt = 1; !stream && attempt <= maxNameAttempts; ++attempt) {
        path =
            logfile::filePath(folder, logfile::fileName(prefix, now.year, now.month, now.day,
                                                        now.hour, now.minute, now.second, attempt));
        stream = platform::openLogStream(path);
    }
    logLine("log to file: ", path);
    logStream = stream;
}
