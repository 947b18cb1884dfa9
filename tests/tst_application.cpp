#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "startup.h"
#include "support/freeport.h"
#include "support/srtlistener.h"

#include <QApplication>
#include <QPushButton>
#include <QtTest>
#include <xcb/xcb.h>

namespace {

// The X server's pointer, driven as a person's hand would drive it: a real click.
QByteArray xdotool(const QStringList& arguments) {
    QProcess process;
    process.start("xdotool", arguments);
    process.waitForFinished(10000);
    return process.readAllStandardOutput();
}

void clickAt(QPoint point) {
    xdotool({"mousemove", QString::number(point.x()), QString::number(point.y()), "click", "1"});
}

// Where the program's tool column stands on the screen; none while it is not shown.
QPoint columnPosition() {
    const QRegularExpressionMatch at = QRegularExpression("Position: (-?\\d+),(-?\\d+)")
                                           .match(xdotool({"search", "--onlyvisible", "--name",
                                                           "^Capture$", "getwindowgeometry"}));
    return at.hasMatch() ? QPoint(at.captured(1).toInt(), at.captured(2).toInt()) : QPoint(-1, -1);
}

// The window manager's Close (Alt+F4, the task bar): a WM_DELETE_WINDOW message to the column.
void closeFromWindowManager() {
    xcb_connection_t* x = xcb_connect(nullptr, nullptr);
    const auto atom = [x](const char* name) {
        xcb_intern_atom_reply_t* reply = xcb_intern_atom_reply(
            x, xcb_intern_atom(x, 0, static_cast<uint16_t>(strlen(name)), name), nullptr);
        const xcb_atom_t found = reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
        free(reply);
        return found;
    };
    for (const QByteArray& column :
         xdotool({"search", "--onlyvisible", "--name", "^Capture$"}).trimmed().split('\n')) {
        xcb_client_message_event_t message{};
        message.response_type = XCB_CLIENT_MESSAGE;
        message.format = 32;
        message.window = column.toUInt();
        message.type = atom("WM_PROTOCOLS");
        message.data.data32[0] = atom("WM_DELETE_WINDOW");
        message.data.data32[1] = XCB_CURRENT_TIME;
        xcb_send_event(x, 0, message.window, XCB_EVENT_MASK_NO_EVENT,
                       reinterpret_cast<const char*>(&message));
    }
    xcb_flush(x);
    xcb_disconnect(x);
}

const char* const encoderMessage = "Failed to initialize video encoder or MPEG-TS output";

} // namespace

// Runs the program's executable on the test's X server and drives it with real clicks.
class ApplicationTest : public QObject {
    Q_OBJECT

    QTemporaryDir folder;
    QPoint liveButton, exitButton, exitButtonBelowMessage, columnInPlace;

private slots:
    void initTestCase() {
        // The program's windows stand where an identical apparatus stands here: measure the
        // buttons on one, then put it away. A message in the form moves the exit button down.
        qApp->setStyleSheet(applicationStyleSheetText());
        auto* twin = new WCapture;
        QVERIFY(QTest::qWaitForWindowExposed(twin) &&
                QTest::qWaitForWindowExposed(twin->drawingForm()));
        auto* pbExit = twin->drawingForm()->findChild<QPushButton*>("pbExit");
        liveButton = twin->liveButton()->mapToGlobal(twin->liveButton()->rect().center());
        columnInPlace = twin->pos();
        exitButton = pbExit->mapToGlobal(pbExit->rect().center());
        twin->drawingForm()->changeStatus(encoderMessage, 0);
        QTRY_VERIFY((exitButtonBelowMessage = pbExit->mapToGlobal(pbExit->rect().center())) !=
                    exitButton);
        twin->hide();
        QTRY_VERIFY(!twin->drawingForm()->isVisible());
    }

    void clickedThroughARun_data() {
        QTest::addColumn<QByteArray>("configIni"); // beside the executable
        QTest::addColumn<QString>("roomGuid");     // stored by an earlier run
        QTest::addColumn<QStringList>("logged");   // besides what every run logs
        QTest::addColumn<QString>("wayOut");       // while live; else the exit button after
        const QStringList stopped{"OUTWriter stop. frames=", "SRT link totals: packets sent="};
        QTest::newRow("streams, stops and exits with zero")
            << QByteArray() << "" << stopped + QStringList{"switchLive0"} << "";
        QTest::newRow("window manager's close while live stops the stream")
            << QByteArray() << "" << stopped << "window manager";
        QTest::newRow("display going away while live stops the stream")
            << QByteArray() << "" << stopped << "display";
        // VAAPI takes only hardware surfaces, so it is refused on every machine.
        QTest::newRow("encoder that cannot open is shown in the form")
            << QByteArray("codec = h264_vaapi\n") << "0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0"
            << QStringList{"OUTWriter selected encoder does not report pixel format support: "
                           "h264_vaapi pix_fmt=yuv420p"}
            << "";
    }

