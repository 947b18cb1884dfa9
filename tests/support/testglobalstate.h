#pragma once

#include "globalstate.h"

#include <QSettings>
#include <QTemporaryDir>
#include <atomic>

// The global state for tests that run without the main window: a StreamConfig the test fills in
// and settings in a file of a temporary folder. Installs itself as `globalState` for its lifetime.
struct TestGlobalState : IGlobalState {
    TestGlobalState() { globalState = this; }
    ~TestGlobalState() { globalState = nullptr; }
    QSettings* settings() override { return &store; }
    void changeStatus(QString, int) override {}
    StreamConfig* config() override { return &streamConfig; }
    int testAndSetOnce() override { return once.exchange(1); }
    void clickLive() override {}

    StreamConfig streamConfig;
    std::atomic<int> once{0};
    QTemporaryDir folder;
    QSettings store{folder.filePath("Brindlewave.conf"), QSettings::IniFormat};
};
