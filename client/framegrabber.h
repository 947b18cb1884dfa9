#pragma once

#include "platform/screengrab.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <QImage>
#include <QRect>

class QScreen;

// The writer's name for a grabbed picture's layout.
AVPixelFormat pixelFormatOf(platform::PixelLayout layout);

// The per-tick grab of the framed area: through the system's shared-memory grab where there
// is one, otherwise through the toolkit. The picture stays valid until the next grab.
class FrameGrabber {
public:
    // Null when nothing could be grabbed; the reason is in the log.
    const platform::GrabbedPicture* grab(QScreen* screen, QRect area);
    // The toolkit's grab alone: the path taken where the system grab is missing.
    const platform::GrabbedPicture* grabWithToolkit(QScreen* screen, QRect area);

private:
    platform::ScreenGrab system;
    bool systemTried = false;
    bool systemOpen = false;
    bool systemFailureLogged = false;
    QImage toolkitImage;
    platform::GrabbedPicture picture;
};
