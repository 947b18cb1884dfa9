#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "startup.h"
#include "support/freeport.h"
#include "support/tsreceiver.h"

#include <QApplication>
#include <QDir>
#include <QJsonArray>
#include <QProcess>
#include <QPushButton>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>
#include <optional>

namespace {

QByteArray run(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(10000);
    return process.readAllStandardOutput();
}

// A real pointer click through the X server, as a person would make it.
void clickAt(QPoint point) {
    run("xdotool",
        {"mousemove", QString::number(point.x()), QString::number(point.y()), "click", "1"});
}

// The frame is mapped again asynchronously after a mode change: click until the program
// answers by ending.
bool clickUntilFinished(QProcess& program, QPoint point) {
    QDeadlineTimer deadline(20000);
    do {
        clickAt(point);
        if (program.waitForFinished(500))
            return true;
    } while (!deadline.hasExpired());
    return false;
}

// Where the program's tool column stands on the screen; none while it is not shown.
std::optional<QPoint> columnPosition() {
    const QByteArray geometry =
        run("xdotool", {"search", "--onlyvisible", "--name", "^Capture$", "getwindowgeometry"});
    const QRegularExpressionMatch position =
        QRegularExpression("Position: (-?\\d+),(-?\\d+)").match(QString::fromUtf8(geometry));
    if (!position.hasMatch())
        return std::nullopt;
    return QPoint(position.captured(1).toInt(), position.captured(2).toInt());
}

QString logText(const QString& dataFolder) {
    const QDir logs(dataFolder + "/logs");
    QString text;
    for (const QString& name : logs.entryList({"brindle_client_*.txt"}, QDir::Files)) {
        QFile file(logs.filePath(name));
        if (file.open(QIODevice::ReadOnly))
            text += QString::fromUtf8(file.readAll());
    }
    return text;
}

const char* const encoderMessage = "Failed to initialize video encoder or MPEG-TS output";

} // namespace

// Runs the program's executable on the test's X server and drives it with real clicks.
class ApplicationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void streamsStopsAndExitsWithZero();
    void encoderThatCannotOpenIsShownInTheForm();

private:
    // Starts the program from `executable` with its own settings and data folders; the
    // settings already hold the server's address, as after an earlier run.
    bool startProgram(QProcess& program, const QString& executable, uint16_t port);

    QTemporaryDir folder;
    QPoint liveButton;
    QPoint exitButton;
    QPoint exitButtonBelowEncoderMessage;
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
    exitButtonBelowEncoderMessage = pbExit->mapToGlobal(pbExit->rect().center());
    twin->hide();
    QTRY_VERIFY(!twin->drawingForm()->isVisible());
}

bool ApplicationTest::startProgram(QProcess& program, const QString& executable, uint16_t port) {
    const QString config = folder.filePath("config");
    QDir().mkpath(config + "/Myrtlebrook");
    QFile settings(config + "/Myrtlebrook/Brindlewave.conf");
    if (!settings.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    settings.write(QString("[General]\nSRT_HOST_PORT=127.0.0.1:%1\n").arg(port).toUtf8());
    settings.close();

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_CONFIG_HOME", config);
    environment.insert("BRINDLEWAVE_DATA_DIR", folder.filePath("data"));
    program.setProcessEnvironment(environment);
    program.setProcessChannelMode(QProcess::ForwardedChannels);
    program.start(executable, QStringList());
    if (!program.waitForStarted())
        return false;
    // The column is first shown where the screen's size puts it, then set beside the frame:
    // the buttons are only where they were measured once it stands there.
    QDeadlineTimer deadline(30000);
    while (columnPosition() != columnInPlace && !deadline.hasExpired())
        QTest::qWait(50);
    return columnPosition() == columnInPlace;
}

void ApplicationTest::streamsStopsAndExitsWithZero() {
    const uint16_t port = freeLoopbackPort(true);
    TsReceiver receiver(folder.filePath("stream.ts"));
    QVERIFY(receiver.start(port));

    QProcess program;
    QVERIFY(startProgram(program,
                         qEnvironmentVariable("BRINDLE_BINARY_DIR") + "/client/brindlewave", port));
    clickAt(liveButton);
    QTRY_VERIFY_WITH_TIMEOUT(
        TsReceiver::probe(receiver.outputPath())["frames"].toArray().size() >= 25, 30000);
    clickAt(liveButton);
    QVERIFY(receiver.finish());

    QVERIFY(clickUntilFinished(program, exitButton));
    QCOMPARE(program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(program.exitCode(), 0);

    const QJsonArray streams = TsReceiver::probe(receiver.outputPath())["streams"].toArray();
    QCOMPARE(streams.size(), 1);
    QCOMPARE(streams[0].toObject()["codec_name"].toString(), QString("h264"));
    QCOMPARE(streams[0].toObject()["width"].toInt(), 1920);
    QCOMPARE(streams[0].toObject()["height"].toInt(), 1080);

    const QString log = logText(folder.filePath("data"));
    QVERIFY2(log.contains(QString("OUTWriter start. hostPort=127.0.0.1:%1").arg(port)),
             qPrintable(log));
    // The column's placement on the 1920x1080 test screen, items run together.
    QVERIFY(log.contains("screen:001920x1080"));
    QVERIFY(log.contains("move: 640360"));
    QVERIFY(log.contains("switchLive1"));
    QVERIFY(log.contains("switchLive0"));
    QVERIFY(log.contains("OUTWriter stop. frames="));
}

void ApplicationTest::encoderThatCannotOpenIsShownInTheForm() {
    // config.ini is read beside the executable: this run gets a copy of its own.
    const QString bin = folder.filePath("bin");
    QVERIFY(QDir().mkpath(bin));
    const QString executable = bin + "/brindlewave";
    QFile::remove(executable);
    QVERIFY(QFile::copy(qEnvironmentVariable("BRINDLE_BINARY_DIR") + "/client/brindlewave",
                        executable));
    QFile config(bin + "/config.ini");
    QVERIFY(config.open(QIODevice::WriteOnly));
    config.write("codec = h264_vaapi\n");
    config.close();
    QDir(folder.filePath("data/logs")).removeRecursively();

    const uint16_t port = freeLoopbackPort(true);
    TsReceiver receiver(folder.filePath("refused.ts"));
    QVERIFY(receiver.start(port));
    QProcess program;
    QVERIFY(startProgram(program, executable, port));

    clickAt(liveButton);
    QTRY_VERIFY_WITH_TIMEOUT(
        logText(folder.filePath("data")).contains(QString("changeStatus 0 ") + encoderMessage),
        30000);
    QCOMPARE(program.state(), QProcess::Running);

    // The form is back, with the message: its exit button answers.
    QVERIFY(clickUntilFinished(program, exitButtonBelowEncoderMessage));
    QCOMPARE(program.exitCode(), 0);
}

QTEST_MAIN(ApplicationTest)
#include "tst_application.moc"
