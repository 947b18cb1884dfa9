#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "mainwindow.h"
#include "support/freeport.h"
#include "support/patternwindow.h"
#include "support/srtlistener.h"
#include "support/tsreceiver.h"

#include <QApplication>
#include <QFileInfo>
#include <QJsonArray>
#include <QLabel>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QtTest>
#include <memory>
#include <unistd.h>

namespace {

WCapture* findCapture() {
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (auto* capture = qobject_cast<WCapture*>(widget))
            return capture;
    return nullptr;
}

// One decoded picture of a stream, as the server's viewers would see it.
QImage decodedFrame(const QString& file, int index) {
    QProcess ffmpeg;
    ffmpeg.start("ffmpeg",
                 {"-v", "error", "-i", file, "-vf", QString("select=eq(n\\,%1)").arg(index),
                  "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    if (!ffmpeg.waitForFinished(60000))
        return {};
    const QByteArray pixels = ffmpeg.readAllStandardOutput();
    if (pixels.size() != 1920 * 1080 * 3)
        return {};
    return QImage(reinterpret_cast<const uchar*>(pixels.constData()), 1920, 1080, 1920 * 3,
                  QImage::Format_RGB888)
        .copy();
}

// Runs in a child process: the whole program goes live to the given port, and the form's exit
// button is pressed once the parent says so on standard input.
int exitWhileLiveChild(const QByteArray& port) {
    MainWindow window;
    WCapture* capture = findCapture();
    DrawingForm* frame = capture->drawingForm();
    frame->findChild<QLineEdit*>("leHostPort")->setText("127.0.0.1:" + port);
    frame->findChild<QPushButton*>("pbStart")->click();
    if (!capture->liveButton()->isChecked())
        return 3;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated,
                     [frame] { frame->findChild<QPushButton*>("pbExit")->click(); });
    QApplication::exec();
    return 4; // the exit button ends the process before the event loop could return
}

} // namespace

class CaptureStreamerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void streamsTheFramedPictureStretched();
    void failuresShowTheirTextAndTheStartForm_data();
    void failuresShowTheirTextAndTheStartForm();
    void streamResumesWhenTheServerComesBack();
    void liveSwitchedOnAndOffWhileFramesFlow();
    void exitWhileLiveEndsTheProcessWithZero();

private:
    void goLive(const QString& address);
    void switchLiveOff();
    void verifyFormMode();

    std::unique_ptr<MainWindow> window;
    WCapture* capture = nullptr;
    DrawingForm* frame = nullptr;
    QLineEdit* hostPort = nullptr;
    QPushButton* start = nullptr;
    QLabel* message = nullptr;
    std::unique_ptr<PatternWindow> pattern;
    QTemporaryDir folder;
};

void CaptureStreamerTest::initTestCase() {
    QFile::remove(QCoreApplication::applicationDirPath() + "/config.ini");
    window = std::make_unique<MainWindow>();
    capture = findCapture();
    QVERIFY(capture);
    QVERIFY(QTest::qWaitForWindowExposed(capture));
    frame = capture->drawingForm();
    hostPort = frame->findChild<QLineEdit*>("leHostPort");
    start = frame->findChild<QPushButton*>("pbStart");
    message = frame->findChild<QLabel*>("lblMessage");
    QVERIFY(hostPort && start && message);
    QVERIFY(!window->isVisible());
    pattern = std::make_unique<PatternWindow>(capture->captureRect.load());
    QVERIFY(QTest::qWaitForWindowExposed(pattern.get()));
}

void CaptureStreamerTest::goLive(const QString& address) {
    hostPort->setText(address);
    QTest::mouseClick(start, Qt::LeftButton);
}

void CaptureStreamerTest::switchLiveOff() {
    QVERIFY(capture->liveButton()->isChecked());
    QTest::mouseClick(capture->liveButton(), Qt::LeftButton);
    QVERIFY(!capture->liveButton()->isChecked());
}

void CaptureStreamerTest::verifyFormMode() {
    QVERIFY(frame->isVisible());
    QVERIFY(frame->connectionForm()->isVisible());
    QVERIFY(start->isVisible());
    QCOMPARE(start->text(), QString("START"));
    QVERIFY(!frame->testAttribute(Qt::WA_TransparentForMouseEvents));
    QVERIFY(!capture->liveButton()->isChecked());
}

