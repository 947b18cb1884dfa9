#include "transparentlabel.h"

#include "logfile.h"

#include <QMouseEvent>
#include <QtGlobal>

TransparentLabel::TransparentLabel(QWidget* parent) : QLabel(parent) {}

void TransparentLabel::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton) {
        pressed = true;
        pressPos = event->pos();
    }
}

void TransparentLabel::mouseReleaseEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton)
        pressed = false;
}

void TransparentLabel::mouseMoveEvent(QMouseEvent* event) {
    if (pressed) {
        QPoint p = mapToParent(event->pos() - pressPos);
        const QRect bounds = parentWidget() ? parentWidget()->geometry() : QRect(p, size());
        p.setX(qMin(p.x(), bounds.x() + bounds.width() - edgeDistance));
        p.setX(qMax(p.x(), bounds.x()));
        p.setY(qMin(p.y(), bounds.y() + bounds.height() - edgeDistance));
        p.setY(qMax(p.y(), bounds.y()));
        move(p);
    } else {
        logLine("change ", x(), "x", y());
    }
    QLabel::mouseMoveEvent(event);
}
