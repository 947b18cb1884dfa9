#pragma once

namespace platform {

// Where the user's settings live when the platform names them by a path of its own (the
// registry key on Windows); null where the toolkit's per-user default location is used.
const char* settingsPath();

} // namespace platform
