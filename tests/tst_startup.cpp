#include "configreader.h"
#include "crashreporting.h"
#include "logfile.h"
#include "startup.h"
#include "support/messagecapture.h"
#include "tick_generator.h"

#include <QDateTime>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>
#include <thread>
#include <sys/stat.h>

namespace {

mode_t modeOf(const QString& path) {
    struct stat info {};
    return lstat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_mode & 07777 : 0;
}

QByteArray contentOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList logFiles(const QString& folder) {
    return QDir(folder).entryList({"brindle_client_*.txt"}, QDir::Files | QDir::System);
}

} // namespace

// What the program sets up as it starts: config.ini, the log file, crash reports.
class StartupTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void configPairs_data();
    void configPairs();
    void mediaLibraryLines();
    void firstRunCreatesSharedFoldersAndAPrivateLog();
    void linkPlantedAtTheLogNameIsNotFollowed();
    void unusableDataFolderIsReportedAndTheProgramGoesOn();
    void crashLeavesAReport_data();
    void crashLeavesAReport();
};

void StartupTest::configPairs_data() {
    QTest::addColumn<QByteArray>("content"); // null: no file
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value"); // "default" where the key is not found
    const struct {
        const char* name;
        QByteArray content;
        const char* key;
        const char* value;
    } rows[] = {
        {"blanks and case", "  BitRate =  2000000  ", "bitrate", "2000000"},
        {"tabs and CR", "\tfps\t=\t30\r\nbitrate=1\r\n", "fps", "30"},
        {"first occurrence wins", "FPS = 30\nfps=50\n", "fps", "30"},
        {"section and blank lines", "[config]\n\n \t\nfps=7", "fps", "7"},
        {"empty value", "codec=\n", "codec", "default"},
        {"empty key", "=x\n", "", "default"},
        {"comment", "# bitrate=5\n", "bitrate", "default"},
        {"indented comment", "   # fps=5\n", "fps", "default"},
        {"semicolon is no comment", " ;bitrate=5", ";bitrate", "5"},
        {"no inline comment", "framesize = 1280x720 # small", "framesize", "1280x720 # small"},
        {"first equals splits", "a=b=c", "a", "b=c"},
        {"quotes kept", "codec = \"libx264\"", "codec", "\"libx264\""},
        {"no separator", "fps 25", "fps", "default"},
        {"empty file", "", "fps", "default"},
        {"no file", QByteArray(), "fps", "default"},
    };
    for (const auto& row : rows)
        QTest::newRow(row.name) << row.content << row.key << row.value;
}

void StartupTest::configPairs() {
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
    const QDir executableFolder(QCoreApplication::applicationDirPath());
    QCOMPARE(reader.read(executableFolder.relativeFilePath(file.fileName()).toStdString()),
             !content.isNull());
    QCOMPARE(reader.value(key.toStdString(), "default"), value);
    QVERIFY(value == "default" || !capture.messages().filter("[config] ").filter(value).isEmpty());
    // A file that cannot be read is reported and leaves what was read before.
    QVERIFY(!reader.read("no-such-config.ini"));
    QVERIFY(capture.contains("fail open:  " + executableFolder.filePath("no-such-config.ini")));
    QCOMPARE(reader.value(key.toStdString(), "default"), value);
}

void StartupTest::mediaLibraryLines() {
    MessageCapture capture;
    logMediaLibrary(0x3D0764, "--enable-gpl --enable-libx264");
    QCOMPARE(capture.messagesOf(QtDebugMsg),
             QStringList({" LIBAV VERSION:  61 . 7",
                          "FFMPEG CONFIGURATION:  --enable-gpl --enable-libx264"}));
}

void StartupTest::firstRunCreatesSharedFoldersAndAPrivateLog() {
    QTemporaryDir root;
    const QString data = root.filePath("machine/Brindlewave");
    qputenv("BRINDLEWAVE_DATA_DIR", data.toUtf8());
    MessageCapture capture;
    openLogFile("brindle_client");
    const long long before = logfile::steadyMilliseconds();
    logLine("hello ", 7, ' ', std::string("world"), QString::fromUtf8(" \xc3\xa9"));
    const long long after = logfile::steadyMilliseconds();

    QCOMPARE(modeOf(data), mode_t(01777));
    QCOMPARE(modeOf(data + "/logs"), mode_t(01777));
    const QStringList files = logFiles(data + "/logs");
    QCOMPARE(files.size(), 1);
    QVERIFY2(
        QRegularExpression("^brindle_client_\\d{4}(_\\d\\d){5}\\.txt$").match(files[0]).hasMatch(),
        qPrintable(files[0]));
    const QString path = data + "/logs/" + files[0];
    QCOMPARE(modeOf(path) & 0777, mode_t(0600));
    // The announcement goes to the debug channel only: the file did not exist yet. In the file
    // the items run together, between the steady clock and the source's place in the repository.
    QVERIFY(capture.contains("log to file:  " + path));
    const QString content = QString::fromUtf8(contentOf(path));
    const QRegularExpressionMatch line =
        QRegularExpression("^(-?\\d+)  hello 7 world \xc3\xa9  tests/tst_startup\\.cpp  (\\d+)\\n$")
            .match(content);
    QVERIFY2(line.hasMatch(), qPrintable(content));
    QVERIFY(line.captured(1).toLongLong() >= before && line.captured(1).toLongLong() <= after);
    QVERIFY(
        capture.contains("hello  7   world  \xc3\xa9 tests/tst_startup.cpp " + line.captured(2)));
}

