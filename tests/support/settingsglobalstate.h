#pragma once

#include "globalstate.h"

#include <QSettings>
#include <QString>
#include <QTemporaryDir>
#include <memory>

// A global state whose settings live in a file of a temporary folder; it installs itself as
// `globalState` for its lifetime and records what reaches changeStatus and clickLive.
class SettingsGlobalState : public IGlobalState {
public:
    SettingsGlobalState();
    ~SettingsGlobalState();

    QSettings* settings() override { return store.get(); }
    void changeStatus(QString text, int kind) override;
    StreamConfig* config() override { return &streamConfig; }
    int testAndSetOnce() override;
    void clickLive() override { ++liveClicks; }

    // A fresh store on the same file, as the next run of the program would open it.
    std::unique_ptr<QSettings> reopen() const;

    QString lastStatus;
    int lastKind = -1;
    int liveClicks = 0;

private:
    QTemporaryDir folder;
    QString fileName;
    std::unique_ptr<QSettings> store;
    StreamConfig streamConfig;
    int onceFlag = 0;
};
