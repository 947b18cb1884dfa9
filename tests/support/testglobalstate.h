#pragma once

#include "globalstate.h"

#include <QSettings>
#include <QTemporaryDir>
#include <atomic>

// The global state for tests that run without the main window: a StreamConfig the test fills in
// and settings in a file of a temporary folder. Installs itself as `globalState` for its lifetime.
class TestGlobalState : public IGlobalState {
public:
    TestGlobalState() : previous(globalState) { globalState = this; }
    ~TestGlobalState() { globalState = previous; }
    TestGlobalState(const TestGlobalState&) = delete;
    TestGlobalState& operator=(const TestGlobalState&) = delete;

    QSettings* settings() override { return &store; }
    void changeStatus(QString, int) override {}
    StreamConfig* config() override { return &streamConfig; }
    int testAndSetOnce() override { return onceFlag.exchange(1); }
    void clickLive() override {}

    StreamConfig streamConfig;

private:
    QTemporaryDir folder;
    QSettings store{folder.filePath("Brindlewave.conf"), QSettings::IniFormat};
    std::atomic<int> onceFlag{0};
    IGlobalState* previous;
};
