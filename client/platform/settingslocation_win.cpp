#include "settingslocation.h"

namespace platform {

const char* settingsPath() {
    return "HKEY_CURRENT_USER\\SOFTWARE\\Myrtlebrook\\Brindlewave";
}

void keepSettingsPrivate(const char*) {}

} // namespace platform
