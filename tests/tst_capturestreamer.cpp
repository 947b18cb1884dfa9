#include "capturesource.h"
#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "mainwindow.h"
#include "support/freeport.h"
#include "support/messagecapture.h"
#include "support/patternwindow.h"
#include "support/srtlistener.h"

#include <srt/access_control.h>

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <netdb.h>
#include <unistd.h>
#include <vector>

namespace {

const QString secret = "brindle secret&pass";
const QString encodedSecret = "brindle%20secret%26pass";
const char* const red = ":/icons/RED_LIVE.png";
const char* const white = ":/icons/WHITE_LIVE.png";

WCapture* findCapture() {
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (qobject_cast<WCapture*>(widget))
            return qobject_cast<WCapture*>(widget);
    return nullptr;
}

bool shows(const QPushButton* button, const char* icon) {
    return button->icon().pixmap(32).toImage() == QIcon(icon).pixmap(32).toImage();
}

int threadCount() {
    return QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

int firstFamily(const char* host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host, "9", &hints, &list) != 0)
        return AF_UNSPEC;
    const int family = list->ai_family;
    freeaddrinfo(list);
    return family;
}

} // namespace

// The whole program in one process, driven through its form against real SRT servers, with a
// known picture under the frame.
class CaptureStreamerTest : public QObject {
    Q_OBJECT

    QJsonArray frames() const { return listener.probe(listener.bytes(stream))["frames"].toArray(); }

    std::unique_ptr<MainWindow> window = std::make_unique<MainWindow>();
    WCapture* capture = findCapture();
    DrawingForm* frame = capture->drawingForm();
    // Follows the frame as the program's own does.
    CaptureSource source{frame};
    QLabel* message = frame->findChild<QLabel*>("lblMessage");
    QPushButton* live = capture->liveButton();
    std::unique_ptr<PatternWindow> pattern;
    SrtListener listener;
    const QString here = QString("127.0.0.1:%1").arg(freeLoopbackPort(true));
    std::size_t stream = 0;

    // Puts the frame's inside at `area` with the four-colour picture under it.
    void frameOver(QRect area) {
        frame->setGeometry(area.adjusted(-5, -5, 5, 5));
        emit frame->newSize();
        QCOMPARE(source.area().local, area);
        pattern = std::make_unique<PatternWindow>(area);
        QVERIFY(QTest::qWaitForWindowExposed(pattern.get()));
    }

    // Goes live through the form; a run to `listener` makes its connection number `stream`.
    void goLive(const QString& address, const QString& streamId = "") {
        stream = listener.connectionCount();
        frame->findChild<QLineEdit*>("leHostPort")->setText(address);
        frame->findChild<QLineEdit*>("leStreamId")->setText(streamId);
        QTest::mouseClick(frame->findChild<QPushButton*>("pbStart"), Qt::LeftButton);
    }

    // Back at the start form: the frame takes clicks again and nothing is live.
    void verifyFormMode() {
        QVERIFY(frame->isVisible() && frame->connectionForm()->isVisible());
        QVERIFY(!live->isChecked() && shows(live, white));
        QTRY_COMPARE(QGuiApplication::topLevelAt(source.area().local.center()),
                     frame->windowHandle());
    }

private slots:
    void initTestCase() {
        QVERIFY(QTest::qWaitForWindowExposed(capture) && !window->isVisible());
        // Without config.ini (removed in main) the encoder asked for is the default.
        QCOMPARE(globalState->config()->codec, QString("libopenh264"));
        QVERIFY(listener.start(here.section(':', 1).toUShort()));
    }

