#include "testglobalstate.h"

TestGlobalState::TestGlobalState()
    : fileName(folder.filePath("Brindlewave.conf")),
      store(std::make_unique<QSettings>(fileName, QSettings::IniFormat)), previous(globalState) {
    globalState = this;
}

TestGlobalState::~TestGlobalState() {
    globalState = previous;
}

std::unique_ptr<QSettings> TestGlobalState::reopen() const {
    store->sync();
    return std::make_unique<QSettings>(fileName, QSettings::IniFormat);
}
