#include "configreader.h"
#include "crashreporting.h"
#include "startup.h"
#include "support/messagecapture.h"
#include "tick_generator.h"

extern "C" {
#include <libavformat/version.h>
}

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

} // namespace

// What the program sets up as it starts: config.ini, the log file, crash reports.
class StartupTest : public QObject {
    Q_OBJECT

private slots:
    void configPairs_data() {
        // null: no file; "|fifo", "|folder": one of those in the file's place
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("key");
        // "default" where the key is not found, "unread" where the file is not read at all
        QTest::addColumn<QString>("value");
        const auto row = [](const char* name, QByteArray content, QString key, QString value) {
            QTest::newRow(name) << content << key << value;
        };
        row("blanks and case", "  BitRate =  2000000  ", "bitrate", "2000000");
        row("tabs and CR", "\tfps\t=\t30\r\nbitrate=1\r\n", "fps", "30");
        row("first occurrence wins", "FPS = 30\nfps=50\n", "fps", "30");
        row("section and blank lines", "[config]\n\n \t\nfps=7", "fps", "7");
        row("empty value", "codec=\n", "codec", "default");
        row("empty key", "=x\n", "", "default");
        row("comment", "# bitrate=5\n", "bitrate", "default");
        row("indented comment", "   # fps=5\n", "fps", "default");
        row("semicolon is no comment", " ;bitrate=5", ";bitrate", "5");
        row("no inline comment", "framesize = 1280x720 # small", "framesize", "1280x720 # small");
        row("first equals splits", "a=b=c", "a", "b=c");
        row("quotes kept", "codec = \"libx264\"", "codec", "\"libx264\"");
        row("no separator", "fps 25", "fps", "default");
        row("empty file", "", "fps", "default");
        row("Notepad's byte-order mark", "\xEF\xBB\xBF" + QByteArray("fps=30\n"), "fps", "30");
        row("64 KiB", "fps=30" + QByteArray(64 * 1024 - 6, '\n'), "fps", "30");
        row("past 64 KiB", "fps=30" + QByteArray(64 * 1024 - 5, '\n'), "fps", "unread");
        row("no file", QByteArray(), "fps", "unread");
        row("pipe", "|fifo", "fps", "unread");
        row("folder", "|folder", "fps", "unread");
    }

    void configPairs() {
        QFETCH(QByteArray, content);
        QFETCH(QString, key);
        QFETCH(QString, value);
        QTemporaryDir folder;
        QFile file(folder.filePath("config.ini"));
        const QByteArray path = QFile::encodeName(file.fileName());
        if (content == "|fifo")
            QCOMPARE(mkfifo(path, 0600), 0);
        else if (content == "|folder")
            QCOMPARE(mkdir(path, 0700), 0);
        else
            QVERIFY(content.isNull() ||
                    (file.open(QIODevice::WriteOnly) && file.write(content) >= 0));
        file.close();
        MessageCapture capture;
        ConfigReader reader;
        // The name is taken relative to the executable's folder.
        const QDir executableFolder(QCoreApplication::applicationDirPath());
        const QString name = executableFolder.relativeFilePath(file.fileName());
        QCOMPARE(reader.read(name.toStdString()), value != "unread");
        QCOMPARE(capture.contains("fail open:  " + executableFolder.filePath(name)),
                 value == "unread");
        value = value == "unread" ? "default" : value;
        QCOMPARE(reader.value(key.toStdString(), "default"), value);
        QVERIFY(value == "default" ||
                !capture.messages().filter("[config] ").filter(value).isEmpty());
        // A file that cannot be read is reported and leaves what was read before.
        QVERIFY(!reader.read("no-such-config.ini"));
        QCOMPARE(reader.value(key.toStdString(), "default"), value);
    }

    // Another local user plants files and folders in the shared data folder; the program must
    // write nothing through them, say once that it has no log folder, and keep running. On a fresh
    // machine it makes the data and log folders, shared by all users, and a private log.
    void nothingIsWrittenThroughPlantedFiles_data() {
        // plant: run in the test's folder, where data/logs is made for it first; $names holds
        // the names the log may get within the next half minute.
        QTest::addColumn<QString>("plant");
        QTest::addColumn<QString>("dataFolder");
        QTest::addColumn<bool>("logFolderFails");
        const auto row = [](const char* name, QString plant, QString dataFolder, bool fails) {
            QTest::newRow(name) << plant << dataFolder << fails;
        };
        row("fresh machine", "", "data", false);
        row("log files of another user",
            "cd data/logs && touch $names && chmod 666 $names && chown 65534 $names", "data",
            false);
        row("hard links as log files", "for n in $names; do ln elsewhere/secret data/logs/$n; done",
            "data", false);
        row("symbolic links as folders",
            "rmdir data/logs && ln -s ../elsewhere data/logs && ln -s ../elsewhere data/crashs && "
            "chown -h 65534 data/logs data/crashs",
            "data", true);
        row("log folder of another user", "chmod 777 data/logs && chown 65534 data/logs", "data",
            true);
        row("no data folder", "", "elsewhere/secret/data", true);
    }

