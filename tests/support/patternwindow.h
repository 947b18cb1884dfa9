#pragma once

#include <QColor>
#include <QImage>
#include <QRect>
#include <QWidget>

// A frameless window showing four coloured quadrants, put at the bottom of the stacking order
// so that the capture frame lies above it: the known picture an end-to-end test streams.
class PatternWindow : public QWidget {
public:
    static const QColor topLeft;
    static const QColor topRight;
    static const QColor bottomLeft;
    static const QColor bottomRight;

    explicit PatternWindow(QRect area);

    // Largest channel difference between each quadrant's centre in `picture` and the colour
    // shown there; `picture` may be any size, the quadrants scale with it.
    static int worstQuadrantError(const QImage& picture);

protected:
    void paintEvent(QPaintEvent* event) override;
};