    void streamsTheFramedPictureInTrueColoursWithGapsForMissedTicks() {
        frameOver(QRect(60, 40, 640, 360));
        // The form's texts are taken trimmed, and remembered for the next run.
        goLive("  " + here + "\t", " cam ");
        QVERIFY(live->isChecked() && shows(live, red) && !frame->connectionForm()->isVisible());
        QVERIFY(window->settings()->value("SRT_HOST_PORT") == here &&
                window->settings()->value("SRT_STREAM_ID") == "cam");
        // Clicks inside the frame reach the window below it.
        QTRY_COMPARE(QGuiApplication::topLevelAt(source.area().local.center()),
                     pattern->windowHandle());
        QTRY_VERIFY_WITH_TIMEOUT(frames().size() >= 30, 30000);
        // Resized while live: the stream keeps its size, the picture follows the new rectangle.
        frameOver(QRect(30, 30, 1000, 1000));
        const int resizedAt = frames().size();
        QTRY_VERIFY_WITH_TIMEOUT(frames().size() >= resizedAt + 40, 30000);
        // While the frame is dragged no tick writes a picture: a second of ticks is missed.
        emit capture->dragging(true);
        QTest::qWait(1000);
        emit capture->dragging(false);
        const int draggedAt = frames().size();
        QTRY_VERIFY_WITH_TIMEOUT(frames().size() >= draggedAt + 10, 30000);
        QTest::mouseClick(live, Qt::LeftButton);
        verifyFormMode();
        QTRY_VERIFY(listener.connections()[stream].closed);
        QCOMPARE(listener.connections()[stream].streamId, std::string("cam"));
        QCOMPARE(listener.video(stream), QString("h264 1920x1080 25/1"));

        const QJsonObject probe = listener.probe(listener.bytes(stream));
        const QJsonObject video = probe["streams"].toArray().at(0).toObject();
        for (const char* tag : {"color_space", "color_transfer", "color_primaries"})
            QCOMPARE(video[tag].toString(), QString("bt709"));
        QCOMPARE(video["color_range"].toString(), QString("tv"));
        double previous = -1;
        double widestGap = 0;
        for (const QJsonValue& frame : probe["frames"].toArray()) {
            QCOMPARE(QSize(frame["width"].toInt(), frame["height"].toInt()), QSize(1920, 1080));
            const double pts = frame["pts_time"].toString().toDouble();
            QVERIFY2(pts > previous, qPrintable(QString::number(pts)));
            widestGap = std::max(widestGap, previous < 0 ? 0 : pts - previous);
            previous = pts;
        }
        QVERIFY2(widestGap > 0.9 && widestGap < 3, qPrintable(QString::number(widestGap)));
        // Before and after the resize, stretched to the edges in the colours shown: no bars, no
        // border of the frame.
        for (const int index : {20, probe["frames"].toArray().size() - 5}) {
            const int error = PatternWindow::worstError(listener.picture(stream, index), 8);
            QVERIFY2(error < 12, qPrintable(QString::number(error)));
        }
    }

    void takenOrRefusedWithItsText_data() {
        QTest::addColumn<QString>("listenerSecret");
        // address: PORT stands for the listener's, which is on ::1 for "::1:PORT"; text: the
        // whole text, or its start where it ends in ": "; empty where the address is taken.
        QTest::addColumn<QString>("address");
        QTest::addColumn<QString>("text");
        const auto row = [](const char* name, QString secret, QString address, QString text) {
            QTest::newRow(name) << secret << address << text;
        };
        const QString url = "srt://127.0.0.1:PORT?";
        const QString shape = "SRT address must be HOST:PORT";
        const QString badPort = "SRT port is invalid";
        // Taken: a host name that resolves to ::1 first, with the server on 127.0.0.1 only; an
        // unbracketed IPv6 host, split at its last colon.
        row("host name", "", "localhost:PORT", "");
        row("unbracketed IPv6", "", "::1:PORT", "");
        row("blank and plus sign before the port", "", "127.0.0.1: +PORT", "");
        row("nobody listens", "", QString("127.0.0.1:%1").arg(freeLoopbackPort(true)),
            "SRT connect failed: ");
        row("wrong passphrase", secret, url + "passphrase=wrong%20secret",
            "SRT connect failed: the server refused the passphrase");
        row("missing passphrase", secret, "127.0.0.1:PORT",
            "SRT connect failed: the server requires a passphrase");
        row("short passphrase", "", url + "passphrase=short",
            "SRT passphrase must be 10 to 79 bytes");
        row("control byte in the host", "", "srt://127.0.0.1%00.example:PORT",
            "SRT host must not contain control characters");
        row("control byte in the stream id", "", url + "streamid=a%0Ab",
            "SRT stream id must not contain control characters");
        row("unknown option", "", url + "latency=20&foo=1", "unknown SRT option: foo");
        row("key length", "", url + "pbkeylen=20", "SRT pbkeylen must be 16, 24 or 32");
        row("latency", "", url + "latency=200000", "SRT latency must be 0 to 60000 milliseconds");
        row("broken escape", "", url + "streamid=%2", "SRT address has a broken percent escape");
        row("URL without port", "", "srt://[::1]?latency=20",
            "SRT address must be srt://HOST:PORT?option=value");
        row("brackets are not an address", "", "[::1]:9000", "failed to resolve SRT host: [::1]");
        row("no colon", "", "127.0.0.1", shape);
        row("no host", "", ":80", shape);
        row("port zero", "", "127.0.0.1:0", badPort);
        row("port out of range", "", "127.0.0.1:65536", badPort);
        row("port past 32 bits", "", "example:4294967377", badPort);
        row("port not a number", "", "127.0.0.1:80x", badPort);
    }