    void nothingIsWrittenThroughPlantedFiles() {
        QFETCH(QString, plant);
        QFETCH(QString, dataFolder);
        QFETCH(bool, logFolderFails);
        if (geteuid() != 0 && plant.contains("chown"))
            QSKIP("only root can plant files of another user");
        // Its log and settings name the folder: written as UTF-8.
        QTemporaryDir root(QDir::tempPath() + "/brindle \u00e9-XXXXXX");
        const QString setUp = "cd \"$1\" && mkdir -p elsewhere work && chmod 777 elsewhere && "
                              "printf secret >elsewhere/secret && names=$(for s in $(seq 0 29); "
                              "do date -d \"+$s sec\" +brindle_client_%Y_%m_%d_%H_%M_%S.txt; done)";
        const QString made = " && mkdir -p data/logs && chmod 1777 data/logs && ";
        const QString script = setUp + (plant.isEmpty() ? "" : made + plant);
        QCOMPARE(QProcess::execute("sh", {"-ec", script, "sh", root.path()}), 0);

        QProcess program;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("BRINDLEWAVE_DATA_DIR", root.filePath(dataFolder));
        environment.insert("XDG_CONFIG_HOME", root.filePath("config"));
        environment.insert("QT_QPA_PLATFORM", "offscreen");
        program.setProcessEnvironment(environment);
        program.setWorkingDirectory(root.filePath("work"));
        program.setProcessChannelMode(QProcess::MergedChannels);
        QElapsedTimer clock;
        clock.start();
        program.start(qEnvironmentVariable("BRINDLE_BINARY_DIR") + "/client/brindlewave",
                      QStringList());
        const QString settings = root.filePath("config/Myrtlebrook/Brindlewave.conf");
        QTRY_VERIFY_WITH_TIMEOUT(contentOf(settings).contains("ROOM_GUID"), 30000);
        QCOMPARE(program.state(), QProcess::Running);
        program.terminate();
        QVERIFY(program.waitForFinished(10000));
        const qint64 started = clock.msecsSinceReference(), ended = started + clock.elapsed();

        QCOMPARE(modeOf(settings), mode_t(0600));
        const QString output = QString::fromUtf8(program.readAll());
        QCOMPARE(output.count("FAIL create logs:"), logFolderFails ? 1 : 0);
        // The media library's version as its header gives it, on the debug channel.
        QVERIFY2(output.contains(QString(" LIBAV VERSION:  %1 . %2\nFFMPEG CONFIGURATION:  --")
                                     .arg(LIBAVFORMAT_VERSION_MAJOR)
                                     .arg(LIBAVFORMAT_VERSION_MINOR)),
                 qPrintable(output));
        QCOMPARE(contentOf(root.filePath("elsewhere/secret")), QByteArray("secret"));
        QCOMPARE(
            QDir(root.filePath("elsewhere")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
            QStringList{"secret"});
        QVERIFY(!QFileInfo::exists(root.filePath("work/crashs")));
        const bool fresh = plant.isEmpty() && !logFolderFails;
        QVERIFY(!fresh || (modeOf(root.filePath("data")) == 01777 &&
                           modeOf(root.filePath("data/logs")) == 01777));
        // What was planted is left as it was; the program's own log is private, in the log folder
        // or, where it has none, in its working directory.
        const QString ownLogIn = logFolderFails ? "work/" : fresh ? "data/logs/" : "";
        for (const QString folder : {"data/logs/", "work/"}) {
            const QStringList written = QDir(root.filePath(folder)).entryList(QDir::Files);
            QVERIFY(folder != ownLogIn || written.size() == 1);
            for (const QString& name : written) {
                const QByteArray text = contentOf(root.filePath(folder + name));
                QVERIFY2(folder == ownLogIn || text.isEmpty() || text == "secret",
                         qPrintable(name));
            }
        }
        if (ownLogIn.isEmpty())
            return;
        const QString name = QDir(root.filePath(ownLogIn)).entryList(QDir::Files).value(0);
        const QString text = QString::fromUtf8(contentOf(root.filePath(ownLogIn + name)));
        QCOMPARE(modeOf(root.filePath(ownLogIn + name)), mode_t(0600));
        // The log's name is announced on the debug channel only: the file did not exist yet.
        QVERIFY(output.contains("log to file:  ") && output.contains(name) &&
                !text.contains("log to file"));
        // Each line's items run together between the steady clock and the source's place in the
        // repository.
        const QRegularExpressionMatch line =
            QRegularExpression("^(\\d+)  SETTINGS:" + QRegularExpression::escape(settings) +
                                   "  client/mainwindow\\.cpp  \\d+$",
                               QRegularExpression::MultilineOption)
                .match(text);
        const qint64 at = line.captured(1).toLongLong();
        QVERIFY2(line.hasMatch() && at >= started && at <= ended, qPrintable(text));
    }

    void crashLeavesAReport_data() {
        QTest::addColumn<QByteArray>("how");
        QTest::addColumn<QString>("signal");
        QTest::newRow("stack overflow on a tick thread") << QByteArray("overflow") << "SIGSEGV";
        QTest::newRow("abort") << QByteArray("abort") << "SIGABRT";
    }

    void crashLeavesAReport() {
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
};

// Recurses until the stack is gone; the test on `depth` only hides that from the compiler.
int deeper(int depth) {
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    return depth > 0 ? deeper(depth + 1) + frame[0] : 0;
}

struct Overflow : ITickHandler {
    void onTick(const Tick&) override { deeper(1); }
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
        std::thread(tickGeneratorThread, &flags, state, 40).detach();
        std::thread(tickWorkerThread, state, &handler).join();
    }
    QCoreApplication application(argc, argv);
    StartupTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_startup.moc"