void CaptureStreamerTest::streamsTheFramedPictureStretched() {
    TsReceiver receiver(folder.filePath("stream.ts"));
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(receiver.start(port));

    goLive(QString("127.0.0.1:%1").arg(port));
    QVERIFY(capture->liveButton()->isChecked());
    QVERIFY(!frame->connectionForm()->isVisible());
    QVERIFY(frame->testAttribute(Qt::WA_TransparentForMouseEvents));

    // Two seconds of picture at least: the stream is cut only once that much has arrived.
    const QString file = receiver.outputPath();
    QTRY_VERIFY_WITH_TIMEOUT(TsReceiver::probe(file)["frames"].toArray().size() >= 50, 30000);
    switchLiveOff();
    verifyFormMode();
    QVERIFY(receiver.finish());

    const QJsonObject probe = TsReceiver::probe(file);
    const QJsonArray streams = probe["streams"].toArray();
    QCOMPARE(streams.size(), 1);
    const QJsonObject video = streams[0].toObject();
    QCOMPARE(video["codec_name"].toString(), QString("h264"));
    QCOMPARE(video["width"].toInt(), 1920);
    QCOMPARE(video["height"].toInt(), 1080);
    QCOMPARE(video["r_frame_rate"].toString(), QString("25/1"));

    const QImage picture = decodedFrame(file, 25);
    QVERIFY(!picture.isNull());
    QVERIFY2(PatternWindow::worstQuadrantError(picture) < 30,
             qPrintable(QString::number(PatternWindow::worstQuadrantError(picture))));
    // Stretched to the edges: no bars, no border of the frame.
    const QColor corner = picture.pixelColor(20, 20);
    QVERIFY2(qAbs(corner.red() - PatternWindow::topLeft.red()) < 30 &&
                 qAbs(corner.blue() - PatternWindow::topLeft.blue()) < 30,
             qPrintable(corner.name()));
    const QColor opposite = picture.pixelColor(1900, 1060);
    QVERIFY2(qAbs(opposite.green() - PatternWindow::bottomRight.green()) < 30 &&
                 qAbs(opposite.blue() - PatternWindow::bottomRight.blue()) < 30,
             qPrintable(opposite.name()));
}

void CaptureStreamerTest::failuresShowTheirTextAndTheStartForm_data() {
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("text");
    QTest::newRow("nobody listens")
        << QString("127.0.0.1:%1").arg(freeLoopbackPort(true)) << "SRT connect failed: ";
    QTest::newRow("no port") << "127.0.0.1"
                             << "SRT address must be HOST:PORT";
    QTest::newRow("empty") << "   "
                           << "SRT address must be HOST:PORT";
    QTest::newRow("port out of range") << "127.0.0.1:65536"
                                       << "SRT port is invalid";
    QTest::newRow("port not a number") << "127.0.0.1:80x"
                                       << "SRT port is invalid";
}

void CaptureStreamerTest::failuresShowTheirTextAndTheStartForm() {
    QFETCH(QString, address);
    QFETCH(QString, text);

    goLive(address);
    verifyFormMode();
    QVERIFY(message->isVisible());
    QVERIFY2(message->text().startsWith(text), qPrintable(message->text()));
}

void CaptureStreamerTest::streamResumesWhenTheServerComesBack() {
    const uint16_t port = freeLoopbackPort(true);
    auto first = std::make_unique<TsReceiver>(folder.filePath("before.ts"));
    QVERIFY(first->start(port));
    goLive(QString("127.0.0.1:%1").arg(port));
    QVERIFY(capture->liveButton()->isChecked());
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(first->outputPath()).size() > 0, 30000);

    first.reset(); // the server goes away
    TsReceiver second(folder.filePath("after.ts"));
    QVERIFY(second.start(port));
    QTRY_VERIFY_WITH_TIMEOUT(
        TsReceiver::probe(second.outputPath())["frames"].toArray().size() >= 10, 30000);
    QVERIFY(capture->liveButton()->isChecked());
    QVERIFY(!frame->connectionForm()->isVisible());

    switchLiveOff();
    verifyFormMode();
}

void CaptureStreamerTest::liveSwitchedOnAndOffWhileFramesFlow() {
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));

    const int cycles = 100;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        goLive(QString("127.0.0.1:%1").arg(port));
        QVERIFY(capture->liveButton()->isChecked());
        // The first frame's transport stream has reached the server.
        QTRY_VERIFY_WITH_TIMEOUT(listener.connectionCount() == std::size_t(cycle) + 1 &&
                                     listener.bytes(cycle).size() > 0,
                                 10000);
        switchLiveOff();
    }
    verifyFormMode();
    QTRY_VERIFY(listener.connections().back().closed);
}

void CaptureStreamerTest::exitWhileLiveEndsTheProcessWithZero() {
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));

    // The frame is hidden first so that it does not cover the child's.
    capture->hide();
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("BRINDLE_EXIT_CHILD", QString::number(port));
    child.setProcessEnvironment(environment);
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(), QStringList());
    QVERIFY(child.waitForStarted());

    QTRY_VERIFY_WITH_TIMEOUT(listener.connectionCount() == 1 && listener.bytes(0).size() > 20000,
                             30000);
    child.write("exit\n");
    QVERIFY(child.waitForFinished(30000));
    QCOMPARE(child.exitStatus(), QProcess::NormalExit);
    QCOMPARE(child.exitCode(), 0);
    QTRY_VERIFY(listener.connections().front().closed);
    capture->show();
}

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    if (qEnvironmentVariableIsSet("BRINDLE_EXIT_CHILD"))
        return exitWhileLiveChild(qgetenv("BRINDLE_EXIT_CHILD"));
    CaptureStreamerTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_capturestreamer.moc"
