#include "logfile.h"

#include "platform/datafolder.h"
#include "platform/localtime.h"
#include "platform/logstream.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
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

std::string fileName(const std::string& prefix, int year, int month, int day, int hour, int minute,
                     int second) {
    const std::string format = prefix + "_%d_%02d_%02d_%02d_%02d_%02d.txt";
    const int length =
        std::snprintf(nullptr, 0, format.c_str(), year, month, day, hour, minute, second);
    std::string name(static_cast<std::size_t>(length) + 1, '\0');
    std::snprintf(name.data(), name.size(), format.c_str(), year, month, day, hour, minute, second);
    name.pop_back();
    return name;
}

} // namespace logfile

void openLogFile(std::string prefix) {
    const platform::WallClock now = platform::localTime();

    std::string folder;
    if (!platform::logFolder(folder))
        logLine("FAIL create logs:", folder);

    const std::string name =
        logfile::fileName(prefix, now.year, now.month, now.day, now.hour, now.minute, now.second);
    // A path that does not fit the platform's path buffer is a parameter error, as it is for
    // the bounded formatter the name is written with, not something to truncate silently.
    if (folder.size() + name.size() + 1 > platform::maxPath)
        std::abort();
    const std::string path = folder + name;

    logLine("log to file: ", path);
    logStream = platform::openLogStream(path);
}