    void takenOrRefusedWithItsText() {
        QFETCH(QString, listenerSecret);
        QFETCH(QString, address);
        QFETCH(QString, text);
        // A stock Debian hosts file names ::1 first (main() gives the test one).
        QVERIFY(!address.startsWith("localhost") || firstFamily("localhost") == AF_INET6);
        SrtListener server;
        server.setPassphrase(listenerSecret.toStdString());
        const uint16_t serverPort = freeLoopbackPort(true);
        QVERIFY(server.start(serverPort, address.startsWith("::")));
        MessageCapture log;
        goLive(address.replace("PORT", QString::number(serverPort)));
        if (text.isEmpty()) {
            QTRY_VERIFY(server.connectionCount() == 1 && !server.bytes(0).isEmpty());
            QTest::mouseClick(live, Qt::LeftButton);
            return verifyFormMode();
        }
        verifyFormMode();
        QVERIFY2(message->isVisible() && (text.endsWith(": ") ? message->text().startsWith(text)
                                                              : message->text() == text),
                 qPrintable(message->text()));
        QVERIFY(log.contains("OUTWriter failed to connect SRT:  " + message->text()));
        QCOMPARE(server.connectionCount(), std::size_t(0));
    }

    // Killed, then back refusing the stream (it still holds the stream id's earlier sender), then
    // accepting: the program tries again by itself, less and less often, says what changed once,
    // and resumes with a picture viewers can decode at once.
    void serverAwayRefusingAndBack() {
        MessageCapture log;
        const uint16_t serverPort = freeLoopbackPort(true);
        // Live, encrypted, to a listener in a child process, killed once the first picture is out.
        QProcess server;
        server.start(QCoreApplication::applicationFilePath(),
                     {"--listener", QString::number(serverPort)});
        QVERIFY(server.waitForReadyRead(10000) && server.readLine() == "listening\n");
        // The form's stream id wins over the address's.
        goLive(QString("srt://127.0.0.1:%1?streamid=other+id&passphrase=%2&pbkeylen=32&latency=120")
                   .arg(serverPort)
                   .arg(encodedSecret),
               "#!::r=talk,m=publish");
        QTRY_VERIFY_WITH_TIMEOUT(log.contains("OUTWriter scales"), 20000);
        server.kill();
        QVERIFY(server.waitForFinished());
        // Lost: the button flashes, white and red by turns.
        QTRY_VERIFY_WITH_TIMEOUT(log.contains("SRT link lost"), 20000);
        QTRY_VERIFY(live->isChecked() && shows(live, white));
        QTRY_VERIFY(live->isChecked() && shows(live, red));
        const QString failed = "SRT connect failed: ";
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(failed + "no answer from the server"), 20000);

