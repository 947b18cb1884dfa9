#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "mainwindow.h"
#include "support/freeport.h"
#include "support/messagecapture.h"
#include "support/srtlistener.h"

#include <QApplication>
#include <QJsonArray>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QtTest>
#include <memory>

namespace {

const QString secret = "brindle secret&pass";
const QString encodedSecret = "brindle%20secret%26pass";

bool shows(QPushButton* button, const char* icon) {
    return button->icon().pixmap(32).toImage() == QIcon(icon).pixmap(32).toImage();
}

} // namespace

// Encrypted links, their refusals, statistics and the lost-link state of the live button,
// through the whole program against a real libsrt listener.
class SrtLinkTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void refusedWithTheirText_data();
    void refusedWithTheirText();
    void encryptedLinkSurvivesAServerRestart();

private:
    void goLive(const QString& address);

    std::unique_ptr<MainWindow> window;
    WCapture* capture = nullptr;
    QPushButton* live = nullptr;
    QLabel* message = nullptr;
};

void SrtLinkTest::initTestCase() {
    QFile::remove(QCoreApplication::applicationDirPath() + "/config.ini");
    window = std::make_unique<MainWindow>();
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (auto* column = qobject_cast<WCapture*>(widget))
            capture = column;
    QVERIFY(capture && QTest::qWaitForWindowExposed(capture));
    live = capture->liveButton();
    message = capture->drawingForm()->findChild<QLabel*>("lblMessage");
}

void SrtLinkTest::goLive(const QString& address) {
    capture->drawingForm()->findChild<QLineEdit*>("leHostPort")->setText(address);
    QTest::mouseClick(capture->drawingForm()->findChild<QPushButton*>("pbStart"), Qt::LeftButton);
}

void SrtLinkTest::refusedWithTheirText_data() {
    QTest::addColumn<QString>("listenerSecret");
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("text");
    const QString url = "srt://127.0.0.1:PORT";
    QTest::newRow("wrong passphrase") << secret << url + "?passphrase=wrong%20secret"
                                      << "SRT connect failed: the server refused the passphrase";
    QTest::newRow("missing passphrase") << secret << "127.0.0.1:PORT"
                                        << "SRT connect failed: the server requires a passphrase";
    QTest::newRow("short passphrase") << "" << url + "?passphrase=short"
                                      << "SRT passphrase must be 10 to 79 characters";
    QTest::newRow("unknown option") << "" << url + "?latency=20&foo=1"
                                    << "unknown SRT option: foo";
    QTest::newRow("key length") << "" << url + "?pbkeylen=20"
                                << "SRT pbkeylen must be 16, 24 or 32";
    QTest::newRow("latency") << "" << url + "?latency=200000"
                             << "SRT latency must be 0 to 60000 milliseconds";
    QTest::newRow("broken escape") << "" << url + "?streamid=%2"
                                   << "SRT address has a broken percent escape";
    QTest::newRow("no port") << ""
                             << "srt://[::1]?latency=20"
                             << "SRT address must be srt://HOST:PORT?option=value";
    QTest::newRow("port") << ""
                          << "srt://[::1]:65536"
                          << "SRT port is invalid";
}

void SrtLinkTest::refusedWithTheirText() {
    QFETCH(QString, listenerSecret);
    QFETCH(QString, address);
    QFETCH(QString, text);
    SrtListener listener;
    listener.setPassphrase(listenerSecret.toStdString());
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));

    goLive(QString(address).replace("PORT", QString::number(port)));
    QVERIFY(!live->isChecked());
    QVERIFY(capture->drawingForm()->connectionForm()->isVisible());
    QCOMPARE(message->text(), text);
    QCOMPARE(listener.connectionCount(), std::size_t(0));
}

void SrtLinkTest::encryptedLinkSurvivesAServerRestart() {
    MessageCapture log;
    SrtListener listener;
    listener.setPassphrase(secret.toStdString());
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));

    // The form's stream id wins over the address's.
    capture->drawingForm()->findChild<QLineEdit*>("leStreamId")->setText("#!::r=talk,m=publish");
    goLive(QString("srt://127.0.0.1:%1?streamid=other+id&passphrase=%2"
                   "&pbkeylen=32&latency=120")
               .arg(port)
               .arg(encodedSecret));
    QVERIFY(live->isChecked() && shows(live, ":/icons/RED_LIVE.png"));
    QTRY_VERIFY_WITH_TIMEOUT(log.contains("SRT link: rtt="), 20000);
    QCOMPARE(listener.connections().front().streamId, std::string("#!::r=talk,m=publish"));

    // Lost: the button flashes, white and red by turns.
    listener.stop();
    QTRY_VERIFY(log.contains("SRT link lost"));
    QTRY_VERIFY(live->isChecked() && shows(live, ":/icons/WHITE_LIVE.png"));
    QTRY_VERIFY(live->isChecked() && shows(live, ":/icons/RED_LIVE.png"));

    // Back, with the passphrase the listener insists on: steady red while frames flow.
    QVERIFY(listener.start(port));
    QTRY_VERIFY_WITH_TIMEOUT(listener.connectionCount() == 2 && listener.bytes(1).size() > 0,
                             20000);
    QTRY_VERIFY(log.contains("SRT link back after "));
    for (int look = 0; look < 15; ++look, QTest::qWait(100))
        QVERIFY(shows(live, ":/icons/RED_LIVE.png"));

    // Live can be switched off while the link is down.
    listener.stop();
    QTRY_VERIFY(shows(live, ":/icons/WHITE_LIVE.png"));
    QTest::mouseClick(live, Qt::LeftButton);
    QVERIFY(!live->isChecked() && capture->drawingForm()->connectionForm()->isVisible());
    QVERIFY(log.contains("SRT link totals: packets sent="));
    QVERIFY(log.contains(", reconnects= 1"));

    QVERIFY(listener.probe(0)["frames"].toArray().size() > 25);
    QVERIFY(log.contains("passphrase=***"));
    for (const QString& hidden : {secret, encodedSecret})
        QVERIFY(!log.contains(hidden));
    globalState->settings()->sync();
    const QFile::Permissions others =
        QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther;
    QCOMPARE(QFile::permissions(globalState->settings()->fileName()) & others,
             QFile::Permissions());
}

QTEST_MAIN(SrtLinkTest)
#include "tst_srtlink.moc"
