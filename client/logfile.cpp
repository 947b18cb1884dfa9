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
}

void lockLine() {
    lineMutex.lock();
}
void unlockLine() {
    lineMutex.unlock();
}

long long steadyMilliseconds() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace logfile

void openLogFile(std::string prefix) {
    const platform::WallClock now = platform::localTime();

    std::string folder;
    if (!platform::logFolder(folder))
        logLine("FAIL create logs:", folder);

    const std::string name =
        logfile::fileName(prefix, now.year, now.month, now.day, now.hour, now.minute, now.second);
    const std::string path = logfile::filePath(folder, name);

    logLine("log to file: ", path);
    logStream = platform::openLogStream(path);
}
