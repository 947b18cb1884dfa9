#include "childprocess.h"

#include "measurement.h"

#include <QCoreApplication>

ChildProcess::ChildProcess(const QStringList& arguments, int settleMs) {
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(QCoreApplication::applicationFilePath(), arguments);
    process.waitForStarted();
    turnEventLoop(settleMs);
}

ChildProcess::~ChildProcess() {
    process.kill();
    process.waitForFinished();
}
