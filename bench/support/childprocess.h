#pragma once

#include <QProcess>
#include <QStringList>

// The bench program run again with `arguments`, as a process of its own that draws a scene or a
// clock, so that its work is counted to no sender; given `settleMs` to show before the
// measurement goes on, and killed when it goes out of scope.
class ChildProcess {
public:
    ChildProcess(const QStringList& arguments, int settleMs);
    ~ChildProcess();

private:
    QProcess process;
};
