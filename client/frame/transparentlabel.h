#pragma once

#include <QLabel>
#include <QPoint>

// The pointer marker: a small always-on-top picture the presenter drags about inside the
// frame, so that viewers of the stream see where they point.
class TransparentLabel : public QLabel {
    Q_OBJECT

public:
    // The closest the marker's top-left corner may come to the frame's right and bottom edges.
    static constexpr int edgeDistance = 37;

    explicit TransparentLabel(QWidget* parent = nullptr);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    bool pressed = false;
    QPoint pressPos;
};
