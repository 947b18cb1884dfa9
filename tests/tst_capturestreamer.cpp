#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "mainwindow.h"
#include "support/freeport.h"
#include "support/messagecapture.h"
#include "support/patternwindow.h"
#include "support/srtlistener.h"

#include <QApplication>
#include <QJsonArray>
#include <QLabel>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QSettings>
#include <QSocketNotifier>
#include <QtTest>
#include <memory>
#include <unistd.h>

namespace {

WCapture* findCapture() {
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (qobject_cast<WCapture*>(widget))
            return qobject_cast<WCapture*>(widget);
    return nullptr;
}

bool showsIcon(const QPushButton* button, const char* file) {
    const auto image = [](const QIcon& icon) { return icon.pixmap(32, 32).toImage(); };
    return image(button->icon()) == image(QIcon(file));
}

} // namespace

// The whole program in one process, against a real SRT server and a known picture on screen.
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
    void goLive(const QString& address, const QString& streamId = "");
    void verifyFormMode();

    std::unique_ptr<MainWindow> window = std::make_unique<MainWindow>();
    WCapture* capture = findCapture();
    DrawingForm* frame = capture->drawingForm();
    QLabel* message = frame->findChild<QLabel*>("lblMessage");
    QPushButton* live = capture->liveButton();
    std::unique_ptr<PatternWindow> pattern;
};

void CaptureStreamerTest::initTestCase() {
    QVERIFY(QTest::qWaitForWindowExposed(capture) && !window->isVisible());
    const StreamConfig* config = globalState->config();
    QVERIFY(config->fps == 25 && config->bitrate == 1000000 && config->codec == "libopenh264" &&
            config->framesize == "1920x1080");
    // What reaches the global state reaches the form.
    globalState->changeStatus("Server is full", 0);
    QVERIFY(message->isVisible() && message->text() == "Server is full");
    pattern = std::make_unique<PatternWindow>(capture->captureRect.load());
    QVERIFY(QTest::qWaitForWindowExposed(pattern.get()));
}

void CaptureStreamerTest::goLive(const QString& address, const QString& streamId) {
    frame->findChild<QLineEdit*>("leHostPort")->setText(address);
    frame->findChild<QLineEdit*>("leStreamId")->setText(streamId);
    QTest::mouseClick(frame->findChild<QPushButton*>("pbStart"), Qt::LeftButton);
}

// Back at the start form: the frame takes clicks again and nothing is live.
void CaptureStreamerTest::verifyFormMode() {
    QVERIFY(frame->isVisible() && frame->connectionForm()->isVisible());
    QCOMPARE(frame->findChild<QPushButton*>("pbStart")->text(), QString("START"));
    QVERIFY(!live->isChecked() && showsIcon(live, ":/icons/WHITE_LIVE.png"));
    QTRY_COMPARE(QGuiApplication::topLevelAt(capture->captureRect.load().center()),
                 frame->windowHandle());
}

void CaptureStreamerTest::streamsTheFramedPictureStretched() {
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));
    // The form's texts are taken trimmed, and remembered for the next run.
    goLive(QString("  127.0.0.1:%1\t").arg(port), " cam ");
    QVERIFY(live->isChecked() && showsIcon(live, ":/icons/RED_LIVE.png"));
    QVERIFY(!frame->connectionForm()->isVisible());
    QVERIFY(window->settings()->value("SRT_HOST_PORT") == QString("127.0.0.1:%1").arg(port) &&
            window->settings()->value("SRT_STREAM_ID") == "cam");
    // Clicks inside the frame reach the window below it.
    QTRY_COMPARE(QGuiApplication::topLevelAt(capture->captureRect.load().center()),
                 pattern->windowHandle());

    // Two seconds of picture at least: the stream is cut only once that much has arrived.
    QTRY_VERIFY_WITH_TIMEOUT(listener.probe(0)["frames"].toArray().size() >= 50, 30000);
    QTest::mouseClick(live, Qt::LeftButton);
    verifyFormMode();
    QTRY_VERIFY(listener.connections()[0].closed);
    QCOMPARE(listener.connections()[0].streamId, std::string("cam"));
    QCOMPARE(listener.video(0), QString("h264 1920x1080 25/1"));

    // The picture under the frame, stretched to the edges: no bars, no border of the frame.
    const QImage picture = listener.picture(0, 25);
    QCOMPARE(picture.size(), QSize(1920, 1080));
    QVERIFY2(PatternWindow::worstError(picture, 20) < 30,
             qPrintable(QString::number(PatternWindow::worstError(picture, 20))));
}

