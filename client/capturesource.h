#pragma once

#include "platform/screengrab.h"

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <QImage>
#include <QList>
#include <QObject>
#include <QRect>
#include <atomic>
#include <mutex>
#include <string>

class DrawingForm;
class QScreen;

// The writer's name for a grabbed picture's layout.
AVPixelFormat pixelFormatOf(platform::PixelLayout layout);

// Where the picture comes from: the frame's inner area and the screen it lies on. The
// interface thread follows every move and resize of the frame and every change of the
// screens; the tick's worker grabs from a snapshot of plain numbers and never touches the
// toolkit's screens, which the interface thread may delete. The grab goes through the
// system's shared-memory grab in device pixels where there is one; otherwise the worker takes
// the latest picture the interface thread grabbed through the toolkit for it.
class CaptureSource : public QObject {
    Q_OBJECT

public:
    // The framed area as each grab path needs it.
    struct Area {
        // In the device pixels of the display's root window: what the system grab takes.
        QRect device;
        // In the device-independent coordinates of its screen: what the toolkit's grab takes.
        QRect local;
        // Index in QGuiApplication::screens().
        int screen = 0;
    };

    // The screen of `screens` (geometries in the order of QGuiApplication::screens()) that the
    // top of a frame's inset left edge lies on, else the one nearest to it; 0 for no screens.
    static int screenOfLeftEdge(QPoint edgeTop, const QList<QRect>& screens);
    // `logical` (desktop coordinates, device-independent) in the device pixels of a screen
    // whose geometry starts at `origin` and which has `ratio` device pixels to one.
    static QRect toDevice(QRect logical, QPoint origin, qreal ratio);

    explicit CaptureSource(DrawingForm* frame);
    ~CaptureSource() override;

    Area area() const;

    // Worker thread. The framed area at its device size in the grab's pixel layout; null when
    // there is nothing to stream this tick, and also, with unusable() set, when the screen's
    // pixels cannot be converted at all. The picture stays valid until the next grab.
    const platform::GrabbedPicture* grab();
    bool unusable() const { return unusableLayout; }
    // Set by the last grab() when the display reported no change under the frame since the
    // grab before: the picture it returned is that grab's, not taken again.
    bool unchanged() const { return unchangedPicture; }
    const std::string& lastError() const { return error; }

public Q_SLOTS:
    // Set while the frame is dragged along with the tool column: no picture is taken.
    void setPaused(bool paused) { skipping = paused; }

private Q_SLOTS:
    void follow();
    void grabWithToolkit();

private:
    void watch(QScreen* screen);
    const platform::GrabbedPicture* fromToolkit();

    DrawingForm* frame;
    mutable std::mutex areaMutex;
    Area current;
    std::atomic<bool> skipping{false};

    // The worker's own.
    platform::ScreenGrab system;
    bool systemTried = false;
    bool systemOpen = false;
    bool systemFailureLogged = false;
    bool unusableLayout = false;
    bool unchangedPicture = false;
    std::string error;
    QImage toolkitInUse;
    platform::GrabbedPicture picture;

    // Handed from the interface thread to the worker.
    std::mutex toolkitMutex;
    QImage toolkitLatest;
    std::atomic<bool> toolkitRequested{false};
};
