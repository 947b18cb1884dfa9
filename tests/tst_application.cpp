#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "startup.h"
#include "support/freeport.h"
#include "support/srtlistener.h"

#include <QApplication>
#include <QDir>
#include <QJsonArray>
#include <QProcess>
#include <QPushButton>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QByteArray xdotool(const QStringList& arguments) {
    QProcess process;
    process.start("xdotool", arguments);
    process.waitForFinished(10000);
    return process.readAllStandardOutput();
}

// The frame is mapped again asynchronously after a mode change: click until the program
// answers by ending.
bool clickUntilFinished(QProcess& program, QPoint point) {
    QDeadlineTimer deadline(20000);
    do {
        xdotool(
            {"mousemove", QString::number(point.x()), QString::number(point.y()), "click", "1"});
        if (program.waitForFinished(500))
            return true;
    } while (!deadline.hasExpired());
    return false;
}

// Where the program's tool column stands on the screen; none while it is not shown.
QPoint columnPosition() {
    const QRegularExpressionMatch position =
        QRegularExpression("Position: (-?\\d+),(-?\\d+)")
            .match(
                xdotool({"search", "--onlyvisible", "--name", "^Capture$", "getwindowgeometry"}));
    return position.hasMatch() ? QPoint(position.captured(1).toInt(), position.captured(2).toInt())
                               : QPoint(-1, -1);
}

QString textOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

const char* const encoderMessage = "Failed to initialize video encoder or MPEG-TS output";

} // namespace

// Runs the program's executable on the test's X server and drives it with real clicks.
class ApplicationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void clickedThroughARun_data();
    void clickedThroughARun();

private:
    QTemporaryDir folder;
    QPoint liveButton;
    QPoint exitButton;
    QPoint exitButtonBelowMessage;
    QPoint columnInPlace;
};

void ApplicationTest::initTestCase() {
    // The program's windows stand where an identical apparatus stands here: measure the
    // buttons on one, then put it away.
    qApp->setStyleSheet(applicationStyleSheetText());
    auto* twin = new WCapture;
    QVERIFY(QTest::qWaitForWindowExposed(twin));
    QVERIFY(QTest::qWaitForWindowExposed(twin->drawingForm()));
    liveButton = twin->liveButton()->mapToGlobal(twin->liveButton()->rect().center());
    columnInPlace = twin->pos();
    auto* pbExit = twin->drawingForm()->findChild<QPushButton*>("pbExit");
    exitButton = pbExit->mapToGlobal(pbExit->rect().center());
    // A message in the form moves the exit button down.
    twin->drawingForm()->changeStatus(encoderMessage, 0);
    QTRY_VERIFY(pbExit->mapToGlobal(pbExit->rect().center()) != exitButton);
    exitButtonBelowMessage = pbExit->mapToGlobal(pbExit->rect().center());
    twin->hide();
    QTRY_VERIFY(!twin->drawingForm()->isVisible());
}

void ApplicationTest::clickedThroughARun_data() {
    QTest::addColumn<QByteArray>("configIni"); // beside the executable
    QTest::addColumn<QString>("roomGuid");     // stored by an earlier run
    QTest::newRow("streams, stops and exits with zero") << QByteArray() << "";
    // VAAPI takes only hardware surfaces, so it is refused on every machine.
    QTest::newRow("encoder that cannot open is shown in the form")
        << QByteArray("codec = h264_vaapi\n") << "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0";
}

