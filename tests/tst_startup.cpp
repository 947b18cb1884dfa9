#include "configreader.h"
#include "crashreporting.h"
#include "logfile.h"
#include "outwriter.h"
#include "startup.h"
#include "support/messagecapture.h"
#include "tick_generator.h"

extern "C" {
#include <libavformat/version.h>
}

#include <QtTest>
#include <csignal>
#include <sstream>
#include <sys/resource.h>
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
        // null: no file; "|COMMAND": what the command makes in the file's place
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
        row("comment", "# bitrate=5\n", "bitrate", "default");
        row("semicolon is no comment", " ;bitrate=5", ";bitrate", "5");
        row("no separator", "fps 25", "fps", "default");
        row("Notepad's byte-order mark", "\xEF\xBB\xBF" + QByteArray("fps=30\n"), "fps", "30");
        row("64 KiB", "fps=30" + QByteArray(64 * 1024 - 6, '\n'), "fps", "30");
        row("past 64 KiB", "fps=30" + QByteArray(64 * 1024 - 5, '\n'), "fps", "unread");
        row("no file", QByteArray(), "fps", "unread");
        row("pipe", "|mkfifo", "fps", "unread");
        row("folder", "|mkdir", "fps", "unread");
    }

    void configPairs() {
        QFETCH(QByteArray, content);
        QFETCH(QString, key);
        QFETCH(QString, value);
        QTemporaryDir folder;
        QFile file(folder.filePath("config.ini"));
        if (content.startsWith('|'))
            QCOMPARE(
                QProcess::execute("sh", {"-c", content.mid(1) + " \"$1\"", "sh", file.fileName()}),
                0);
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

    // Every user's runs log into the shared data folder and keep crash reports there, whoever
    // made it. Files and folders that another local user plants there are never written through:
    // a log name they hold gets a suffix, a folder they could empty is not used (said once), and
    // the program keeps running. Nothing is written into the working folder.
    void sharedFolders_data() {
        // plant: run in the test's folder, where data/logs is made for it first; $names holds
        // the names the log may get within the next half minute.
        QTest::addColumn<QString>("plant");
        QTest::addColumn<QString>("dataFolder");
        QTest::addColumn<bool>("anotherUserFirst"); // a real user's run makes the folders
        QTest::addColumn<QString>("used");          // the folders the runs use
        const auto row = [](const char* name, QString plant, QString dataFolder, bool another,
                            QString used) {
            QTest::newRow(name) << plant << dataFolder << another << used;
        };
        row("fresh machine", "", "data", false, "logs crashs");
        row("folders made by another user's run", "", "data", true, "logs crashs");
        row("log files of another user",
            "cd data/logs && touch $names && chmod 666 $names && chown 65534 $names", "data", false,
            "logs crashs");
        row("hard links as log files", "for n in $names; do ln elsewhere/secret data/logs/$n; done",
            "data", false, "logs crashs");
        row("symbolic links as folders",
            "rmdir data/logs && ln -s ../elsewhere data/logs && ln -s ../elsewhere data/crashs && "
            "chown -h 65534 data/logs data/crashs",
            "data", false, "");
        row("log folder that others could empty", "chmod 777 data/logs && chown 65534 data/logs",
            "data", false, "crashs");
        row("no data folder", "", "elsewhere/secret/data", false, "");
    }

    void sharedFolders() {
        QFETCH(QString, plant);
        QFETCH(QString, dataFolder);
        QFETCH(bool, anotherUserFirst);
        QFETCH(QString, used);
        if (geteuid() != 0 && (plant.contains("chown") || anotherUserFirst))
            QSKIP("only root can plant files of another user or run as one");
        // Its log and settings name the folder: written as UTF-8. Like /var/tmp, every user may
        // make the data folder in it.
        QTemporaryDir root(QDir::tempPath() + "/brindle \u00e9-XXXXXX");
        const QString setUp = "cd \"$1\" && chmod 1777 . && mkdir -p elsewhere work && chmod 777 "
                              "elsewhere && printf secret >elsewhere/secret && names=$(for s in "
                              "$(seq 0 29); do date -d \"+$s sec\" "
                              "+brindle_client_%Y_%m_%d_%H_%M_%S.txt; done)";
        const QString made = " && mkdir -p data/logs && chmod 1777 data/logs && ";
        const QString script = setUp + (plant.isEmpty() ? "" : made + plant);
        QCOMPARE(QProcess::execute("sh", {"-ec", script, "sh", root.path()}), 0);
        // The other user is made for the row and removed after it.
        const QString me = QFileInfo(root.path()).owner(),
                      other = QString("brindle%1").arg(getpid());
        const QStringList runners = anotherUserFirst ? QStringList{other, me} : QStringList{me};
        QVERIFY(!anotherUserFirst || QProcess::execute("useradd", {"-M", other}) == 0);
        const auto removeUser = qScopeGuard([&] {
            if (anotherUserFirst)
                QProcess::execute("userdel", {other});
        });

        QStringList logs;
        for (const QString& runner : runners) {
            QProcess program;
            QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
            environment.insert("BRINDLEWAVE_DATA_DIR", root.filePath(dataFolder));
            environment.insert("XDG_CONFIG_HOME", root.filePath("config-" + runner));
            environment.insert("QT_QPA_PLATFORM", "offscreen");
            program.setProcessEnvironment(environment);
            program.setWorkingDirectory(root.filePath("work"));
            program.setProcessChannelMode(QProcess::MergedChannels);
            QElapsedTimer clock;
            clock.start();
            const QString binary =
                qEnvironmentVariable("BRINDLE_BINARY_DIR") + "/client/brindlewave";
            program.start(runner == me ? binary : "setpriv",
                          runner == me ? QStringList()
                                       : QStringList{"--reuid=" + runner, "--regid=" + runner,
                                                     "--clear-groups", binary});
            const QString settings =
                root.filePath("config-" + runner + "/Myrtlebrook/Brindlewave.conf");
            QTRY_VERIFY_WITH_TIMEOUT(contentOf(settings).contains("ROOM_GUID"), 30000);
            QCOMPARE(program.state(), QProcess::Running);
            // A crash, to see where its report goes.
            kill(pid_t(program.processId()), SIGABRT);
            QVERIFY(program.waitForFinished(10000));
            const qint64 started = clock.msecsSinceReference(), ended = started + clock.elapsed();

            QCOMPARE(modeOf(settings), mode_t(0600));
            const QString output = QString::fromUtf8(program.readAll());
            QCOMPARE(output.count("FAIL create logs:"), used.contains("logs") ? 0 : 1);
            // The media library's version as its header gives it, on the debug channel.
            QVERIFY2(output.contains(QString(" LIBAV VERSION:  %1 . %2\nFFMPEG CONFIGURATION:  --")
                                         .arg(LIBAVFORMAT_VERSION_MAJOR)
                                         .arg(LIBAVFORMAT_VERSION_MINOR)),
                     qPrintable(output));
            // The log's name is announced on the debug channel only: the file did not exist yet.
            const QString log =
                QRegularExpression("log to file:  (.*) client/logfile").match(output).captured(1);
            if (log.isEmpty())
                continue;
            const QString text = QString::fromUtf8(contentOf(log));
            QVERIFY(QFileInfo(log).owner() == runner && modeOf(log) == 0600);
            QVERIFY(!text.contains("log to file"));
            // A name that another user's file holds, planted or an earlier run's, is not used.
            const QString first = QString(log).replace("_2.txt", ".txt");
            QCOMPARE(log.endsWith("_2.txt"), plant.contains("$names") || logs.contains(first));
            logs << log;
            // Each line's items run together between the steady clock and the source's place in
            // the repository.
            const QRegularExpressionMatch line =
                QRegularExpression("^(\\d+)  SETTINGS:" + QRegularExpression::escape(settings) +
                                       "  client/mainwindow\\.cpp  \\d+$",
                                   QRegularExpression::MultilineOption)
                    .match(text);
            const qint64 at = line.captured(1).toLongLong();
            QVERIFY2(line.hasMatch() && at >= started && at <= ended, qPrintable(text));
        }

        QCOMPARE(contentOf(root.filePath("elsewhere/secret")), QByteArray("secret"));
        QCOMPARE(
            QDir(root.filePath("elsewhere")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
            QStringList{"secret"});
        QVERIFY(QDir(root.filePath("work")).isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot));
        for (const QString folder : {"data", "data/logs", "data/crashs"})
            QVERIFY(!plant.isEmpty() || !used.contains("logs") ||
                    modeOf(root.filePath(folder)) == 01777);
        // What was planted is left as it was; every run has a private log of its own there.
        QCOMPARE(logs.size(), used.contains("logs") ? runners.size() : 0);
        for (const QFileInfo& file : QDir(root.filePath("data/logs")).entryInfoList(QDir::Files)) {
            const QByteArray text = contentOf(file.filePath());
            QVERIFY2(logs.contains(file.filePath()) || text.isEmpty() || text == "secret",
                     qPrintable(file.fileName()));
        }
        QStringList reporters;
        for (const QFileInfo& report :
             QDir(root.filePath("data/crashs")).entryInfoList({"crash_*"}))
            if (contentOf(report.filePath())
                    .contains("Application: Brindlewave\nVersion: 0.1\nSignal: 6 (SIGABRT)"))
                reporters << report.owner();
        reporters.sort();
        QCOMPARE(reporters, used.contains("crashs") ? runners : QStringList());
    }

    // The debug channel's copy of a log line goes to standard error, which session logs keep for
    // others to read: stream ids and passphrases stay in the private log file, and an option
    // whose name is misspelt is kept from both.
    void secretsStayInTheFile() {
        std::ostringstream file;
        logStream = &file;
        MessageCapture capture;
        StreamParams params{"srt://127.0.0.1:9?streamid=room7&pasphrase=top%20secret&latency=120",
                            "#!::u=alice"};
        QVERIFY(!OUTWriter().start(params));
        logStream = nullptr;
        QVERIFY2(
            file.str().find("hostPort=srt://127.0.0.1:9?streamid=room7&pasphrase=***&latency=120, "
                            "streamId=#!::u=alice, ") != std::string::npos,
            file.str().c_str());
        const QString debug = capture.messages().join('\n');
        QVERIFY2(
            debug.contains("hostPort= srt://127.0.0.1:9?streamid=***&pasphrase=***&latency=120 , "
                           "streamId= *** , ") &&
                !debug.contains("room7") && !debug.contains("alice"),
            qPrintable(debug));
    }

    // A stack overflow on a tick thread: the report is written on a stack of its own.
    void crashLeavesAReport() {
        QTemporaryDir data;
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("BRINDLEWAVE_DATA_DIR", data.path());
        environment.insert("BRINDLE_CRASH_CHILD", "overflow");
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(), QStringList());
        QVERIFY(child.waitForFinished(30000));
        QCOMPARE(child.exitStatus(), QProcess::CrashExit);
        const QDir folder(data.filePath("crashs"));
        const QStringList reports = folder.entryList(QDir::Files);
        QCOMPARE(reports.size(), 1);
        const QString text = QString::fromUtf8(contentOf(folder.filePath(reports[0])));
        QVERIFY2(text.contains("(SIGSEGV)") && text.section("Back trace:\n", 1).count('\n') >= 2,
                 qPrintable(text));
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
    // Crashes, of the test's children and of the program, leave reports and no core file.
    const rlimit noCoreFile{0, 0};
    setrlimit(RLIMIT_CORE, &noCoreFile);
    // The child installs crash reporting, then crashes for real.
    const QByteArray crash = qgetenv("BRINDLE_CRASH_CHILD");
    if (!crash.isEmpty()) {
        installCrashReporting();
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
