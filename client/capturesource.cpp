#include "capturesource.h"

#include "frame/drawingform.h"
#include "logfile.h"

#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>
#include <algorithm>

namespace {

// The frame's border, inside its geometry, is not streamed.
constexpr int borderWidth = 5;

// The toolkit's own pixel layouts that the writer reads as they are.
platform::PixelLayout layoutOf(QImage::Format format) {
    using platform::PixelLayout;
    const bool little = Q_BYTE_ORDER == Q_LITTLE_ENDIAN;
    switch (format) {
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        // 0xAARRGGBB words; a screen grab is opaque, so the alpha byte is skipped.
        return little ? PixelLayout::Bgrx : PixelLayout::Xrgb;
    case QImage::Format_RGB30:
    case QImage::Format_A2RGB30_Premultiplied:
        return little ? PixelLayout::X2rgb10 : PixelLayout::None;
    case QImage::Format_BGR30:
    case QImage::Format_A2BGR30_Premultiplied:
        return little ? PixelLayout::X2bgr10 : PixelLayout::None;
    case QImage::Format_RGB888:
        return PixelLayout::Rgb;
    case QImage::Format_BGR888:
        return PixelLayout::Bgr;
    case QImage::Format_RGB16:
        return little ? PixelLayout::Rgb565 : PixelLayout::None;
    case QImage::Format_RGB555:
        return little ? PixelLayout::Rgb555 : PixelLayout::None;
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
    case PixelLayout::X2rgb10:
        return AV_PIX_FMT_X2RGB10LE;
    case PixelLayout::X2bgr10:
        return AV_PIX_FMT_X2BGR10LE;
    case PixelLayout::Rgb:
        return AV_PIX_FMT_RGB24;
    case PixelLayout::Bgr:
        return AV_PIX_FMT_BGR24;
    case PixelLayout::Rgb565:
        return AV_PIX_FMT_RGB565LE;
    case PixelLayout::Rgb555:
        return AV_PIX_FMT_RGB555LE;
    case PixelLayout::None:
        break;
    }
    return AV_PIX_FMT_NONE;
}

int CaptureSource::screenOfLeftEdge(QPoint edgeTop, const QList<QRect>& screens) {
    int nearest = 0;
    long long nearestDistance = -1;
    for (int i = 0; i < screens.size(); ++i) {
        const QRect& screen = screens.at(i);
        const long long dx =
            std::max({screen.left() - edgeTop.x(), 0, edgeTop.x() - screen.right()});
        const long long dy =
            std::max({screen.top() - edgeTop.y(), 0, edgeTop.y() - screen.bottom()});
        const long long distance = dx * dx + dy * dy;
        if (nearestDistance < 0 || distance < nearestDistance) {
            nearest = i;
            nearestDistance = distance;
        }
    }
    return nearest;
}

// The toolkit keeps a screen's origin in device pixels and scales what lies beyond it, so a
// point's distance from the origin is what the ratio stretches. Both edges are scaled, not the
// size, so that neighbouring areas meet without a gap.
QRect CaptureSource::toDevice(QRect logical, QPoint origin, qreal ratio) {
    const auto scaled = [ratio](int value, int from) {
        return from + qRound((value - from) * ratio);
    };
    const QPoint topLeft(scaled(logical.left(), origin.x()), scaled(logical.top(), origin.y()));
    const QPoint end(scaled(logical.left() + logical.width(), origin.x()),
                     scaled(logical.top() + logical.height(), origin.y()));
    return QRect(topLeft, end - QPoint(1, 1));
}

CaptureSource::CaptureSource(DrawingForm* frame) : frame(frame) {
    connect(frame, &DrawingForm::geometryChanged, this, &CaptureSource::follow);
    for (QScreen* screen : QGuiApplication::screens())
        watch(screen);
    connect(qGuiApp, &QGuiApplication::screenAdded, this, [this](QScreen* screen) {
        watch(screen);
        follow();
    });
    // Queued: the screen leaves the list only after this signal.
    connect(qGuiApp, &QGuiApplication::screenRemoved, this, &CaptureSource::follow,
            Qt::QueuedConnection);
    follow();
}

CaptureSource::~CaptureSource() = default;

void CaptureSource::watch(QScreen* screen) {
    connect(screen, &QScreen::geometryChanged, this, &CaptureSource::follow);
}

void CaptureSource::follow() {
    const QRect inner =
        frame->geometry().adjusted(borderWidth, borderWidth, -borderWidth, -borderWidth);
    const QList<QScreen*> screens = QGuiApplication::screens();
    QList<QRect> geometries;
    for (const QScreen* screen : screens)
        geometries.append(screen->geometry());
    Area next;
    next.screen = screenOfLeftEdge(inner.topLeft(), geometries);
    const QPoint origin = screens.isEmpty() ? QPoint() : geometries.at(next.screen).topLeft();
    const qreal ratio = screens.isEmpty() ? 1 : screens.at(next.screen)->devicePixelRatio();
    next.local = inner.translated(-origin);
    next.device = toDevice(inner, origin, ratio);
    const std::lock_guard<std::mutex> lock(areaMutex);
    current = next;
}

CaptureSource::Area CaptureSource::area() const {
    const std::lock_guard<std::mutex> lock(areaMutex);
    return current;
}

const platform::GrabbedPicture* CaptureSource::grab() {
    unusableLayout = false;
    unchangedPicture = false;
    if (skipping)
        return nullptr;
    if (!systemTried) {
        systemTried = true;
        systemOpen = system.open();
        if (!systemOpen)
            logLine("Screen grab through the toolkit: ", system.lastError());
    }
    if (!systemOpen)
        return fromToolkit();
    const QRect device = area().device;
    if (!system.changedSinceGrab(device.x(), device.y(), device.width(), device.height())) {
        unchangedPicture = true;
        return &picture;
    }
    if (system.grab(device.x(), device.y(), device.width(), device.height(), picture))
        return &picture;
    if (!systemFailureLogged) {
        // Logged once: an area that reaches off the screen fails like this on every tick.
        systemFailureLogged = true;
        logLine("Screen grab through the toolkit for ", device.width(), "x", device.height(),
                " at ", device.x(), ",", device.y(), ": ", system.lastError());
    }
    return fromToolkit();
}

const platform::GrabbedPicture* CaptureSource::fromToolkit() {
    // The toolkit grabs on the interface thread, which owns the screens; the worker streams
    // the newest picture it has, and asks for the next.
    if (!toolkitRequested.exchange(true))
        QMetaObject::invokeMethod(this, "grabWithToolkit", Qt::QueuedConnection);
    {
        const std::lock_guard<std::mutex> lock(toolkitMutex);
        toolkitInUse = toolkitLatest;
    }
    if (toolkitInUse.isNull())
        return nullptr;
    const platform::PixelLayout layout = layoutOf(toolkitInUse.format());
    if (layout == platform::PixelLayout::None) {
        unusableLayout = true;
        error = "The screen's pixels cannot be streamed: unsupported pixel layout " +
                std::to_string(int(toolkitInUse.format()));
        logLine("Screen grab: ", error);
        return nullptr;
    }
    picture.data = toolkitInUse.constBits();
    picture.layout = layout;
    picture.width = toolkitInUse.width();
    picture.height = toolkitInUse.height();
    picture.stride = static_cast<int>(toolkitInUse.bytesPerLine());
    return &picture;
}

void CaptureSource::grabWithToolkit() {
    toolkitRequested = false;
    const Area taken = area();
    const QList<QScreen*> screens = QGuiApplication::screens();
    if (taken.screen >= screens.size())
        return;
    // Kept in the screen's own layout: the writer's single conversion reads it as it is.
    const QImage grabbed = screens.at(taken.screen)
                               ->grabWindow(0, taken.local.x(), taken.local.y(),
                                            taken.local.width(), taken.local.height())
                               .toImage();
    const std::lock_guard<std::mutex> lock(toolkitMutex);
    toolkitLatest = grabbed;
}
