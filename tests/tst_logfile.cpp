#include "logfile.h"
#include "platform/localtime.h"
#include "support/messagecapture.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

mode_t modeOf(const QString& path) {
    struct stat info {};
    return lstat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_mode & 07777 : 0;
}

QStringList logFiles(const QString& folder) {
    return QDir(folder).entryList({"brindle_client_*.txt"}, QDir::Files | QDir::System);
}

} // namespace

class LogFileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void fileNameCarriesTheLocalTime_data();
    void fileNameCarriesTheLocalTime();
    void lineLayout();
    void firstRunCreatesSharedFoldersAndAPrivateFile();
    void linkPlantedAtTheFileNameIsNotFollowed();
    void unusableFolderIsReportedAndTheProgramGoesOn();
};

void LogFileTest::fileNameCarriesTheLocalTime_data() {
    QTest::addColumn<QVector<int>>("time");
    QTest::addColumn<QString>("expected");
    QTest::newRow("padded") << QVector<int>{2025, 3, 5, 9, 7, 3}
                            << "brindle_client_2025_03_05_09_07_03.txt";
    QTest::newRow("two digits") << QVector<int>{2026, 12, 31, 23, 59, 58}
                                << "brindle_client_2026_12_31_23_59_58.txt";
    QTest::newRow("year unpadded")
        << QVector<int>{999, 1, 1, 0, 0, 0} << "brindle_client_999_01_01_00_00_00.txt";
}

void LogFileTest::fileNameCarriesTheLocalTime() {
    QFETCH(QVector<int>, time);
    QFETCH(QString, expected);
    QCOMPARE(QString::fromStdString(logfile::fileName("brindle_client", time[0], time[1], time[2],
                                                      time[3], time[4], time[5])),
             expected);
}

void LogFileTest::lineLayout() {
    std::ostringstream out;
    logfile::writeLine(out, -17, "client/x.cpp", 42, "[config] ", std::string("fps"), ' ', 25,
                       QString::fromUtf8("\xc3\xa9"));
    QCOMPARE(QString::fromStdString(out.str()),
             QString::fromUtf8("-17  [config] fps 25\xc3\xa9  client/x.cpp  42\n"));
}

void LogFileTest::firstRunCreatesSharedFoldersAndAPrivateFile() {
    QTemporaryDir root;
    const QString data = root.filePath("machine/Brindlewave");
    qputenv("BRINDLEWAVE_DATA_DIR", data.toUtf8());

    MessageCapture capture;
    openLogFile("brindle_client");
    const long long before = logfile::steadyMilliseconds();
    logLine("hello ", 7, ' ', std::string("world"));
    const long long after = logfile::steadyMilliseconds();

    const QString logs = data + "/logs";
    QCOMPARE(modeOf(data) & 07777, mode_t(01777));
    QCOMPARE(modeOf(logs) & 07777, mode_t(01777));
    const QStringList files = logFiles(logs);
    QCOMPARE(files.size(), 1);
    QVERIFY(
        QRegularExpression("^brindle_client_\\d{4}(_\\d\\d){5}\\.txt$").match(files[0]).hasMatch());
    const QString path = logs + "/" + files[0];
    QCOMPARE(modeOf(path) & 0777, mode_t(0600));

    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString content = QString::fromUtf8(file.readAll());
    // The announcement goes to the debug channel only: the file did not exist yet.
    QVERIFY(!content.contains("log to file"));
    QVERIFY(capture.contains("log to file:  " + path));

    const QRegularExpressionMatch line =
        QRegularExpression("^(-?\\d+)  hello 7 world  tests/tst_logfile\\.cpp  (\\d+)\\n$")
            .match(content);
    QVERIFY2(line.hasMatch(), qPrintable(content));
    const long long stamp = line.captured(1).toLongLong();
    QVERIFY(stamp >= before && stamp <= after);
    QVERIFY(capture.contains("hello  7   world tests/tst_logfile.cpp " + line.captured(2)));
}

void LogFileTest::linkPlantedAtTheFileNameIsNotFollowed() {
    QTemporaryDir root;
    const QString data = root.filePath("data");
    QVERIFY(QDir().mkpath(data + "/logs"));
    qputenv("BRINDLEWAVE_DATA_DIR", data.toUtf8());

    const QString victim = root.filePath("victim.txt");
    QFile target(victim);
    QVERIFY(target.open(QIODevice::WriteOnly));
    target.write("keep me");
    target.close();

    // The name holds the current second: plant links for every second the call may fall in.
    const platform::WallClock now = platform::localTime();
    for (int second = 0; second < 60; ++second) {
        const QString name = QString::fromStdString(logfile::fileName(
            "brindle_client", now.year, now.month, now.day, now.hour, now.minute, second));
        QVERIFY(QFile::link(victim, data + "/logs/" + name));
    }

    openLogFile("brindle_client");
    logLine("written through a link");

    QVERIFY(target.open(QIODevice::ReadOnly));
    QCOMPARE(target.readAll(), QByteArray("keep me"));
    if (platform::localTime().minute == now.minute)
        QVERIFY(logStream && logStream->fail());
}

void LogFileTest::unusableFolderIsReportedAndTheProgramGoesOn() {
    QTemporaryDir root;
    const QString plainFile = root.filePath("not-a-folder");
    QFile file(plainFile);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    qputenv("BRINDLEWAVE_DATA_DIR", (plainFile + "/data").toUtf8());
    // Without a folder the name alone is opened, that is in the working directory.
    const QString workingDirectory = QDir::currentPath();
    QVERIFY(QDir::setCurrent(root.path()));

    MessageCapture capture;
    openLogFile("brindle_client");
    logLine("still running");
    QDir::setCurrent(workingDirectory);

    QVERIFY(capture.contains("FAIL create logs:"));
    QVERIFY(capture.contains("still running"));
    const QStringList files = logFiles(root.path());
    QCOMPARE(files.size(), 1);
    QFile log(root.filePath(files[0]));
    QVERIFY(log.open(QIODevice::ReadOnly));
    QVERIFY(log.readAll().contains("  still running  tests/tst_logfile.cpp  "));
}

QTEST_GUILESS_MAIN(LogFileTest)
#include "tst_logfile.moc"
