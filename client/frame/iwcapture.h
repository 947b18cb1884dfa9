#pragma once

#include <QWidget>

// What the frame needs of the tool column that owns it.
class IWCapture : public QWidget {
public:
    explicit IWCapture(QWidget* parent = nullptr) : QWidget(parent) {}

    // Takes the column off the screen while the frame is being resized; the frame stays.
    virtual void hideToolbar() = 0;
};
