#include "configreader.h"
#include "support/messagecapture.h"

#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

class ConfigReaderTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void parsesLines_data();
    void parsesLines();
    void readsAFile();
    void missingFileKeepsDefaultsAndEarlierValues();

private:
    // read() takes a name relative to the executable's folder.
    std::string writeConfig(const QByteArray& content);
    QTemporaryDir folder;
};

std::string ConfigReaderTest::writeConfig(const QByteArray& content) {
    QFile file(folder.filePath("config.ini"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return {};
    file.write(content);
    file.close();
    return QDir(QCoreApplication::applicationDirPath())
        .relativeFilePath(file.fileName())
        .toStdString();
}

void ConfigReaderTest::parsesLines_data() {
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("isPair");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");

    QTest::newRow("blanks and case") << "  BitRate =  2000000  " << true << "bitrate"
                                     << "2000000";
    QTest::newRow("tabs and CR") << "\tfps\t=\t30\r" << true << "fps"
                                 << "30";
    QTest::newRow("empty value") << "codec=" << false << ""
                                 << "";
    QTest::newRow("empty key") << "=x" << false << ""
                               << "";
    QTest::newRow("comment") << "# bitrate=5" << false << ""
                             << "";
    QTest::newRow("indented comment") << "   # fps=5" << false << ""
                                      << "";
    QTest::newRow("semicolon is no comment") << " ;bitrate=5" << true << ";bitrate"
                                             << "5";
    QTest::newRow("no inline comment") << "framesize = 1280x720 # small" << true << "framesize"
                                       << "1280x720 # small";
    QTest::newRow("first equals splits") << "a=b=c" << true << "a"
                                         << "b=c";
    QTest::newRow("quotes kept") << "codec = \"libx264\"" << true << "codec"
                                 << "\"libx264\"";
    QTest::newRow("section") << "[config]" << false << ""
                             << "";
    QTest::newRow("no separator") << "fps 25" << false << ""
                                  << "";
    QTest::newRow("blank") << " \t " << false << ""
                           << "";
    QTest::newRow("empty") << "" << false << ""
                           << "";
}

void ConfigReaderTest::parsesLines() {
    QFETCH(QString, line);
    QFETCH(bool, isPair);
    QFETCH(QString, key);
    QFETCH(QString, value);

    std::pair<std::string, std::string> pair{"untouched", "untouched"};
    QCOMPARE(ConfigReader::parseLine(line.toStdString(), '=', pair), isPair);
    if (isPair) {
        QCOMPARE(QString::fromStdString(pair.first), key);
        QCOMPARE(QString::fromStdString(pair.second), value);
    } else {
        QCOMPARE(pair.first, std::string("untouched"));
        QCOMPARE(pair.second, std::string("untouched"));
    }
}

void ConfigReaderTest::readsAFile() {
    const std::string name = writeConfig("# encoder settings\r\n"
                                         "[config]\r\n"
                                         "FPS = 30\r\n"
                                         "codec=libx264\r\n"
                                         "fps=50\r\n"
                                         "bitrate = 3000000"); // no final line end
    MessageCapture capture;
    ConfigReader reader;
    QVERIFY(reader.read(name));

    QCOMPARE(reader.value("fps", "25"), QString("30"));
    QCOMPARE(reader.value("FPS", "25"), QString("30"));
    QCOMPARE(reader.value("codec", "libopenh264"), QString("libx264"));
    QCOMPARE(reader.value("bitrate", "1000000"), QString("3000000"));
    QCOMPARE(reader.value("framesize", "1920x1080"), QString("1920x1080"));
    // Every pair is logged, the ignored repetition too.
    QVERIFY(capture.contains("[config]  fps   30"));
    QVERIFY(capture.contains("[config]  fps   50"));
    QVERIFY(capture.contains("[config]  bitrate   3000000"));
}

void ConfigReaderTest::missingFileKeepsDefaultsAndEarlierValues() {
    ConfigReader reader;
    QVERIFY(reader.read(writeConfig("fps=12\n")));

    MessageCapture capture;
    QVERIFY(!reader.read("no-such-config.ini"));
    const QString expectedPath = QCoreApplication::applicationDirPath() + "/no-such-config.ini";
    QVERIFY(capture.contains("fail open:  " + expectedPath));
    QCOMPARE(reader.value("fps", "25"), QString("12"));

    ConfigReader fresh;
    QVERIFY(!fresh.read("no-such-config.ini"));
    QCOMPARE(fresh.value("fps", "25"), QString("25"));

    ConfigReader empty;
    QVERIFY(empty.read(writeConfig("")));
    QCOMPARE(empty.value("codec", "libopenh264"), QString("libopenh264"));
}

QTEST_GUILESS_MAIN(ConfigReaderTest)
#include "tst_configreader.moc"
