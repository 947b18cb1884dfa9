#pragma once

#include <QEvent>
#include <QPoint>
#include <QWidget>
#include <Qt>

// Delivers one mouse event straight to a widget, as the window system would after routing it
// there: `local` in the widget's coordinates, the global position derived from it.
void sendMouse(QWidget* widget, QEvent::Type type, QPoint local, Qt::MouseButton button,
               Qt::MouseButtons buttons);

// Puts the real pointer at a global position and waits until the server reports it there.
bool placeCursor(QPoint global);
