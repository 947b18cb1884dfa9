#include "settingslocation.h"

namespace platform {

const char* settingsPath() {
    return nullptr;
}

} // namespace platform