        SrtListener back;
        back.setPassphrase(secret.toStdString());
        back.setRefusal(SRT_REJX_CONFLICT);
        QVERIFY(back.start(serverPort));
        const QString refused = failed + "the server already has a sender for that stream id";
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(refused), 20000);
        const int threads = threadCount();
        // Eight seconds of refusals: a handful of handshakes (every chunk asked before), and the
        // library's threads for them come and go.
        const int refusedAt = back.handshakes();
        const QDeadlineTimer window(8000);
        QTRY_VERIFY_WITH_TIMEOUT(window.hasExpired(), 10000);
        QVERIFY2(back.handshakes() - refusedAt <= 6,
                 qPrintable(QString::number(back.handshakes())));
        QTRY_VERIFY(threadCount() <= threads);
        for (const QString& once : {QString("SrtConnection reconnecting"), refused})
            QCOMPARE(log.messages().filter(once).size(), 1);

        // Accepting: what arrived within 3 s of the connection must decode to pictures from the
        // first one on, a key frame behind at most the service, program and map tables. It is
        // decoded after the deadline, so that a slow decoder cannot eat into it.
        back.setRefusal(0);
        QTRY_VERIFY_WITH_TIMEOUT(back.connectionCount() == 1, 20000);
        const QDeadlineTimer due(3000);
        QByteArray arrived;
        const auto late = [&] {
            if (!due.hasExpired())
                arrived = back.bytes(0);
            return due.hasExpired();
        };
        QTRY_VERIFY_WITH_TIMEOUT(late(), 10000);
        const QJsonArray resumed = SrtListener::probe(arrived)["frames"].toArray();
        QVERIFY2(!resumed.isEmpty() && resumed[0]["pkt_pos"].toString().toInt() < 4 * 188,
                 qPrintable(
                     QString("no key frame first in the %1 bytes within 3 s").arg(arrived.size())));
        QCOMPARE(back.connections()[0].streamId, std::string("#!::r=talk,m=publish"));
        QTRY_VERIFY(log.contains("SRT link back after "));
        // Red at the button's next look at the link, then steady while frames flow; the outage was
        // long enough for a statistics line.
        QTRY_VERIFY(shows(live, red));
        for (int look = 0; look < 15; ++look, QTest::qWait(100))
            QVERIFY(live->isChecked() && shows(live, red));
        QTRY_VERIFY_WITH_TIMEOUT(log.contains("SRT link: rtt="), 20000);

        // Gone again, this time with a goodbye. Switched off during the reconnect, the stop
        // abandons it rather than waiting for its end, and the flush of the stream does not start
        // another.
        const QString reconnecting = "SrtConnection reconnecting";
        back.stop();
        QTRY_VERIFY(log.messages().filter(reconnecting).size() == 2);
        QTest::mouseClick(live, Qt::LeftButton);
        verifyFormMode();
        QVERIFY(log.contains("SrtConnection abandons the reconnect in progress"));
        QCOMPARE(log.messages().filter(reconnecting).size(), 2);
        QVERIFY(log.contains("SRT link totals: packets sent=") && log.contains(", reconnects= 1"));
        QVERIFY(log.contains("passphrase=***"));
        for (const QString& hidden : {secret, encodedSecret})
            QVERIFY(!log.contains(hidden));
    }

    // A stopped run leaves no thread behind: after one run and after a hundred the program has
    // no more than before, once the library has let go of the closed connections (threads of
    // earlier tests may end meanwhile).
    void liveSwitchedOnAndOffWhileFramesFlow() {
        const int idle = threadCount();
        for (int cycle = 0; cycle < 100; ++cycle) {
            goLive(here);
            QVERIFY(live->isChecked());
            // The first frame's transport stream has reached the server.
            QTRY_VERIFY_WITH_TIMEOUT(listener.connectionCount() == stream + 1 &&
                                         listener.bytes(stream).size() > 0,
                                     10000);
            QTest::mouseClick(live, Qt::LeftButton);
            QVERIFY(!live->isChecked());
            if (cycle == 0)
                QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= idle, 20000);
        }
        verifyFormMode();
        QTRY_VERIFY(listener.connections().back().closed);
        QTRY_VERIFY_WITH_TIMEOUT(threadCount() <= idle, 20000);
    }
};

// The server process: reports once it listens, then lives until it is killed.
int listenerChild(uint16_t port) {
    SrtListener listener;
    listener.setPassphrase(secret.toStdString());
    if (!listener.start(port))
        return 1;
    std::puts("listening");
    std::fflush(stdout);
    pause();
    return 0;
}

int main(int argc, char** argv) {
    if (argc == 3 && QByteArray(argv[1]) == "--listener")
        return listenerChild(QByteArray(argv[2]).toUShort());
    // localhost as a stock Debian hosts file names it, ::1 first, whatever this machine's says:
    // the test runs again in a mount namespace of its own with such a file.
    if (geteuid() == 0 && !qEnvironmentVariableIsSet("BRINDLE_STOCK_HOSTS")) {
        char hosts[] = "/tmp/brindle-hosts-XXXXXX";
        const int fd = mkstemp(hosts);
        const char stock[] = "::1 localhost\n127.0.0.1 localhost\n";
        if (fd >= 0 && write(fd, stock, sizeof stock - 1) == sizeof stock - 1 && close(fd) == 0) {
            setenv("BRINDLE_STOCK_HOSTS", "1", 1);
            std::vector<char*> command{const_cast<char*>("unshare"),
                                       const_cast<char*>("-m"),
                                       const_cast<char*>("sh"),
                                       const_cast<char*>("-c"),
                                       const_cast<char*>("mount --bind \"$0\" /etc/hosts && "
                                                         "rm \"$0\" && exec \"$@\""),
                                       hosts};
            command.insert(command.end(), argv, argv + argc + 1);
            execvp("unshare", command.data());
        }
    }
    QApplication application(argc, argv);
    // The main window reads config.ini beside the executable; without it the encoder gets its
    // defaults.
    QFile::remove(QCoreApplication::applicationDirPath() + "/config.ini");
    CaptureStreamerTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_capturestreamer.moc"
