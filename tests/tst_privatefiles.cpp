#include "logfile.h"

#include <QDateTime>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const uid_t otherUser = 65534;

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
    QTest::addColumn<QString>("plant");
    QTest::addColumn<bool>("logFolderFails");
    QTest::newRow("nothing planted") << "" << false;
    QTest::newRow("log files of another user") << "foreign files" << false;
    QTest::newRow("hard links as log files") << "hard links" << false;
    QTest::newRow("symbolic links as folders") << "symlinked folders" << true;
    QTest::newRow("log folder of another user") << "foreign folder" << true;
    QTest::newRow("no data folder") << "no data folder" << true;
}

void PrivateFilesTest::nothingIsWrittenThroughPlantedFiles() {
    QFETCH(QString, plant);
    QFETCH(bool, logFolderFails);
    if (geteuid() != 0 && plant.startsWith("foreign"))
        QSKIP("only root can plant files of another user");
    QTemporaryDir root;
    QString data = root.filePath("data");
    const QString logs = data + "/logs";
    const QString elsewhere = root.filePath("elsewhere");
    const QString secret = elsewhere + "/secret";
    QVERIFY(QDir().mkpath(logs) && QDir().mkpath(elsewhere) &&
            QDir().mkpath(root.filePath("work")));
    QVERIFY(chmod(path(logs).constData(), 01777) == 0 &&
            chmod(path(elsewhere).constData(), 0777) == 0);
    QFile secretFile(secret);
    QVERIFY(secretFile.open(QIODevice::WriteOnly) && secretFile.write("secret") == 6);
    secretFile.close();
    const QStringList names = logNamesAhead();
    for (const QString& name : names) {
        const QByteArray planted = path(logs + "/" + name);
        if (plant == "foreign files") {
            QFile file(logs + "/" + name);
            QVERIFY(file.open(QIODevice::WriteOnly));
            QVERIFY(chmod(planted.constData(), 0666) == 0 &&
                    chown(planted.constData(), otherUser, otherUser) == 0);
        } else if (plant == "hard links") {
            QVERIFY(link(path(secret).constData(), planted.constData()) == 0);
        }
    }
    if (plant == "symlinked folders") {
        QVERIFY(QDir(logs).removeRecursively());
        for (const char* name : {"/logs", "/crashs"}) {
            QVERIFY(symlink(path(elsewhere).constData(), path(data + name).constData()) == 0);
            QVERIFY(geteuid() != 0 ||
                    lchown(path(data + name).constData(), otherUser, otherUser) == 0);
        }
    } else if (plant == "foreign folder") {
        QVERIFY(chmod(path(logs).constData(), 0777) == 0 &&
                chown(path(logs).constData(), otherUser, otherUser) == 0);
    } else if (plant == "no data folder") {
        data = secret + "/data";
    }

    QProcess program;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("BRINDLEWAVE_DATA_DIR", data);
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
    const QByteArray output = program.readAll();
    QCOMPARE(output.count("FAIL create logs:"), logFolderFails ? 1 : 0);
    QCOMPARE(contents(secret), QByteArray("secret"));
    QCOMPARE(QDir(elsewhere).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
             QStringList{"secret"});
    QVERIFY(!QFileInfo::exists(root.filePath("work/crashs")));
    const QStringList written = QDir(logs).entryList(QDir::Files);
    if (plant.isEmpty()) {
        QCOMPARE(written.size(), 1);
        QCOMPARE(modeOf(logs + "/" + written[0]), mode_t(0600));
        QVERIFY(contents(logs + "/" + written[0]).contains("SETTINGS:"));
    }
    for (const QString& name : names)
        QVERIFY(plant != "foreign files" || QFileInfo(logs + "/" + name).size() == 0);
}

QTEST_GUILESS_MAIN(PrivateFilesTest)
#include "tst_privatefiles.moc"
