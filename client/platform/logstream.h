#pragma once

#include <ostream>
#include <string>

namespace platform {

// Opens the run's log file for writing, truncating an existing one that this run may use. Null
// when the name is taken by something it may not use (another user's file, a link, anything
// but a plain file of ours), so that another name can be tried; when the file cannot be had for
// any other reason, a stream in a failed state that swallows what is written. The stream is
// never closed; the operating system closes the file at exit.
std::ostream* openLogStream(const std::string& path);

} // namespace platform
