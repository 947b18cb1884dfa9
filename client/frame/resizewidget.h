#pragma once

#include <QPoint>
#include <QWidget>
#include <memory>

class QHBoxLayout;
class QLabel;

// The 16 x 16 grip window on the frame's bottom-right corner; dragging it resizes the frame.
class ResizeWidget : public QWidget {
    Q_OBJECT

public:
    explicit ResizeWidget(QWidget* parent = nullptr);
    ~ResizeWidget() override;

    // A pinned grip still reports its release, but neither presses nor drags.
    void setLocked(bool value) { locked = value; }
    bool isLocked() const { return locked; }

signals:
    void click(bool pressed);
    // How far the pointer has gone past the grip's top-left corner; the receiver answers
    // whether the frame accepted the new size.
    bool mouseMove(QPoint pos);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    struct Ui {
        QHBoxLayout* horizontalLayout = nullptr;
        QLabel* label = nullptr;
    };
    void setupUi();

    std::unique_ptr<Ui> ui;
    bool pressed = false;
    bool locked = false;
};
