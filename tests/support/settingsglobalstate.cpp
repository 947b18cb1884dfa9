#include "settingsglobalstate.h"

SettingsGlobalState::SettingsGlobalState()
    : fileName(folder.filePath("Brindlewave.conf")),
      store(std::make_unique<QSettings>(fileName, QSettings::IniFormat)) {
    globalState = this;
}

SettingsGlobalState::~SettingsGlobalState() {
    if (globalState == this)
        globalState = nullptr;
}

std::unique_ptr<QSettings> SettingsGlobalState::reopen() const {
    store->sync();
    return std::make_unique<QSettings>(fileName, QSettings::IniFormat);
}
