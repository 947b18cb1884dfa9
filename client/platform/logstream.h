#pragma once

#include <ostream>
#include <string>

namespace platform {

// Opens the run's log file for writing, truncating an existing one. Never returns null: when
// the file cannot be opened the stream is in a failed state and swallows what is written.
// The stream is never closed; the operating system closes the file at exit.
std::ostream* openLogStream(const std::string& path);

} // namespace platform
