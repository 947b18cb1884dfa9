#pragma once

#include "iwcapture.h"

#include <QPoint>
#include <memory>

class DrawingForm;
class QHBoxLayout;
class QLabel;
class QPushButton;
class QVBoxLayout;
class TransparentLabel;
class WidgetGlue;

// The tool column beside the frame: live switch, pointer marker, pin and drag handle. It
// leads the frame.
class WCapture : public IWCapture {
    Q_OBJECT

public:
    WCapture();
    ~WCapture() override;

    // Shows the streamer's view of the live state without emitting the button's signals.
    void setLive(bool live);
    void hideToolbar() override;

    DrawingForm* drawingForm() const { return frame; }
    TransparentLabel* marker() const { return pointerMarker; }
    QPushButton* liveButton() const;

signals:
    void onNewPosition(QRect rect);
    void fullClose();
    void switchLive(bool live);
    void count_viewers();
    // The column starts or ends dragging the frame along.
    void dragging(bool active);

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
    void shutDown();

    std::unique_ptr<Ui> ui;
    QPoint dragStart;
    WidgetGlue* glue = nullptr;
    DrawingForm* frame = nullptr;
    bool movable = true;
    bool dragged = false;
    bool glueActive = true;
    TransparentLabel* pointerMarker = nullptr;
};
