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
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

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

// The names the program may give its log file when started within the next half minute.
QStringList logNamesAhead() {
    QStringList names;
    for (int second = 0; second < 30; ++second) {
        const QDateTime at = QDateTime::currentDateTime().addSecs(second);
        names << QString::fromStdString(logfile::fileName(
            "brindle_client", at.date().year(), at.date().month(), at.date().day(),
            at.time().hour(), at.time().minute(), at.time().second()));
    }
    return names;
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
    void nothingIsWrittenThroughPlantedFiles_data();
    void nothingIsWrittenThroughPlantedFiles();
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

// Another local user plants files and folders in the shared data folder; the program must
// write nothing through them, say once that it has no log folder, and keep running.
void StartupTest::nothingIsWrittenThroughPlantedFiles_data() {
    QTest::addColumn<QString>("plant"); // run in the test's folder, $names: the log names ahead
    QTest::addColumn<QString>("dataFolder");
    QTest::addColumn<bool>("logFolderFails");
    QTest::newRow("nothing planted") << ""
                                     << "data" << false;
    QTest::newRow("log files of another user")
        << "cd data/logs && touch $names && chmod 666 $names && chown 65534 $names"
        << "data" << false;
    QTest::newRow("hard links as log files")
        << "for n in $names; do ln elsewhere/secret data/logs/$n; done"
        << "data" << false;
    QTest::newRow("symbolic links as folders")
        << "rmdir data/logs && ln -s ../elsewhere data/logs && ln -s ../elsewhere data/crashs"
           " && chown -h 65534 data/logs data/crashs"
        << "data" << true;
    QTest::newRow("log folder of another user") << "chmod 777 data/logs && chown 65534 data/logs"
                                                << "data" << true;
    QTest::newRow("no data folder") << ""
                                    << "elsewhere/secret/data" << true;
}

void StartupTest::nothingIsWrittenThroughPlantedFiles() {
    QFETCH(QString, plant);
    QFETCH(QString, dataFolder);
    QFETCH(bool, logFolderFails);
    if (geteuid() != 0 && plant.contains("chown"))
        QSKIP("only root can plant files of another user");
    QTemporaryDir root;
    const QString setUp = "cd '" + root.path() +
                          "' && mkdir -p data/logs elsewhere work && chmod 1777 data/logs && "
                          "chmod 777 elsewhere && printf secret >elsewhere/secret && names='" +
                          logNamesAhead().join(' ') + "' && ";
    QCOMPARE(QProcess::execute("sh", {"-ec", setUp + (plant.isEmpty() ? "true" : plant)}), 0);

    QProcess program;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("BRINDLEWAVE_DATA_DIR", root.filePath(dataFolder));
    environment.insert("XDG_CONFIG_HOME", root.filePath("config"));
    environment.insert("QT_QPA_PLATFORM", "offscreen");
    program.setProcessEnvironment(environment);
    program.setWorkingDirectory(root.filePath("work"));
    program.setProcessChannelMode(QProcess::MergedChannels);
    program.start(qEnvironmentVariable("BRINDLE_BINARY_DIR") + "/client/brindlewave",
                  QStringList());
    const QString settings = root.filePath("config/Myrtlebrook/Brindlewave.conf");
    QTRY_VERIFY_WITH_TIMEOUT(contentOf(settings).contains("ROOM_GUID"), 30000);
    QCOMPARE(program.state(), QProcess::Running);
    program.terminate();
    QVERIFY(program.waitForFinished(10000));

    QCOMPARE(modeOf(settings), mode_t(0600));
    QCOMPARE(program.readAll().count("FAIL create logs:"), logFolderFails ? 1 : 0);
    QCOMPARE(contentOf(root.filePath("elsewhere/secret")), QByteArray("secret"));
    QCOMPARE(QDir(root.filePath("elsewhere")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             QStringList{"secret"});
    QVERIFY(!QFileInfo::exists(root.filePath("work/crashs")));
    // What was planted is left as it was; the program's own log is private, in the log folder
    // or, where it has none, in its working directory.
    const QString ownLogIn = logFolderFails ? "work/" : plant.isEmpty() ? "data/logs/" : "";
    for (const QString folder : {"data/logs/", "work/"}) {
        const QStringList written = QDir(root.filePath(folder)).entryList(QDir::Files);
        QVERIFY(folder != ownLogIn || written.size() == 1);
        for (const QString& name : written) {
            const QString file = root.filePath(folder + name);
            const QByteArray text = contentOf(file);
            QVERIFY2(folder == ownLogIn ? modeOf(file) == 0600 && text.contains("SETTINGS:")
                                        : text.isEmpty() || text == "secret",
                     qPrintable(file));
        }
    }
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
