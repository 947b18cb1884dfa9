#pragma once

#include <QColor>
#include <QRect>

// Share (0 to 1) of the pixels of a desktop area, as the first screen's grab shows them,
// that have exactly the given colour.
double shareOfScreenColour(QRect area, QColor colour);
