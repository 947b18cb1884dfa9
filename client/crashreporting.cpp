#include "crashreporting.h"

#include "platform/crashhandler.h"
#include "platform/datafolder.h"

std::string appDataFolder() {
    return platform::dataFolder();
}

bool installCrashReporting() {
    return platform::installCrashHandler("Brindlewave", "0.1",
                                         platform::crashFolder(appDataFolder()));
}
