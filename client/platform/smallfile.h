#pragma once

#include <cstddef>
#include <string>

namespace platform {

// The whole content of the plain file at `path` when it holds at most `maxBytes` bytes. False,
// with `content` empty, for anything else: a missing or unreadable file, a folder, a pipe or
// device named like the file (which are never waited on), or a file larger than the limit.
bool readSmallFile(const std::string& path, std::size_t maxBytes, std::string& content);

} // namespace platform