void CaptureStreamerTest::failuresShowTheirTextAndTheStartForm_data() {
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("text"); // the whole text, or its start where it ends in ": "
    const QString shape = "SRT address must be HOST:PORT";
    const QString badPort = "SRT port is invalid";
    const struct {
        const char* name;
        QString address;
        QString text;
    } rows[] = {
        {"nobody listens", QString("127.0.0.1:%1").arg(freeLoopbackPort(true)),
         "SRT connect failed: "},
        {"brackets are not an address", "[::1]:9000", "failed to resolve SRT host: [::1]"},
        {"no colon", "127.0.0.1", shape},
        {"blanks only", "   ", shape},
        {"no host", ":80", shape},
        {"no port", "example:", shape},
        {"port zero", "127.0.0.1:0", badPort},
        {"port out of range", "127.0.0.1:65536", badPort},
        {"negative port", "example:-80", badPort},
        {"port past 32 bits", "example:4294967377", badPort},
        {"port not a number", "127.0.0.1:80x", badPort},
        // The live click as the global state makes it: an empty form.
        {"live clicked through the global state", "", shape},
    };
    for (const auto& row : rows)
        QTest::newRow(row.name) << row.address << row.text;
}

void CaptureStreamerTest::failuresShowTheirTextAndTheStartForm() {
    QFETCH(QString, address);
    QFETCH(QString, text);
    MessageCapture capture;
    if (address.isEmpty()) {
        frame->findChild<QLineEdit*>("leHostPort")->clear();
        globalState->clickLive();
    } else {
        goLive(address);
    }
    verifyFormMode();
    QVERIFY2(message->isVisible() &&
                 (text.endsWith(": ") ? message->text().startsWith(text) : message->text() == text),
             qPrintable(message->text()));
    QVERIFY(capture.contains("OUTWriter failed to connect SRT:  " + message->text()));
}

void CaptureStreamerTest::streamResumesWhenTheServerComesBack() {
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));
    goLive(QString("127.0.0.1:%1").arg(port), "cam");
    QVERIFY(live->isChecked());
    QTRY_VERIFY_WITH_TIMEOUT(listener.bytes(0).size() > 0, 30000);

    // The server goes away and comes back on the same port: the stream goes on, with its id,
    // and decodes from its next key frame.
    listener.stop();
    QVERIFY(listener.start(port));
    QTRY_VERIFY_WITH_TIMEOUT(listener.probe(1)["frames"].toArray().size() >= 10, 30000);
    QCOMPARE(listener.connections()[1].streamId, std::string("cam"));
    QVERIFY(live->isChecked() && !frame->connectionForm()->isVisible());
    QTest::mouseClick(live, Qt::LeftButton);
    verifyFormMode();
}

void CaptureStreamerTest::liveSwitchedOnAndOffWhileFramesFlow() {
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));
    for (std::size_t cycle = 0; cycle < 100; ++cycle) {
        goLive(QString("127.0.0.1:%1").arg(port));
        QVERIFY(live->isChecked());
        // The first frame's transport stream has reached the server.
        QTRY_VERIFY_WITH_TIMEOUT(
            listener.connectionCount() == cycle + 1 && listener.bytes(cycle).size() > 0, 10000);
        QTest::mouseClick(live, Qt::LeftButton);
        QVERIFY(!live->isChecked());
    }
    verifyFormMode();
    QTRY_VERIFY(listener.connections().back().closed);
}

void CaptureStreamerTest::exitWhileLiveEndsTheProcessWithZero() {
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));
    // The frame steps aside so that it does not cover the child's.
    capture->hide();
    QProcess child;
    qputenv("BRINDLE_EXIT_CHILD", QByteArray::number(port));
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start(QCoreApplication::applicationFilePath(), QStringList());
    qunsetenv("BRINDLE_EXIT_CHILD");
    QTRY_VERIFY_WITH_TIMEOUT(listener.connectionCount() == 1 && listener.bytes(0).size() > 20000,
                             30000);
    child.write("exit\n");
    QVERIFY(child.waitForFinished(30000));
    QVERIFY(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0);
    QTRY_VERIFY(listener.connections().front().closed);
    capture->show();
}

// The child: the whole program goes live to the given port, and the form's exit button is
// pressed once the parent says so on standard input.
int exitWhileLiveChild(const QString& port) {
    MainWindow window;
    DrawingForm* frame = findCapture()->drawingForm();
    frame->findChild<QLineEdit*>("leHostPort")->setText("127.0.0.1:" + port);
    frame->findChild<QPushButton*>("pbStart")->click();
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated,
                     [frame] { frame->findChild<QPushButton*>("pbExit")->click(); });
    QApplication::exec();
    return 4; // the exit button ends the process before the event loop could return
}

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    // The main window reads config.ini beside the executable; without it the encoder gets its
    // defaults.
    QFile::remove(QCoreApplication::applicationDirPath() + "/config.ini");
    if (qEnvironmentVariableIsSet("BRINDLE_EXIT_CHILD"))
        return exitWhileLiveChild(qEnvironmentVariable("BRINDLE_EXIT_CHILD"));
    CaptureStreamerTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_capturestreamer.moc"
