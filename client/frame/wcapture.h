#pragma once

#include "framegrabber.h"
#include "iwcapture.h"

#include <QList>
#include <QPoint>
#include <QRect>
#include <atomic>
#include <memory>
#include <mutex>

class DrawingForm;
class QHBoxLayout;
class QLabel;
class QPushButton;
class QVBoxLayout;
class TransparentLabel;
class WidgetGlue;

// The capture rectangle and the screen it lies on, which one thread writes and another reads,
// never seen half-written nor paired with another screen's rectangle.
class SharedRect {
public:
    QRect load() const {
        const std::lock_guard<std::mutex> lock(mutex);
        return rect;
    }
    QRect load(int& screenIndex) const {
        const std::lock_guard<std::mutex> lock(mutex);
        screenIndex = screen;
        return rect;
    }
    void store(QRect value, int screenIndex) {
        const std::lock_guard<std::mutex> lock(mutex);
        rect = value;
        screen = screenIndex;
    }

private:
    mutable std::mutex mutex;
    QRect rect;
    int screen = 0;
};

// The tool column beside the frame: live switch, pointer marker, pin and drag handle. It
// leads the frame and keeps the capture rectangle the screen grab reads.
class WCapture : public IWCapture {
    Q_OBJECT

public:
    // The screen of `screens` (geometries in the order of QGuiApplication::screens()) that the
    // top of a frame's inset left edge lies on, else the one nearest to it; 0 for no screens.
    static int screenOfLeftEdge(QPoint edgeTop, const QList<QRect>& screens);

    WCapture();
    ~WCapture() override;

    // The framed area of the screen at its own size and in the grab's pixel layout; null while
    // the column is dragged. Runs on the streaming thread; the picture stays valid until the
    // next grab.
    const platform::GrabbedPicture* grab();

    // Shows the streamer's view of the live state without emitting the button's signals.
    void setLive(bool live);
    void hideToolbar() override;

    DrawingForm* drawingForm() const { return frame; }
    TransparentLabel* marker() const { return pointerMarker; }
    QPushButton* liveButton() const;

    // The frame's rectangle less its border, in the coordinates of the screen it is on, with
    // that screen's index in QGuiApplication::screens(); set here on the interface thread, read
    // by the screen grab on the streaming thread.
    SharedRect captureRect;
    // Set while the column is dragged: the grab on the streaming thread skips such ticks.
    std::atomic<bool> dragging{false};

signals:
    void onNewPosition(QRect rect);
    void fullClose();
    void switchLive(bool live);
    void count_viewers();

private slots:
    void on_cmdLock_toggled(bool checked);
    void on_cmdCursor_clicked(bool checked);
    void on_cmdLive_clicked(bool checked);
    void calcNewPosition();

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void moveEvent(QMoveEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    struct Ui {
        QVBoxLayout* verticalLayout_2 = nullptr;
        QPushButton* cmdLive = nullptr;
        QPushButton* cmdCursor = nullptr;
        QPushButton* cmdLock = nullptr;
        QHBoxLayout* horizontalLayout = nullptr;
        QLabel* lblMove = nullptr;
    };
    void setupUi();
    // Takes the frame's inset rectangle into captureRect; returns it in desktop coordinates.
    QRect takeOverFrame();
    void shutDown();

    std::unique_ptr<Ui> ui;
    QPoint dragStart;
    WidgetGlue* glue = nullptr;
    DrawingForm* frame = nullptr;
    bool movable = true;
    bool glueActive = true;
    FrameGrabber grabber;
    TransparentLabel* pointerMarker = nullptr;
};
