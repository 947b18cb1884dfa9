#pragma once

#include "globalstate.h"

#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <atomic>
#include <memory>

// A global state whose settings live in a file of a temporary folder; it installs itself as
// `globalState` for its lifetime. Only the settings are real: the form reaches nothing else.
class SettingsGlobalState : public IGlobalState {
public:
    SettingsGlobalState();
    ~SettingsGlobalState();

    QSettings* settings() override { return store.get(); }
    void changeStatus(QString, int) override {}
    StreamConfig* config() override { return &streamConfig; }
    int testAndSetOnce() override { return onceFlag.exchange(1); }
    void clickLive() override {}

    // A fresh store on the same file, as the next run of the program would open it.
    std::unique_ptr<QSettings> reopen() const;

private:
    QTemporaryDir folder;
    QString fileName;
    std::unique_ptr<QSettings> store;
    StreamConfig streamConfig;
    std::atomic<int> onceFlag{0};
};
