#pragma once

#include "configreader.h"
#include "globalstate.h"

#include <QMainWindow>
#include <QString>
#include <atomic>
#include <memory>

class CaptureStreamer;
class QMenuBar;
class QSettings;
class QStatusBar;
class UpdateChecker;

// The never-shown window that creates and wires the whole program and serves the global
// state to every other part.
class MainWindow : public QMainWindow, public IGlobalState {
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    QString roomGuid() const { return room; }

    QSettings* settings() override;
    void changeStatus(QString text, int kind) override;
    StreamConfig* config() override;
    int testAndSetOnce() override;
    void clickLive() override;

public Q_SLOTS:
    void need_reconnect();
    void reconnect();

private:
    void switchLive(bool on);

    struct Form {
        QWidget* centralwidget = nullptr;
        QMenuBar* menubar = nullptr;
        QStatusBar* statusbar = nullptr;
    };

    void setupUi();
    void loadGlobalState();

    std::unique_ptr<Form> ui;
    CaptureStreamer* captureStreamer = nullptr; // lives until the process ends
    UpdateChecker* updateChecker = nullptr;     // a child object: goes with the window
    ConfigReader configReader;
    QSettings* settingsStore = nullptr; // lives until the process ends
    QString room;
    StreamConfig streamConfig;
    std::atomic<int32_t> onceFlag{0};
};
