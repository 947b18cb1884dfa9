#include "privatesettings.h"

namespace platform {

// The settings live in the user's own registry key, which is private to the user already.
bool makeSettingsPrivate(const std::string&) {
    return true;
}

} // namespace platform
