#pragma once

#include <cstddef>
#include <string>

namespace platform {

// Room for a full path, terminator included, in the fixed buffers that name files.
extern const std::size_t maxPath;

// The machine-wide data folder's "logs" folder, created with its whole chain when missing,
// ending in the path separator so that a file name can be put right behind it. On failure
// returns false with `folder` holding whatever the lookup produced (possibly empty).
bool logFolder(std::string& folder);

// The machine-wide data folder itself (no trailing separator), created when missing;
// "." when it cannot be had.
std::string dataFolder();

// The crash-report folder inside `dataFolder`, built the way the crash reporter is told.
std::string crashFolder(const std::string& dataFolder);

} // namespace platform
