#pragma once

#include "globalstate.h"

#include <QString>
#include <QStringList>

// An IGlobalState for tests: serves a StreamConfig the test fills in and records the status
// texts it is given. Installs itself as `globalState` for its lifetime.
class TestGlobalState : public IGlobalState {
public:
    TestGlobalState();
    ~TestGlobalState();
    TestGlobalState(const TestGlobalState&) = delete;
    TestGlobalState& operator=(const TestGlobalState&) = delete;

    QSettings* settings() override { return nullptr; }
    void changeStatus(QString text, int kind) override;
    StreamConfig* config() override { return &streamConfig; }
    int testAndSetOnce() override { return onceCalls++; }
    void clickLive() override { ++liveClicks; }

    StreamConfig streamConfig;
    QStringList statusTexts;
    int onceCalls = 0;
    int liveClicks = 0;

private:
    IGlobalState* previous;
};
