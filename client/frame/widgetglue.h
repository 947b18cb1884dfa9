#pragma once

#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QWidget>

// Makes one top-level window (the follower) follow another (the owner): the owner's event
// handlers call in here, and the follower is shown, hidden, moved and closed along with it,
// staying at `offset` from the owner's position.
class WidgetGlue : public QObject {
    Q_OBJECT

public:
    WidgetGlue(QWidget* owner, QWidget* follower, QPoint offset);

    void setOffset(QPoint p);

signals:
    void sigShow();

public slots:
    void onShow();
    void onHide();
    void onMove(QPoint pos);
    void onClose();

private slots:
    void afterShow();

private:
    // The follower is not owned; it may go away before the owner does.
    QPointer<QWidget> follower;
    QPoint offset;
};
