#include "mainwindow.h"

#include "capturestreamer.h"
#include "frame/drawingform.h"
#include "logfile.h"
#include "platform/privatesettings.h"
#include "platform/settingslocation.h"
#include "updatechecker.h"

#include <QCoreApplication>
#include <QFile>
#include <QMenuBar>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>
#include <QUuid>

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent), ui(std::make_unique<Form>()) {
    setupUi();
    loadGlobalState();
    updateChecker = new UpdateChecker(this);
    updateChecker->start();
    captureStreamer = new CaptureStreamer;
    connect(captureStreamer, &CaptureStreamer::need_reconnect, this, &MainWindow::need_reconnect);
    captureStreamer->capture().show();
    connect(&captureStreamer->capture(), &WCapture::switchLive, this, &MainWindow::switchLive);
}

void MainWindow::need_reconnect() {}

void MainWindow::reconnect() {}

void MainWindow::switchLive(bool on) {
    logLine("switchLive", on);
    if (on)
        captureStreamer->try_connect();
    else
        captureStreamer->stop();
}

MainWindow::~MainWindow() = default;

void MainWindow::setupUi() {
    if (objectName().isEmpty())
        setObjectName(QStringLiteral("MainWindow"));
    resize(310, 180);
    ui->centralwidget = new QWidget(this);
    ui->centralwidget->setObjectName(QStringLiteral("centralwidget"));
    setCentralWidget(ui->centralwidget);
    ui->menubar = new QMenuBar(this);
    ui->menubar->setObjectName(QStringLiteral("menubar"));
    ui->menubar->setGeometry(QRect(0, 0, 310, 22));
    setMenuBar(ui->menubar);
    ui->statusbar = new QStatusBar(this);
    ui->statusbar->setObjectName(QStringLiteral("statusbar"));
    setStatusBar(ui->statusbar);
    setWindowTitle(QCoreApplication::translate("MainWindow", "MainWindow"));
    QMetaObject::connectSlotsByName(this);
}

void MainWindow::loadGlobalState() {
    globalState = this;

    configReader.read("config.ini");
    streamConfig.fps = configReader.value("fps", "25").toInt(nullptr, 10);
    streamConfig.bitrate = configReader.value("bitrate", "1000000").toInt(nullptr, 10);
    streamConfig.codec = configReader.value("codec", "libopenh264");
    streamConfig.framesize =
        configReader.value("framesize", std::to_string(1920) + "x" + std::to_string(1080));
    streamConfig.audio = configReader.value("audio", "none");

    const char* path = platform::settingsPath();
    settingsStore =
        path ? new QSettings(QString::fromUtf8(path), QSettings::NativeFormat)
             : new QSettings(QSettings::NativeFormat, QSettings::UserScope,
                             QStringLiteral("Myrtlebrook"), QStringLiteral("Brindlewave"));
    logLine("SETTINGS:", settingsStore->fileName());
    // The settings hold the stream id, which is often a credential.
    if (!platform::makeSettingsPrivate(QFile::encodeName(settingsStore->fileName()).toStdString()))
        logLine("FAIL keep settings private:", settingsStore->fileName());

    room = globalState->settings()->value("ROOM_GUID", QString()).toString();
    if (room.isEmpty()) {
        // The default text form is braced: the stored identifier is the 36 characters inside.
        const QString braced = QUuid::createUuid().toString();
        room = braced.mid(1, braced.size() - 2);
        globalState->settings()->setValue("ROOM_GUID", room);
    }
    // Written out at once, so that the file is private before an address is ever put in it.
    settingsStore->sync();
    platform::keepSettingsPrivate(settingsStore->fileName().toLocal8Bit().constData());
}

QSettings* MainWindow::settings() {
    return settingsStore;
}

void MainWindow::changeStatus(QString text, int kind) {
    if (captureStreamer)
        captureStreamer->capture().drawingForm()->changeStatus(text, kind);
}

StreamConfig* MainWindow::config() {
    return &streamConfig;
}

int MainWindow::testAndSetOnce() {
    return onceFlag.exchange(1);
}

void MainWindow::clickLive() {
    if (captureStreamer)
        captureStreamer->capture().liveButton()->click();
}
