#include "widgetglue.h"

WidgetGlue::WidgetGlue(QWidget* owner, QWidget* follower, QPoint offset)
    : QObject(owner), follower(follower), offset(offset) {
    // Queued, so that the follower appears only after the owner's own show has finished and
    // the window system has placed the owner.
    connect(this, SIGNAL(sigShow()), this, SLOT(afterShow()), Qt::QueuedConnection);
}

void WidgetGlue::setOffset(QPoint p) {
    offset = p;
}

void WidgetGlue::onShow() {
    emit sigShow();
}

void WidgetGlue::afterShow() {
    if (follower)
        follower->show();
}

void WidgetGlue::onHide() {
    if (follower)
        follower->hide();
}

void WidgetGlue::onMove(QPoint pos) {
    if (follower)
        follower->move(pos + offset);
}

void WidgetGlue::onClose() {
    if (follower)
        follower->close();
}
