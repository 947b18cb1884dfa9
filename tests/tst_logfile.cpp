#include "logfile.h"
#include "support/messagecapture.h"

#include <QDateTime>
#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>

namespace {

mode_t modeOf(const QString& path) {
    struct stat info {};
    return lstat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_mode & 07777 : 0;
}

QStringList logFiles(const QString& folder) {
    return QDir(folder).entryList({"brindle_client_*.txt"}, QDir::Files | QDir::System);
}

QByteArray contentOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class LogFileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void firstRunCreatesSharedFoldersAndAPrivateFile();
    void linkPlantedAtTheFileNameIsNotFollowed();
    void unusableFolderIsReportedAndTheProgramGoesOn();
};

void LogFileTest::firstRunCreatesSharedFoldersAndAPrivateFile() {
    QTemporaryDir root;
    const QString data = root.filePath("machine/Brindlewave");
    qputenv("BRINDLEWAVE_DATA_DIR", data.toUtf8());

    MessageCapture capture;
    openLogFile("brindle_client");
    const long long before = logfile::steadyMilliseconds();
    logLine("hello ", 7, ' ', std::string("world"), QString::fromUtf8(" \xc3\xa9"));
    const long long after = logfile::steadyMilliseconds();

    const QString logs = data + "/logs";
    QCOMPARE(modeOf(data), mode_t(01777));
    QCOMPARE(modeOf(logs), mode_t(01777));
    const QStringList files = logFiles(logs);
    QCOMPARE(files.size(), 1);
    QVERIFY2(
        QRegularExpression("^brindle_client_\\d{4}(_\\d\\d){5}\\.txt$").match(files[0]).hasMatch(),
        qPrintable(files[0]));
    const QString path = logs + "/" + files[0];
    QCOMPARE(modeOf(path) & 0777, mode_t(0600));

    // The announcement goes to the debug channel only: the file did not exist yet.
    const QString content = QString::fromUtf8(contentOf(path));
    QVERIFY(capture.contains("log to file:  " + path));
    const QRegularExpressionMatch line =
        QRegularExpression("^(-?\\d+)  hello 7 world \xc3\xa9  tests/tst_logfile\\.cpp  (\\d+)\\n$")
            .match(content);
    QVERIFY2(line.hasMatch(), qPrintable(content));
    QVERIFY(line.captured(1).toLongLong() >= before && line.captured(1).toLongLong() <= after);
    QVERIFY(
        capture.contains("hello  7   world  \xc3\xa9 tests/tst_logfile.cpp " + line.captured(2)));
}

void LogFileTest::linkPlantedAtTheFileNameIsNotFollowed() {
    QTemporaryDir root;
    const QString logs = root.filePath("data/logs");
    QVERIFY(QDir().mkpath(logs));
    qputenv("BRINDLEWAVE_DATA_DIR", root.filePath("data").toUtf8());
    const QString victim = root.filePath("victim.txt");
    QFile target(victim);
    QVERIFY(target.open(QIODevice::WriteOnly) && target.write("keep me") == 7);
    target.close();

    // The name holds the current second: plant links for every second the call may fall in.
    const QDateTime now = QDateTime::currentDateTime();
    for (int second = 0; second < 60; ++second)
        QVERIFY(QFile::link(victim, logs + "/brindle_client_" + now.toString("yyyy_MM_dd_hh_mm_") +
                                        QString::asprintf("%02d.txt", second)));

    openLogFile("brindle_client");
    logLine("written through a link");
    QCOMPARE(contentOf(victim), QByteArray("keep me"));
    if (QDateTime::currentDateTime().time().minute() == now.time().minute())
        QVERIFY(logStream && logStream->fail());
}

void LogFileTest::unusableFolderIsReportedAndTheProgramGoesOn() {
    QTemporaryDir root;
    QFile plainFile(root.filePath("not-a-folder"));
    QVERIFY(plainFile.open(QIODevice::WriteOnly));
    plainFile.close();
    qputenv("BRINDLEWAVE_DATA_DIR", (plainFile.fileName() + "/data").toUtf8());
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
    QVERIFY(
        contentOf(root.filePath(files[0])).contains("  still running  tests/tst_logfile.cpp  "));
}

QTEST_GUILESS_MAIN(LogFileTest)
#include "tst_logfile.moc"
