#pragma once

#include <QColor>
#include <QImage>
#include <QRect>
#include <QWidget>

// A frameless window showing four coloured quadrants, put at the bottom of the stacking order
// so that the capture frame lies above it: the known picture an end-to-end test streams.
class PatternWindow : public QWidget {
public:
    // Top left, top right, bottom left, bottom right.
    static const QColor colours[4];

    explicit PatternWindow(QRect area);

    // Paints the four quadrants over the whole of `device`, turned half round when `turned`.
    static void paint(QPaintDevice* device, bool turned = false);
    // Shown turned half round from the next paint on.
    bool turned = false;

    // Largest channel difference between the quadrants' colours and `picture` (of any size) at
    // the quadrants' centres and at their outer corners `inset` pixels in.
    static int worstError(const QImage& picture, int inset);

protected:
    void paintEvent(QPaintEvent*) override { paint(this, turned); }
};