void ApplicationTest::clickedThroughARun() {
    QFETCH(QByteArray, configIni);
    QFETCH(QString, roomGuid);
    const bool streams = configIni.isEmpty();
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port));

    // config.ini is read beside the executable: this run gets a copy of its own.
    const QString bin = folder.filePath(QTest::currentDataTag());
    const QString executable = bin + "/brindlewave";
    QVERIFY(QDir().mkpath(bin));
    QVERIFY(QFile::copy(qEnvironmentVariable("BRINDLE_BINARY_DIR") + "/client/brindlewave",
                        executable));
    QFile config(bin + "/config.ini");
    QVERIFY(streams || (config.open(QIODevice::WriteOnly) && config.write(configIni) > 0));
    config.close();
    // The settings hold the server's address, as after an earlier run.
    const QString settingsFile = bin + "/config/Myrtlebrook/Brindlewave.conf";
    QVERIFY(QDir().mkpath(bin + "/config/Myrtlebrook"));
    QFile settings(settingsFile);
    QVERIFY(settings.open(QIODevice::WriteOnly));
    settings.write(QString("[General]\nSRT_HOST_PORT=127.0.0.1:%1\n").arg(port).toUtf8() +
                   (roomGuid.isEmpty() ? QByteArray() : "ROOM_GUID=" + roomGuid.toUtf8() + "\n"));
    settings.close();

    QProcess program;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_CONFIG_HOME", bin + "/config");
    environment.insert("BRINDLEWAVE_DATA_DIR", bin + "/data");
    program.setProcessEnvironment(environment);
    program.setProcessChannelMode(QProcess::ForwardedChannels);
    program.start(executable, QStringList());
    QVERIFY(program.waitForStarted());
    // The column is first shown where the screen's size puts it, then set beside the frame:
    // the buttons are only where they were measured once it stands there.
    QTRY_COMPARE_WITH_TIMEOUT(columnPosition(), columnInPlace, 30000);

    xdotool({"mousemove", QString::number(liveButton.x()), QString::number(liveButton.y()), "click",
             "1"});
    const QDir logs(bin + "/data/logs");
    const auto log = [&] {
        const QStringList names = logs.entryList({"brindle_client_*.txt"}, QDir::Files);
        return names.size() == 1 ? textOf(logs.filePath(names[0])) : QString();
    };
    if (streams) {
        QTRY_VERIFY_WITH_TIMEOUT(listener.probe(0)["frames"].toArray().size() >= 25, 30000);
        xdotool({"mousemove", QString::number(liveButton.x()), QString::number(liveButton.y()),
                 "click", "1"});
        QTRY_VERIFY(listener.connections()[0].closed);
    } else {
        QTRY_VERIFY_WITH_TIMEOUT(log().contains(QString("changeStatus 0 ") + encoderMessage),
                                 30000);
        QCOMPARE(program.state(), QProcess::Running);
    }
    // The form is back, with the message if there was one: its exit button answers.
    QVERIFY(clickUntilFinished(program, streams ? exitButton : exitButtonBelowMessage));
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);

    if (streams) {
        const QJsonArray arrived = listener.probe(0)["streams"].toArray();
        QCOMPARE(arrived.size(), 1);
        QCOMPARE(arrived[0].toObject()["codec_name"].toString(), QString("h264"));
        QCOMPARE(arrived[0].toObject()["width"].toInt(), 1920);
        QCOMPARE(arrived[0].toObject()["height"].toInt(), 1080);
    }
    // Log items run together; the column's placement is that on the 1920x1080 test screen.
    const QString text = log();
    QStringList lines{"SETTINGS:" + settingsFile, "screen:001920x1080", "move: 640360",
                      "switchLive1",
                      QString("OUTWriter start. hostPort=127.0.0.1:%1, streamId=, "
                              "videoBitrateKbps=5000, audioBitrateKbps=128, latency=10")
                          .arg(port)};
    if (streams)
        lines << "switchLive0"
              << "OUTWriter stop. frames=";
    for (const QString& line : lines)
        QVERIFY2(text.contains(line), qPrintable(line + " not in\n" + text));

    // The room identifier is made once and kept.
    const QString room =
        QSettings(settingsFile, QSettings::IniFormat).value("ROOM_GUID").toString();
    QVERIFY2(
        QRegularExpression("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$").match(room).hasMatch(),
        qPrintable(room));
    QVERIFY(roomGuid.isEmpty() || room == roomGuid);
}

QTEST_MAIN(ApplicationTest)
#include "tst_application.moc"
