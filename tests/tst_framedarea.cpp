#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "mainwindow.h"
#include "support/freeport.h"
#include "support/patternwindow.h"
#include "support/srtlistener.h"

#include <QApplication>
#include <QLineEdit>
#include <QPushButton>
#include <QSocketNotifier>
#include <QtTest>
#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <vector>

namespace {

WCapture* findCapture() {
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (qobject_cast<WCapture*>(widget))
            return qobject_cast<WCapture*>(widget);
    return nullptr;
}

// Restarted as the connection form hides, which going live does just before the ticks begin.
struct HideClock : QObject {
    QElapsedTimer sinceHidden;
    bool eventFilter(QObject*, QEvent* event) override {
        if (event->type() == QEvent::Hide)
            sinceHidden.start();
        return false;
    }
};

} // namespace

// The program in a process of its own, on an X server of its own, live to a real SRT server
// with a known picture under its frame.
class FramedAreaTest : public QObject {
    Q_OBJECT

    QJsonArray frames() const { return listener.probe(listener.bytes(stream))["frames"].toArray(); }

    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    std::size_t stream = 0;

private slots:
    void initTestCase() { QVERIFY(listener.start(port)); }

    // At every scale factor and screen depth, on the shared-memory grab and on the toolkit's
    // (an X server without the extension), the program in a process of its own streams the
    // picture under its frame, and only that, at full rate while it stands still; turned, the
    // turn reaches the first tick that falls due after it, with the server's damage reports and
    // without them. Without them every tick grabs, converts and encodes, which can take longer
    // than a period on a loaded machine: the worker may then miss that tick, the picture before
    // stands in for it, and the turn shows in the next.
    void framedAreaAtEveryScaleAndDepth_data() {
        QTest::addColumn<QString>("scale");
        QTest::addColumn<int>("depth");
        QTest::addColumn<QString>("without"); // the X server's extension left out
        for (const QString without : {"", "MIT-SHM"}) {
            const bool shared = without.isEmpty();
            const char* path = shared ? "shared memory" : "toolkit";
            for (const char* scale : {"1", "1.25", "1.5", "2"})
                QTest::addRow("scale %s, %s", scale, path) << scale << 24 << without;
            QTest::addRow("30-bit screen, %s", path) << "1" << 30 << without;
            QTest::addRow("%s screen, %s", shared ? "16-bit" : "15-bit", path)
                << "1" << (shared ? 16 : 15) << without;
        }
        QTest::addRow("shared memory, no damage reports") << "1" << 24 << "DAMAGE";
    }

    void framedAreaAtEveryScaleAndDepth() {
        QFETCH(QString, scale);
        QFETCH(int, depth);
        QFETCH(QString, without);
        QProcess server;
        QStringList arguments{"-displayfd",
                              "1",
                              "-nolisten",
                              "tcp",
                              "-screen",
                              "0",
                              QString("1920x1080x%1").arg(depth)};
        if (!without.isEmpty())
            arguments += {"-extension", without};
        server.start("Xvfb", arguments);
        QVERIFY(server.waitForReadyRead(20000));
        QProcess program;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("DISPLAY", ":" + server.readLine().trimmed());
        environment.insert("QT_SCALE_FACTOR", scale);
        program.setProcessEnvironment(environment);
        program.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        stream = listener.connectionCount();
        program.start(QCoreApplication::applicationFilePath(), {"--framed", QString::number(port)});
        QTRY_VERIFY_WITH_TIMEOUT(frames().size() >= 30, 60000);
        const int turnedAt = frames().size();
        program.write("turn\n");
        QVERIFY(program.waitForBytesWritten());
        // The child says when the turned picture was in the X server, in ms after a moment just
        // before the ticks began: a tick due that long after the stream's first is due after it.
        QByteArray said;
        QTRY_VERIFY_WITH_TIMEOUT((said += program.readAllStandardOutput()).endsWith('\n'), 20000);
        const double turnedMs = said.trimmed().toDouble();
        QTRY_VERIFY_WITH_TIMEOUT(frames().size() >= turnedAt + 40, 60000);
        program.kill();
        program.waitForFinished();
        server.kill();
        server.waitForFinished();
        const QJsonArray all = frames();
        std::vector<double> pts;
        for (const QJsonValue& frame : all)
            pts.push_back(frame["pts_time"].toString().toDouble());
        QVERIFY(std::is_sorted(pts.begin(), pts.end(), std::less_equal<double>()));
        // Still, from the 25th frame until the turn: more than every other tick makes a frame
        // (a loaded machine misses some).
        const double rate = (turnedAt - 26) / (pts[turnedAt - 1] - pts[25]);
        QVERIFY2(rate > 12.5, qPrintable(QString::number(rate)));
        const int error = PatternWindow::worstError(listener.picture(stream, 25), 16);
        QVERIFY2(error < 12, qPrintable(QString::number(error)));
        const int due =
            std::lower_bound(pts.begin(), pts.end(), pts[0] + turnedMs / 1000) - pts.begin();
        QVERIFY2(due > 25 && due + 1 < all.size(), qPrintable(QString::number(turnedMs)));
        const auto turned = [&](int index) {
            return PatternWindow::worstError(listener.picture(stream, index).mirrored(true, true),
                                             16) < 12;
        };
        const bool everyTickGrabs = !without.isEmpty();
        QVERIFY2((turned(due) || (everyTickGrabs && turned(due + 1))) && turned(all.size() - 1),
                 qPrintable(QString("turned at %1 ms, due frame %2").arg(turnedMs).arg(due)));
    }
};

// The program with the four-colour picture under its frame, live to the port until killed.
int framedChild(int argc, char** argv) {
    QApplication application(argc, argv);
    MainWindow window;
    DrawingForm* frame = findCapture()->drawingForm();
    // Inside the smallest screen the scale factors leave, 960x540 at 2.
    const QRect area(60, 40, 640, 360);
    frame->setGeometry(area.adjusted(-5, -5, 5, 5));
    emit frame->newSize();
    PatternWindow pattern(area);
    if (!QTest::qWaitForWindowExposed(&pattern))
        return 1;
    // A line on standard input turns the picture; the answer is when the X server had it, in
    // ms after the moment just before the stream's ticks began.
    HideClock live;
    frame->connectionForm()->installEventFilter(&live);
    QSocketNotifier input(0, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char line[8];
        input.setEnabled(read(0, line, sizeof line) > 0);
        pattern.turned = true;
        pattern.repaint();
        QGuiApplication::sync();
        printf("%lld\n", static_cast<long long>(live.sinceHidden.elapsed()));
        fflush(stdout);
    });
    frame->findChild<QLineEdit*>("leHostPort")->setText(QString("127.0.0.1:") + argv[2]);
    QTest::mouseClick(frame->findChild<QPushButton*>("pbStart"), Qt::LeftButton);
    return application.exec();
}

int main(int argc, char** argv) {
    if (argc == 3 && QByteArray(argv[1]) == "--framed")
        return framedChild(argc, argv);
    QCoreApplication application(argc, argv);
    // The program reads config.ini beside the executable; without it the encoder gets its
    // defaults.
    QFile::remove(QCoreApplication::applicationDirPath() + "/config.ini");
    FramedAreaTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_framedarea.moc"
