#pragma once

namespace platform {

// Where the user's settings live when the platform names them by a path of its own (the
// registry key on Windows); null where the toolkit's per-user default location is used.
const char* settingsPath();

// Makes the settings file, which holds server addresses and their secrets, readable by its
// owner only. Nothing to do where the store is not a file.
void keepSettingsPrivate(const char* file);

} // namespace platform