    void clickedThroughARun() {
        QFETCH(QByteArray, configIni);
        QFETCH(QString, roomGuid);
        QFETCH(QStringList, logged);
        QFETCH(QString, wayOut);
        const bool streams = configIni.isEmpty();
        const uint16_t port = freeLoopbackPort(true);
        SrtListener listener;
        QVERIFY(listener.start(port));

        // config.ini is read beside the executable: this run gets a copy of its own. Its settings
        // hold the server's address, as after an earlier run.
        const QDir bin(folder.filePath(QTest::currentDataTag()));
        QVERIFY(bin.mkpath("config/Myrtlebrook") && bin.mkpath("data"));
        QVERIFY(QFile::copy(qEnvironmentVariable("BRINDLE_BINARY_DIR") + "/client/brindlewave",
                            bin.filePath("brindlewave")));
        QFile config(bin.filePath("config.ini"));
        QVERIFY(streams || (config.open(QIODevice::WriteOnly) && config.write(configIni) > 0));
        config.close();
        const QString settingsFile = bin.filePath("config/Myrtlebrook/Brindlewave.conf");
        QSettings(settingsFile, QSettings::IniFormat)
            .setValue("SRT_HOST_PORT", QString("127.0.0.1:%1").arg(port));
        if (!roomGuid.isEmpty())
            QSettings(settingsFile, QSettings::IniFormat).setValue("ROOM_GUID", roomGuid);

        // The display that goes away is one of the row's own, of the same size.
        QProcess display;
        const QByteArray testDisplay = qgetenv("DISPLAY");
        if (wayOut == "display") {
            int number = 90;
            while (QFile::exists(QString("/tmp/.X11-unix/X%1").arg(number)))
                ++number;
            display.start("Xvfb", {QString(":%1").arg(number), "-screen", "0", "1920x1080x24",
                                   "-nolisten", "tcp"});
            QTRY_VERIFY(QFile::exists(QString("/tmp/.X11-unix/X%1").arg(number)));
            qputenv("DISPLAY", QByteArray(":") + QByteArray::number(number));
        }
        const auto restoreDisplay = qScopeGuard([&] {
            qputenv("DISPLAY", testDisplay);
            display.kill();
            display.waitForFinished();
        });

        QProcess program;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_CONFIG_HOME", bin.filePath("config"));
        environment.insert("BRINDLEWAVE_DATA_DIR", bin.filePath("data"));
        program.setProcessEnvironment(environment);
        program.setProcessChannelMode(QProcess::ForwardedChannels);
        program.start(bin.filePath("brindlewave"), QStringList());
        // The column is first shown where the screen's size puts it, then set beside the frame:
        // the buttons are only where they were measured once it stands there.
        QTRY_COMPARE_WITH_TIMEOUT(columnPosition(), columnInPlace, 30000);
        clickAt(liveButton);
        const auto log = [&bin] {
            QFile file(bin.filePath("data/logs/") +
                       QDir(bin.filePath("data/logs")).entryList(QDir::Files).value(0));
            return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
        };
        if (streams) {
            QTRY_VERIFY_WITH_TIMEOUT(
                listener.probe(listener.bytes(0))["frames"].toArray().size() >= 25, 30000);
            // The column is mapped again asynchronously after the mode change, like the form:
            // the window manager's close is sent until the program answers by ending.
            if (wayOut == "window manager")
                for (QDeadlineTimer deadline(20000);
                     !program.waitForFinished(500) && !deadline.hasExpired();)
                    closeFromWindowManager();
            else if (wayOut == "display")
                display.kill();
            else
                clickAt(liveButton);
            QTRY_VERIFY_WITH_TIMEOUT(listener.connections()[0].closed, 20000);
        } else {
            QTRY_VERIFY_WITH_TIMEOUT(log().contains(QString("changeStatus 0 ") + encoderMessage),
                                     30000);
            QCOMPARE(program.state(), QProcess::Running);
        }
        // The form is back, with the message if there was one. It is mapped again asynchronously
        // after the mode change: click its exit button until the program answers by ending.
        for (QDeadlineTimer deadline(20000);
             !program.waitForFinished(500) && !deadline.hasExpired();)
            clickAt(streams ? exitButton : exitButtonBelowMessage);
        // Without its display the toolkit ends the program with 1.
        QVERIFY(program.state() == QProcess::NotRunning &&
                program.exitStatus() == QProcess::NormalExit &&
                program.exitCode() == (wayOut == "display" ? 1 : 0));

        // Log items run together; the column's placement is that on the 1920x1080 test screen.
        const QString text = log();
        logged += {"screen:001920x1080", "move: 640360", "switchLive1",
                   QString("OUTWriter start. hostPort=127.0.0.1:%1, streamId=, "
                           "videoBitrateKbps=5000, audioBitrateKbps=128, latency=10")
                       .arg(port)};
        for (const QString& line : logged)
            QVERIFY2(text.contains(line), qPrintable(line + " not in\n" + text));
        // The room identifier is made once and kept.
        const QString room =
            QSettings(settingsFile, QSettings::IniFormat).value("ROOM_GUID").toString();
        const QRegularExpression uuid("^[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$");
        QVERIFY2(uuid.match(room).hasMatch() && (roomGuid.isEmpty() || room == roomGuid),
                 qPrintable(room));
    }
};

QTEST_MAIN(ApplicationTest)
#include "tst_application.moc"
