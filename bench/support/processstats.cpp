#include "processstats.h"

#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

double statusMegabytes(const std::string& status, const char* key) {
    const std::size_t at = status.find(key);
    if (at == std::string::npos)
        return 0;
    std::istringstream value(status.substr(at + std::string(key).size()));
    double kilobytes = 0;
    value >> kilobytes;
    return kilobytes / 1024;
}

} // namespace

ProcessSample sampleProcess(pid_t pid) {
    ProcessSample sample;
    const std::string folder = "/proc/" + std::to_string(pid);
    std::ifstream statFile(folder + "/stat");
    std::string stat((std::istreambuf_iterator<char>(statFile)), std::istreambuf_iterator<char>());
    // The command name may hold spaces and parentheses: the fields start after the last ')'.
    const std::size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos)
        return sample;
    std::istringstream fields(stat.substr(nameEnd + 2));
    std::string field;
    double utime = 0;
    double stime = 0;
    // Fields 3 to 13 come before utime (14) and stime (15).
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index == 14)
            utime = std::stod(field);
        else if (index == 15)
            stime = std::stod(field);
    }
    sample.cpuSeconds = (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));

    std::ifstream statusFile(folder + "/status");
    const std::string status((std::istreambuf_iterator<char>(statusFile)),
                             std::istreambuf_iterator<char>());
    sample.residentMb = statusMegabytes(status, "VmRSS:");
    sample.peakMb = statusMegabytes(status, "VmHWM:");
    return sample;
}

long long monotonicMicros() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}
