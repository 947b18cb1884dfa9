#include "framegrabber.h"

#include "logfile.h"

#include <QPixmap>
#include <QScreen>

namespace {

// The toolkit's own pixel layouts that the writer reads as they are.
platform::PixelLayout layoutOf(QImage::Format format) {
    using platform::PixelLayout;
    switch (format) {
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        // 0xAARRGGBB words; a screen grab is opaque, so the alpha byte is skipped.
        return Q_BYTE_ORDER == Q_LITTLE_ENDIAN ? PixelLayout::Bgrx : PixelLayout::Xrgb;
    case QImage::Format_RGB888:
        return PixelLayout::Rgb;
    case QImage::Format_BGR888:
        return PixelLayout::Bgr;
    case QImage::Format_RGB16:
        return PixelLayout::Rgb565;
    default:
        return PixelLayout::None;
    }
}

} // namespace

AVPixelFormat pixelFormatOf(platform::PixelLayout layout) {
    using platform::PixelLayout;
    switch (layout) {
    case PixelLayout::Bgrx:
        return AV_PIX_FMT_BGR0;
    case PixelLayout::Xrgb:
        return AV_PIX_FMT_0RGB;
    case PixelLayout::Rgb:
        return AV_PIX_FMT_RGB24;
    case PixelLayout::Bgr:
        return AV_PIX_FMT_BGR24;
    case PixelLayout::Rgb565:
        return AV_PIX_FMT_RGB565;
    case PixelLayout::None:
        break;
    }
    return AV_PIX_FMT_NONE;
}

const platform::GrabbedPicture* FrameGrabber::grab(QScreen* screen, QRect area) {
    if (!systemTried) {
        systemTried = true;
        systemOpen = system.open();
        if (!systemOpen)
            logLine("Screen grab through the toolkit: ", system.lastError());
    }
    // The area is in the screen's own coordinates, the system grab's in the whole desktop's.
    const QPoint origin = screen ? screen->geometry().topLeft() : QPoint();
    if (systemOpen && system.grab(origin.x() + area.x(), origin.y() + area.y(), area.width(),
                                  area.height(), picture))
        return &picture;
    if (systemOpen && !systemFailureLogged) {
        // Logged once: an area that reaches off the screen fails like this on every tick.
        systemFailureLogged = true;
        logLine("Screen grab through the toolkit for ", area.width(), "x", area.height(), " at ",
                area.x(), ",", area.y(), ": ", system.lastError());
    }
    return grabWithToolkit(screen, area);
}

const platform::GrabbedPicture* FrameGrabber::grabWithToolkit(QScreen* screen, QRect area) {
    if (!screen)
        return nullptr;
    // Runs on the tick's worker thread. The toolkit builds this image from the display's reply
    // in the screen's own layout; it is handed on as it is and never converted here, since the
    // toolkit's large conversions wait on its thread pool in a way that corrupts the waiting
    // thread's stack.
    toolkitImage = screen->grabWindow(0, area.x(), area.y(), area.width(), area.height()).toImage();
    if (toolkitImage.isNull())
        return nullptr;
    const platform::PixelLayout layout = layoutOf(toolkitImage.format());
    if (layout == platform::PixelLayout::None) {
        logLine("Screen grab gave an unsupported pixel layout: ", int(toolkitImage.format()));
        return nullptr;
    }
    picture.data = toolkitImage.constBits();
    picture.layout = layout;
    picture.width = toolkitImage.width();
    picture.height = toolkitImage.height();
    picture.stride = static_cast<int>(toolkitImage.bytesPerLine());
    return &picture;
}
