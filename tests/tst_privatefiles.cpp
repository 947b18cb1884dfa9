#include "logfile.h"

#include <QDateTime>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray path(const QString& name) {
    return QFile::encodeName(name);
}

mode_t modeOf(const QString& name) {
    struct stat info {};
    return stat(path(name).constData(), &info) == 0 ? info.st_mode & 07777 : mode_t(0);
}

QByteArray contents(const QString& name) {
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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

// Another local user plants files and folders in the shared data folder; the program must
// write nothing through them, say once that it has no log folder, and keep running.
class PrivateFilesTest : public QObject {
    Q_OBJECT

private slots:
    void nothingIsWrittenThroughPlantedFiles_data();
    void nothingIsWrittenThroughPlantedFiles();
};

void PrivateFilesTest::nothingIsWrittenThroughPlantedFiles_data() {
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

void PrivateFilesTest::nothingIsWrittenThroughPlantedFiles() {
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
    QTRY_VERIFY_WITH_TIMEOUT(contents(settings).contains("ROOM_GUID"), 30000);
    QCOMPARE(program.state(), QProcess::Running);
    program.terminate();
    QVERIFY(program.waitForFinished(10000));

    QCOMPARE(modeOf(settings), mode_t(0600));
    QCOMPARE(program.readAll().count("FAIL create logs:"), logFolderFails ? 1 : 0);
    QCOMPARE(contents(root.filePath("elsewhere/secret")), QByteArray("secret"));
    QCOMPARE(QDir(root.filePath("elsewhere")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             QStringList{"secret"});
    QVERIFY(!QFileInfo::exists(root.filePath("work/crashs")));
    // What was planted is left as it was; a log file of the program's own is private.
    const QString logs = root.filePath("data/logs/");
    const QStringList written = QDir(logs).entryList(QDir::Files);
    const bool ownLog = plant.isEmpty() && !logFolderFails;
    QCOMPARE(written.size(), ownLog ? 1 : written.size());
    for (const QString& name : written) {
        const QByteArray text = contents(logs + name);
        QVERIFY2(ownLog ? modeOf(logs + name) == 0600 && text.contains("SETTINGS:")
                        : text.isEmpty() || text == "secret",
                 qPrintable(name));
    }
}

QTEST_GUILESS_MAIN(PrivateFilesTest)
#include "tst_privatefiles.moc"
