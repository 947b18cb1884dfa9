#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "mainwindow.h"
#include "support/messagecapture.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QSettings>
#include <QtTest>
#include <atomic>
#include <thread>
#include <vector>

class MainWindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void roomIdentifierIsMadeOnceAndKept();
    void configurationValues_data();
    void configurationValues();
    void onlyOneCallerEverSeesZero();
    void globalStateReachesTheFormAndTheLiveButton();

private:
    QString configPath() const { return QCoreApplication::applicationDirPath() + "/config.ini"; }
    QString settingsPath() const {
        return qEnvironmentVariable("XDG_CONFIG_HOME") + "/Myrtlebrook/Brindlewave.conf";
    }
};

void MainWindowTest::init() {
    QFile::remove(configPath());
    QFile::remove(settingsPath());
}

void MainWindowTest::cleanup() {
    QFile::remove(configPath());
}

void MainWindowTest::roomIdentifierIsMadeOnceAndKept() {
    QVERIFY(!qEnvironmentVariableIsEmpty("XDG_CONFIG_HOME"));
    QString first;
    {
        MessageCapture capture;
        MainWindow window;
        QVERIFY(!window.isVisible());
        QCOMPARE(globalState, static_cast<IGlobalState*>(&window));
        QCOMPARE(window.settings()->fileName(), settingsPath());
        QVERIFY(capture.contains("SETTINGS: " + settingsPath()));

        first = window.roomGuid();
        QVERIFY2(QRegularExpression("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$")
                     .match(first)
                     .hasMatch(),
                 qPrintable(first));
        // The store writes itself out from the event loop, as in a real run.
        QTRY_VERIFY(QFileInfo(settingsPath()).size() > 0);
    }
    QFile stored(settingsPath());
    QVERIFY(stored.open(QIODevice::ReadOnly));
    const QByteArray before = stored.readAll();
    stored.close();
    QVERIFY(before.contains("ROOM_GUID=" + first.toLatin1()));
    const QDateTime modified = QFileInfo(settingsPath()).lastModified();

    {
        MainWindow second;
        QCOMPARE(second.roomGuid(), first);
        QCoreApplication::processEvents();
    }
    QVERIFY(stored.open(QIODevice::ReadOnly));
    QCOMPARE(stored.readAll(), before);
    QCOMPARE(QFileInfo(settingsPath()).lastModified(), modified);
}

void MainWindowTest::configurationValues_data() {
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("fps");
    QTest::addColumn<int>("bitrate");
    QTest::addColumn<QString>("codec");
    QTest::addColumn<QString>("framesize");

    QTest::newRow("no file") << QByteArray() << 25 << 1000000 << "libopenh264"
                             << "1920x1080";
    QTest::newRow("all set") << QByteArray("fps=30\nBITRATE=2500000\ncodec=libx264\n"
                                           "framesize=1280x720\n")
                             << 30 << 2500000 << "libx264"
                             << "1280x720";
    QTest::newRow("not numbers") << QByteArray("fps=abc\nbitrate=12k\n") << 0 << 0 << "libopenh264"
                                 << "1920x1080";
}

void MainWindowTest::configurationValues() {
    QFETCH(QByteArray, content);
    if (!content.isNull()) {
        QFile file(configPath());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    }

    MainWindow window;
    const StreamConfig* config = globalState->config();
    QCOMPARE(config, window.config());
    QTEST(int(config->fps), "fps");
    QTEST(int(config->bitrate), "bitrate");
    QTEST(config->codec, "codec");
    QTEST(config->framesize, "framesize");
}

void MainWindowTest::onlyOneCallerEverSeesZero() {
    MainWindow window;
    std::atomic<int> zeros{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i)
        callers.emplace_back([&] {
            for (int call = 0; call < 1000; ++call)
                if (globalState->testAndSetOnce() == 0)
                    ++zeros;
        });
    for (std::thread& caller : callers)
        caller.join();
    QCOMPARE(zeros.load(), 1);
    QCOMPARE(window.testAndSetOnce(), 1);
}

void MainWindowTest::globalStateReachesTheFormAndTheLiveButton() {
    // Earlier windows of this test leave their capture apparatus behind: take the new one.
    const QWidgetList before = QApplication::topLevelWidgets();
    MainWindow window;
    WCapture* capture = nullptr;
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (!before.contains(widget) && qobject_cast<WCapture*>(widget))
            capture = qobject_cast<WCapture*>(widget);
    QVERIFY(capture);
    auto* message = capture->drawingForm()->findChild<QLabel*>("lblMessage");
    QVERIFY(message);

    globalState->changeStatus("Server is full", 0);
    QVERIFY(message->isVisible());
    QCOMPARE(message->text(), QString("Server is full"));

    // A click on the live button as the user would make it: with no address in the form the
    // start fails and says so.
    capture->drawingForm()->findChild<QLineEdit*>("leHostPort")->clear();
    QSignalSpy switched(capture, &WCapture::switchLive);
    globalState->clickLive();
    QCOMPARE(switched.count(), 1);
    QCOMPARE(switched.at(0).at(0).toBool(), true);
    QCOMPARE(message->text(), QString("SRT address must be HOST:PORT"));
    QVERIFY(!capture->liveButton()->isChecked());
    capture->hide();
}

QTEST_MAIN(MainWindowTest)
#include "tst_mainwindow.moc"
