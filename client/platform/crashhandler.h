#pragma once

#include <string>

namespace platform {

// Installs the process's crash handlers; reports are kept locally in `reportFolder`.
// Returns true when installed; a refusal is told on standard output.
bool installCrashHandler(const char* applicationName, const char* version,
                         const std::string& reportFolder);

} // namespace platform
