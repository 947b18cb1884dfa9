#pragma once

#include <string>

namespace logfile {

// The file-name part behind the folder, from one reading of the local time:
// "<prefix>_YYYY_MM_DD_hh_mm_ss.txt", the year unpadded. Where that name is taken, the run's
// `attempt`-th try (2, 3, ...) puts "_<attempt>" before ".txt".
std::string fileName(const std::string& prefix, int year, int month, int day, int hour, int minute,
                     int second, int attempt = 1);

// The file's full path: the name put right behind the folder. A path that does not fit the
// platform's path buffer ends the process, as a parameter error of the bounded formatter the
// name is written with would, rather than being truncated into another file's name.
std::string filePath(const std::string& folder, const std::string& name);

} // namespace logfile
