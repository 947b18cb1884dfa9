#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "mainwindow.h"
#include "support/freeport.h"
#include "support/messagecapture.h"
#include "support/srtlistener.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QJsonArray>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QtTest>
#include <cstdio>
#include <memory>
#include <unistd.h>

// The server process is killed (no goodbye reaches the program) while the program streams.
class ServerLossTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void liveOffNeverWaitsForTheNetwork_data();
    void liveOffNeverWaitsForTheNetwork();
    void streamReturnsWithItsIdToTheServerBack();

private:
    // Goes live to a listener in a child process once that has received the first bytes.
    void goLiveToServerProcess(uint16_t port, QProcess& server);

    std::unique_ptr<MainWindow> window;
    WCapture* capture = nullptr;
    DrawingForm* frame = nullptr;
};

void ServerLossTest::initTestCase() {
    QFile::remove(QCoreApplication::applicationDirPath() + "/config.ini");
    window = std::make_unique<MainWindow>();
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (auto* found = qobject_cast<WCapture*>(widget))
            capture = found;
    QVERIFY(capture && QTest::qWaitForWindowExposed(capture));
    frame = capture->drawingForm();
}

void ServerLossTest::goLiveToServerProcess(uint16_t port, QProcess& server) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("BRINDLE_LISTENER_CHILD", QString::number(port));
    server.setProcessEnvironment(environment);
    server.start(QCoreApplication::applicationFilePath(), QStringList());
    QVERIFY(server.waitForReadyRead(10000));
    QCOMPARE(server.readLine(), QByteArray("listening\n"));
    frame->findChild<QLineEdit*>("leHostPort")->setText(QString("127.0.0.1:%1").arg(port));
    frame->findChild<QLineEdit*>("leStreamId")->setText("room/7?key=secret");
    QTest::mouseClick(frame->findChild<QPushButton*>("pbStart"), Qt::LeftButton);
    QVERIFY(capture->liveButton()->isChecked());
    QTRY_VERIFY_WITH_TIMEOUT(server.canReadLine(), 20000);
    QCOMPARE(server.readLine(), QByteArray("streaming\n"));
}

void ServerLossTest::liveOffNeverWaitsForTheNetwork_data() {
    QTest::addColumn<int>("attempts");
    QTest::newRow("before the loss is noticed") << 0;
    QTest::newRow("during the first reconnect") << 1;
    QTest::newRow("during a later reconnect") << 2;
}

void ServerLossTest::liveOffNeverWaitsForTheNetwork() {
    QFETCH(int, attempts);
    MessageCapture log;
    QProcess server;
    goLiveToServerProcess(freeLoopbackPort(true), server);
    server.kill();
    QVERIFY(server.waitForFinished());

    const QString reconnecting = "SrtConnection reconnecting";
    QTRY_VERIFY_WITH_TIMEOUT(log.messages().filter(reconnecting).size() >= attempts, 30000);
    QTest::mouseClick(capture->liveButton(), Qt::LeftButton);
    // The click has returned with the attempt still under way: the stop abandoned it rather
    // than waiting for its end, and the flush of the stream did not start another.
    QVERIFY(!capture->liveButton()->isChecked());
    QVERIFY(frame->connectionForm()->isVisible());
    QCOMPARE(log.contains("SrtConnection abandons the reconnect in progress"), attempts > 0);
    QCOMPARE(log.messages().filter(reconnecting).size(), attempts);
}

void ServerLossTest::streamReturnsWithItsIdToTheServerBack() {
    MessageCapture log;
    const uint16_t port = freeLoopbackPort(true);
    QProcess server;
    goLiveToServerProcess(port, server);
    server.kill();
    QVERIFY(server.waitForFinished());
    // Away for over 10 s: the loss takes libsrt 5 s to notice, then each attempt 3 s to fail.
    QTRY_VERIFY_WITH_TIMEOUT(log.messages().filter("SrtConnection reconnecting").size() >= 3,
                             30000);

    SrtListener back;
    QVERIFY(back.start(port));
    const QDeadlineTimer due(3000);
    bool decoded = false;
    // Only what had arrived before the deadline counts, and it must decode to pictures.
    const auto picturesOrLate = [&] {
        if (!due.hasExpired() && back.connectionCount() == 1 &&
            !back.probe(0)["frames"].toArray().isEmpty())
            decoded = true;
        return decoded || due.hasExpired();
    };
    QTRY_VERIFY_WITH_TIMEOUT(picturesOrLate(), 10000);
    QVERIFY2(decoded, "no picture within 3 s of the server's return");
    QCOMPARE(back.connections()[0].streamId, std::string("room/7?key=secret"));
    QVERIFY(capture->liveButton()->isChecked());
    QTest::mouseClick(capture->liveButton(), Qt::LeftButton);
    QTRY_VERIFY(back.connections()[0].closed);
}

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsSet("BRINDLE_LISTENER_CHILD")) {
        // The server process: reports once it listens and once the stream flows, then lives
        // until it is killed.
        SrtListener listener;
        if (!listener.start(
                static_cast<uint16_t>(qEnvironmentVariableIntValue("BRINDLE_LISTENER_CHILD"))))
            return 1;
        std::puts("listening");
        std::fflush(stdout);
        while (listener.connectionCount() == 0 || listener.bytes(0).isEmpty())
            usleep(10000);
        std::puts("streaming");
        std::fflush(stdout);
        pause();
        return 0;
    }
    QApplication application(argc, argv);
    ServerLossTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_serverloss.moc"
