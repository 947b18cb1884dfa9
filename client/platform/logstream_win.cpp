#include "logstream.h"

#include <fstream>
#include <share.h>

namespace platform {

std::ostream* openLogStream(const std::string& path) {
    // Other processes may read the log while the program runs (the share-mode argument is
    // the Microsoft library's).
    return new std::ofstream(path, std::ios::out | std::ios::trunc, _SH_DENYNO);
}

} // namespace platform
