#pragma once

#include "globalstate.h"

#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <atomic>
#include <memory>

// The global state for tests: a StreamConfig the test fills in and settings kept in a file of
// a temporary folder. Installs itself as `globalState` for its lifetime; there is no form or
// live button behind it.
class TestGlobalState : public IGlobalState {
public:
    TestGlobalState();
    ~TestGlobalState();
    TestGlobalState(const TestGlobalState&) = delete;
    TestGlobalState& operator=(const TestGlobalState&) = delete;

    QSettings* settings() override { return store.get(); }
    void changeStatus(QString, int) override {}
    StreamConfig* config() override { return &streamConfig; }
    int testAndSetOnce() override { return onceFlag.exchange(1); }
    void clickLive() override {}

    // A fresh store on the same file, as the next run of the program would open it.
    std::unique_ptr<QSettings> reopen() const;

    StreamConfig streamConfig;

private:
    QTemporaryDir folder;
    QString fileName;
    std::unique_ptr<QSettings> store;
    std::atomic<int> onceFlag{0};
    IGlobalState* previous;
};
