#pragma once

#include "mainlabel.h"
#include "streamparams.h"

#include <QLabel>
#include <QString>
#include <QWidget>
#include <atomic>
#include <memory>

class IWCapture;
class QHBoxLayout;
class ResizeWidget;
class WidgetGlue;

// The see-through window with the dashed border that marks the area to be streamed. In form
// mode it carries the connection form; in streaming mode only the border is left and input
// and pixels pass through to the windows below.
class DrawingForm : public QWidget {
    Q_OBJECT

public:
    // The part of the 6-pixel pen that falls inside the window: all that is left on screen in
    // streaming mode, well outside the capture rectangle 5 pixels in.
    static constexpr int visibleBorder = 3;

    explicit DrawingForm(IWCapture* capture);
    ~DrawingForm() override;

    // Non-zero: form mode; zero: streaming mode.
    void setFormMode(int on);
    void showStartForm();
    // Kind 0: the form's message line; kind 1: the (never shown) status strip; others: log only.
    void changeStatus(QString message, int kind);
    StreamParams streamParams();
    void setLocked(bool locked);

    ResizeWidget* resizeGrip() const { return grip; }
    MainLabel* connectionForm() { return &form; }
    const QLabel* statusStrip() const { return &statusLabel; }

signals:
    void newSize();
    void clickedStartButtion();
    void geometryChanged();

protected:
    void paintEvent(QPaintEvent* event) override;
    void moveEvent(QMoveEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;

private:
    struct Ui {
        QHBoxLayout* horizontalLayout = nullptr;
    };
    void setupUi();
    void onGripClick(bool pressed);
    bool onGripMove(QPoint pos);
    void applyStreamingMask();

    MainLabel form;
    ResizeWidget* grip = nullptr;
    WidgetGlue* glue = nullptr;
    std::atomic<bool> resizing{false};
    std::unique_ptr<Ui> ui;
    QLabel statusLabel;
    IWCapture* capture = nullptr;
    QString lastStatus;
};