void StartupTest::linkPlantedAtTheLogNameIsNotFollowed() {
    QTemporaryDir root;
    const QString logs = root.filePath("data/logs");
    QVERIFY(QDir().mkpath(logs));
    qputenv("BRINDLEWAVE_DATA_DIR", root.filePath("data").toUtf8());
    QFile victim(root.filePath("victim.txt"));
    QVERIFY(victim.open(QIODevice::WriteOnly) && victim.write("keep me") == 7);
    victim.close();
    // The name holds the current second: plant links for every second the call may fall in.
    const QDateTime now = QDateTime::currentDateTime();
    for (int second = 0; second < 60; ++second)
        QVERIFY(victim.link(logs + now.toString("'/brindle_client_'yyyy_MM_dd_hh_mm_") +
                            QString::asprintf("%02d.txt", second)));
    openLogFile("brindle_client");
    logLine("written through a link");
    QCOMPARE(contentOf(victim.fileName()), QByteArray("keep me"));
    if (QDateTime::currentDateTime().time().minute() == now.time().minute())
        QVERIFY(logStream && logStream->fail());
}

void StartupTest::unusableDataFolderIsReportedAndTheProgramGoesOn() {
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
    QVERIFY(capture.contains("FAIL create logs:") && capture.contains("still running"));
    const QStringList files = logFiles(root.path());
    QCOMPARE(files.size(), 1);
    QVERIFY(
        contentOf(root.filePath(files[0])).contains("  still running  tests/tst_startup.cpp  "));
}

void StartupTest::crashLeavesAReport_data() {
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<QString>("signal");
    QTest::newRow("stack overflow on a tick thread") << QByteArray("overflow") << "SIGSEGV";
    QTest::newRow("abort") << QByteArray("abort") << "SIGABRT";
}

void StartupTest::crashLeavesAReport() {
    QFETCH(QByteArray, how);
    QFETCH(QString, signal);
    QTemporaryDir data;
    QProcess child;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("BRINDLEWAVE_DATA_DIR", data.path());
    environment.insert("BRINDLE_CRASH_CHILD", QString::fromLatin1(how));
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(), QStringList());
    QVERIFY(child.waitForFinished(30000));
    QCOMPARE(child.exitStatus(), QProcess::CrashExit);
    const QDir folder(data.filePath("crashs"));
    QCOMPARE(modeOf(folder.path()), mode_t(01777));
    const QStringList reports = folder.entryList(QDir::Files);
    QCOMPARE(reports.size(), 1);
    const QString text = QString::fromUtf8(contentOf(folder.filePath(reports[0])));
    QVERIFY2(text.contains("Application: Brindlewave\nVersion: 0.1\n"), qPrintable(text));
    QVERIFY(text.contains("(" + signal + ")"));
    QVERIFY(text.section("Back trace:\n", 1).count('\n') >= 2);
}

// Recurses until the stack is gone; the test on `depth` only hides that from the compiler.
int deeper(int depth) {
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    return depth > 0 ? deeper(depth + 1) + frame[0] : 0;
}

struct Overflow : ITickHandler {
    void onTick(int64_t) override { deeper(1); }
};

int main(int argc, char** argv) {
    // The child installs crash reporting, then crashes for real.
    const QByteArray crash = qgetenv("BRINDLE_CRASH_CHILD");
    if (!crash.isEmpty()) {
        installCrashReporting();
        if (crash == "abort")
            std::abort();
        Overflow handler;
        TickFlags flags;
        auto* state = new TickState;
        std::thread worker(tickWorkerThread, state, &handler);
        std::thread(tickGeneratorThread, &flags, state, 40).detach();
        worker.join();
    }
    QCoreApplication application(argc, argv);
    StartupTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_startup.moc"
