#include "crashreporting.h"
#include "startup.h"
#include "support/messagecapture.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <cstdint>
#include <cstdlib>
#include <sys/stat.h>

class StartupTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void mediaLibraryLines();
    void crashLeavesAReport_data();
    void crashLeavesAReport();
};

void StartupTest::mediaLibraryLines() {
    MessageCapture capture;
    logMediaLibrary(0x3D0764, "--enable-gpl --enable-libx264");
    QCOMPARE(capture.messagesOf(QtDebugMsg),
             QStringList({" LIBAV VERSION:  61 . 7",
                          "FFMPEG CONFIGURATION:  --enable-gpl --enable-libx264"}));
}

void StartupTest::crashLeavesAReport_data() {
    QTest::addColumn<QByteArray>("how");
    QTest::addColumn<QString>("signal");
    QTest::newRow("bad memory access") << QByteArray("segv") << "SIGSEGV";
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
    struct stat info {};
    QCOMPARE(stat(QFile::encodeName(folder.path()).constData(), &info), 0);
    QCOMPARE(info.st_mode & 07777, mode_t(01777));
    const QStringList reports = folder.entryList(QDir::Files);
    QCOMPARE(reports.size(), 1);
    QFile report(folder.filePath(reports[0]));
    QVERIFY(report.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(report.readAll());
    QVERIFY2(text.contains("Application: Brindlewave\nVersion: 0.1\n"), qPrintable(text));
    QVERIFY(text.contains("(" + signal + ")"));
    QVERIFY(text.section("Back trace:\n", 1).count('\n') >= 2);
}

int main(int argc, char** argv) {
    // The child installs crash reporting, then crashes for real.
    const QByteArray crash = qgetenv("BRINDLE_CRASH_CHILD");
    if (!crash.isEmpty()) {
        installCrashReporting();
        if (crash == "abort")
            std::abort();
        volatile std::uintptr_t address = 16;
        *reinterpret_cast<volatile int*>(address) = 1;
    }
    QCoreApplication application(argc, argv);
    StartupTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_startup.moc"
