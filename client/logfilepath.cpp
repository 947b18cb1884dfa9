#include "logfilepath.h"

#include "platform/datafolder.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace logfile {

std::string fileName(const std::string& prefix, int year, int month, int day, int hour, int minute,
                     int second, int attempt) {
    const std::string suffix = attempt > 1 ? "_" + std::to_string(attempt) : std::string();
    const std::string format = prefix + "_%d_%02d_%02d_%02d_%02d_%02d" + suffix + ".txt";
    const int length =
        std::snprintf(nullptr, 0, format.c_str(), year, month, day, hour, minute, second);
    std::string name(static_cast<std::size_t>(length) + 1, '\0');
    std::snprintf(name.data(), name.size(), format.c_str(), year, month, day, hour, minute, second);
    name.pop_back();
    return name;
}

std::string filePath(const std::string& folder, const std::string& name) {
    if (folder.size() + name.size() + 1 > platform::maxPath)
        std::abort();
    return folder + name;
}

} // namespace logfile
