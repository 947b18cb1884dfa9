#include "crashreporting.h"
#include "startup.h"
#include "support/messagecapture.h"
#include "tick_generator.h"

#include <QApplication>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <cstdint>
#include <cstdlib>
#include <sys/stat.h>
#include <thread>

namespace {

int deeper(int depth) {
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    return depth > 0 ? deeper(depth + 1) + frame[0] : 0;
}

struct Overflow : ITickHandler {
    void onTick(int64_t) override { deeper(1); }
};

// Runs in a child process: installs crash reporting, then crashes for real.
int crashChild(const QByteArray& how) {
    installCrashReporting();
    if (how == "abort")
        std::abort();
    if (how == "overflow on a tick thread") {
        Overflow handler;
        TickFlags flags;
        auto* state = new TickState;
        std::thread worker(tickWorkerThread, state, &handler);
        std::thread(tickGeneratorThread, &flags, state, 40).detach();
        worker.join();
    }
    volatile std::uintptr_t address = 16;
    *reinterpret_cast<volatile int*>(address) = 1;
    return 0;
}

QString executable() {
    return qEnvironmentVariable("BRINDLE_BINARY_DIR") + "/client/brindlewave";
}

} // namespace

class StartupTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void mediaLibraryLines();
    void crashLeavesAReport_data();
    void crashLeavesAReport();
    void startsWithAnUnusableDataFolder();
};

void StartupTest::mediaLibraryLines() {
    MessageCapture capture;
    logMediaLibrary(0x3D0764, "--enable-gpl --enable-libx264");
    const QStringList lines = capture.messagesOf(QtDebugMsg);
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines[0], QString(" LIBAV VERSION:  61 . 7"));
    QCOMPARE(lines[1], QString("FFMPEG CONFIGURATION:  --enable-gpl --enable-libx264"));
}

void StartupTest::crashLeavesAReport_data() {
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<QString>("signal");
    QTest::newRow("bad memory access") << QByteArray("segv") << "SIGSEGV";
    QTest::newRow("abort") << QByteArray("abort") << "SIGABRT";
    QTest::newRow("stack overflow on a tick thread")
        << QByteArray("overflow on a tick thread") << "SIGSEGV";
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

    const QString folder = data.filePath("crashs");
    struct stat info {};
    QCOMPARE(stat(QFile::encodeName(folder).constData(), &info), 0);
    QCOMPARE(info.st_mode & 07777, mode_t(01777));

    const QStringList reports = QDir(folder).entryList(QDir::Files);
    QCOMPARE(reports.size(), 1);
    QFile report(QDir(folder).filePath(reports[0]));
    QVERIFY(report.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(report.readAll());
    QVERIFY2(text.contains("Application: Brindlewave\n"), qPrintable(text));
    QVERIFY(text.contains("Version: 0.1\n"));
    QVERIFY(text.contains("(" + signal + ")"));
    QVERIFY(text.contains("Back trace:\n"));
    QVERIFY(text.section("Back trace:\n", 1).count('\n') >= 2);
}

void StartupTest::startsWithAnUnusableDataFolder() {
    QTemporaryDir root;
    QFile plainFile(root.filePath("not-a-folder"));
    QVERIFY(plainFile.open(QIODevice::WriteOnly));
    plainFile.close();

    QProcess program;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("BRINDLEWAVE_DATA_DIR", plainFile.fileName() + "/data");
    program.setProcessEnvironment(environment);
    program.setWorkingDirectory(root.path());
    program.setProcessChannelMode(QProcess::MergedChannels);
    program.start(executable(), QStringList());
    QVERIFY(program.waitForStarted());

    QByteArray output;
    QTRY_VERIFY_WITH_TIMEOUT((output += program.readAll()).contains("SETTINGS:"), 30000);
    QVERIFY(output.contains("FAIL create logs:"));
    QVERIFY(output.contains(" LIBAV VERSION: "));
    QCOMPARE(program.state(), QProcess::Running);

    program.terminate();
    QVERIFY(program.waitForFinished(10000));
}

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsSet("BRINDLE_CRASH_CHILD"))
        return crashChild(qgetenv("BRINDLE_CRASH_CHILD"));
    QApplication application(argc, argv);
    StartupTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_startup.moc"
