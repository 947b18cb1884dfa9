#include "mouseinput.h"

#include <QCoreApplication>
#include <QCursor>
#include <QDeadlineTimer>
#include <QMouseEvent>

void sendMouse(QWidget* widget, QEvent::Type type, QPoint local, Qt::MouseButton button,
               Qt::MouseButtons buttons) {
    QMouseEvent event(type, QPointF(local), QPointF(widget->mapToGlobal(local)), button, buttons,
                      Qt::NoModifier);
    QCoreApplication::sendEvent(widget, &event);
}

bool placeCursor(QPoint global) {
    QCursor::setPos(global);
    QDeadlineTimer deadline(5000);
    while (QCursor::pos() != global) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}
