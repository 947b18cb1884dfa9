#pragma once

#include <string>

namespace platform {

// Makes the settings file at `path` readable and writable by its owner only, creating it empty
// (and the folders missing on its way, private too) when it does not exist yet, so that the
// toolkit's first write never leaves it readable by others. False when that cannot be done.
bool makeSettingsPrivate(const std::string& path);

} // namespace platform
