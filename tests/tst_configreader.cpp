#include "configreader.h"
#include "support/messagecapture.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

class ConfigReaderTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void readsPairs_data();
    void readsPairs();
};

void ConfigReaderTest::readsPairs_data() {
    QTest::addColumn<QByteArray>("content"); // null: no file
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value"); // "default" where the key is not found

    QTest::newRow("blanks and case") << QByteArray("  BitRate =  2000000  ") << "bitrate"
                                     << "2000000";
    QTest::newRow("tabs and CR") << QByteArray("\tfps\t=\t30\r\nbitrate=1\r\n") << "fps"
                                 << "30";
    QTest::newRow("first occurrence wins") << QByteArray("FPS = 30\nfps=50\n") << "fps"
                                           << "30";
    QTest::newRow("section and blank lines") << QByteArray("[config]\n\n \t\nfps=7") << "fps"
                                             << "7";
    QTest::newRow("empty value") << QByteArray("codec=\n") << "codec"
                                 << "default";
    QTest::newRow("empty key") << QByteArray("=x\n") << ""
                               << "default";
    QTest::newRow("comment") << QByteArray("# bitrate=5\n") << "bitrate"
                             << "default";
    QTest::newRow("indented comment") << QByteArray("   # fps=5\n") << "fps"
                                      << "default";
    QTest::newRow("semicolon is no comment") << QByteArray(" ;bitrate=5") << ";bitrate"
                                             << "5";
    QTest::newRow("no inline comment") << QByteArray("framesize = 1280x720 # small") << "framesize"
                                       << "1280x720 # small";
    QTest::newRow("first equals splits") << QByteArray("a=b=c") << "a"
                                         << "b=c";
    QTest::newRow("quotes kept") << QByteArray("codec = \"libx264\"") << "codec"
                                 << "\"libx264\"";
    QTest::newRow("no separator") << QByteArray("fps 25") << "fps"
                                  << "default";
    QTest::newRow("empty file") << QByteArray("") << "fps"
                                << "default";
    QTest::newRow("no file") << QByteArray() << "fps"
                             << "default";
}

void ConfigReaderTest::readsPairs() {
    QFETCH(QByteArray, content);
    QFETCH(QString, key);
    QFETCH(QString, value);
    QTemporaryDir folder;
    QFile file(folder.filePath("config.ini"));
    QVERIFY(content.isNull() || (file.open(QIODevice::WriteOnly) && file.write(content) >= 0));
    file.close();

    MessageCapture capture;
    ConfigReader reader;
    // The name is taken relative to the executable's folder.
    QCOMPARE(reader.read(QDir(QCoreApplication::applicationDirPath())
                             .relativeFilePath(file.fileName())
                             .toStdString()),
             !content.isNull());
    QCOMPARE(reader.value(key.toStdString(), "default"), value);
    if (value != "default")
        QVERIFY(!capture.messages().filter("[config] ").filter(value).isEmpty());

    // A file that cannot be read is reported and leaves what was read before.
    QVERIFY(!reader.read("no-such-config.ini"));
    QVERIFY(capture.contains("fail open: "));
    QVERIFY(capture.contains(QCoreApplication::applicationDirPath() + "/no-such-config.ini"));
    QCOMPARE(reader.value(key.toStdString(), "default"), value);
}

QTEST_GUILESS_MAIN(ConfigReaderTest)
#include "tst_configreader.moc"
