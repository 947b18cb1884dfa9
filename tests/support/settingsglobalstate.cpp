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

void SettingsGlobalState::changeStatus(QString text, int kind) {
    lastStatus = text;
    lastKind = kind;
}

int SettingsGlobalState::testAndSetOnce() {
    const int previous = onceFlag;
    onceFlag = 1;
    return previous;
}

std::unique_ptr<QSettings> SettingsGlobalState::reopen() const {
    store->sync();
    return std::make_unique<QSettings>(fileName, QSettings::IniFormat);
}
