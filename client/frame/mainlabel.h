#pragma once

#include "streamparams.h"

#include <QWidget>
#include <memory>

class QHBoxLayout;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpacerItem;
class QVBoxLayout;

// The connection form inside the frame: HOST:PORT, the optional stream id, START and exit.
class MainLabel : public QWidget {
    Q_OBJECT

public:
    explicit MainLabel(QWidget* parent = nullptr);
    ~MainLabel() override;

    // The two texts, trimmed, with the fixed rates; remembered in the settings for the next
    // start.
    StreamParams streamParams();
    // The red message line, shown exactly when there is something to say.
    void showMessage(QString text);
    void loadSettings();

    QPushButton* startButton() const;

signals:
    // Deliberately hides QWidget::close(): exit asks the owner to shut everything down.
    void close();

private:
    struct Ui {
        QVBoxLayout* verticalLayout = nullptr;
        QSpacerItem* verticalSpacer = nullptr;
        QVBoxLayout* srtParamsLayout = nullptr;
        QLineEdit* leHostPort = nullptr;
        QLineEdit* leStreamId = nullptr;
        QHBoxLayout* horizontalLayout = nullptr;
        QPushButton* pbStart = nullptr;
        QLabel* lblMessage = nullptr;
        QSpacerItem* verticalSpacer_2 = nullptr;
        QHBoxLayout* horizontalLayout_2 = nullptr;
        QPushButton* pbExit = nullptr;
    };
    void setupUi();
    void retranslateUi();

    std::unique_ptr<Ui> ui;
};
