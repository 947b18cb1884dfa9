#include "mainlabel.h"

#include "globalstate.h"

#include <QCoreApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QSpacerItem>
#include <QVBoxLayout>

namespace {

const char* const lineEditStyle = "color:white;\n"
                                  "background-color: rgba(0, 0, 0, 110);\n"
                                  "border:1px solid #43B4FF;\n"
                                  "border-radius:8px;\n"
                                  "font-size: 18px;\n"
                                  "padding: 0 12px;";

const char* const hostPortKey = "SRT_HOST_PORT";
const char* const streamIdKey = "SRT_STREAM_ID";

QSettings* settingsStore() {
    return globalState ? globalState->settings() : nullptr;
}

QLineEdit* makeLineEdit(QWidget* parent, const char* name) {
    auto* edit = new QLineEdit(parent);
    edit->setObjectName(QString::fromUtf8(name));
    edit->setMinimumSize(QSize(0, 40));
    edit->setStyleSheet(QString::fromUtf8(lineEditStyle));
    edit->setClearButtonEnabled(true);
    return edit;
}

} // namespace

MainLabel::MainLabel(QWidget* parent) : QWidget(parent), ui(std::make_unique<Ui>()) {
    setupUi();
    // The application style sheet gives MainLabel a border image, which a plain QWidget
    // subclass paints only with a styled background.
    setAttribute(Qt::WA_StyledBackground, true);
    ui->lblMessage->hide();
    connect(ui->pbExit, &QPushButton::clicked, this, &MainLabel::close);
    loadSettings();
}

MainLabel::~MainLabel() = default;

void MainLabel::setupUi() {
    if (objectName().isEmpty())
        setObjectName(QString::fromUtf8("MainLabel"));
    resize(758, 320);
    QSizePolicy policy(QSizePolicy::Maximum, QSizePolicy::Maximum);
    setSizePolicy(policy);
    setMinimumSize(QSize(450, 260));

    ui->verticalLayout = new QVBoxLayout(this);
    ui->verticalLayout->setObjectName(QString::fromUtf8("verticalLayout"));
    ui->verticalSpacer = new QSpacerItem(20, 90, QSizePolicy::Minimum, QSizePolicy::Fixed);
    ui->verticalLayout->addItem(ui->verticalSpacer);

    ui->srtParamsLayout = new QVBoxLayout();
    ui->srtParamsLayout->setSpacing(8);
    ui->srtParamsLayout->setObjectName(QString::fromUtf8("srtParamsLayout"));
    ui->leHostPort = makeLineEdit(this, "leHostPort");
    ui->srtParamsLayout->addWidget(ui->leHostPort);
    ui->leStreamId = makeLineEdit(this, "leStreamId");
    ui->srtParamsLayout->addWidget(ui->leStreamId);
    ui->verticalLayout->addLayout(ui->srtParamsLayout);

    ui->horizontalLayout = new QHBoxLayout();
    ui->horizontalLayout->setObjectName(QString::fromUtf8("horizontalLayout"));
    ui->horizontalLayout->setSizeConstraint(QLayout::SetMaximumSize);
    ui->pbStart = new QPushButton(this);
    ui->pbStart->setObjectName(QString::fromUtf8("pbStart"));
    ui->pbStart->setSizePolicy(QSizePolicy(QSizePolicy::Minimum, QSizePolicy::Fixed));
    ui->pbStart->setMinimumSize(QSize(0, 45));
    ui->pbStart->setMaximumSize(QSize(180, 45));
    ui->pbStart->setCursor(QCursor(Qt::PointingHandCursor));
    ui->pbStart->setStyleSheet(QString::fromUtf8("color:white;\n"
                                                 "background-color: #43B4FF;\n"
                                                 "border:1px solid transparent;\n"
                                                 "border-radius:8px;\n"
                                                 "font-size: 24px;\n"
                                                 "font-weight: bold;\n"
                                                 "text-transform: uppercase;"));
    ui->pbStart->setFlat(false);
    ui->horizontalLayout->addWidget(ui->pbStart);
    ui->verticalLayout->addLayout(ui->horizontalLayout);

    ui->lblMessage = new QLabel(this);
    ui->lblMessage->setObjectName(QString::fromUtf8("lblMessage"));
    ui->lblMessage->setSizePolicy(QSizePolicy(QSizePolicy::Preferred, QSizePolicy::Minimum));
    ui->lblMessage->setStyleSheet(QString::fromUtf8("font-size: 16px;\n"
                                                    "color:#B3261E;\n"
                                                    "background-color: rgba(255, 255, 255, 190);\n"
                                                    "border:1px solid rgba(179, 38, 30, 140);\n"
                                                    "border-radius:6px;\n"
                                                    "padding: 4px 10px;\n"
                                                    "text-decoration: none;"));
    ui->lblMessage->setTextFormat(Qt::PlainText);
    ui->lblMessage->setAlignment(Qt::AlignCenter);
    ui->lblMessage->setWordWrap(true);
    ui->verticalLayout->addWidget(ui->lblMessage);

    ui->verticalSpacer_2 = new QSpacerItem(20, 8, QSizePolicy::Minimum, QSizePolicy::Fixed);
    ui->verticalLayout->addItem(ui->verticalSpacer_2);

    ui->horizontalLayout_2 = new QHBoxLayout();
    ui->horizontalLayout_2->setSpacing(0);
    ui->horizontalLayout_2->setObjectName(QString::fromUtf8("horizontalLayout_2"));
    ui->horizontalLayout_2->setContentsMargins(-1, -1, -1, 0);
    ui->pbExit = new QPushButton(this);
    ui->pbExit->setObjectName(QString::fromUtf8("pbExit"));
    ui->pbExit->setSizePolicy(QSizePolicy(QSizePolicy::Maximum, QSizePolicy::Fixed));
    ui->pbExit->setMinimumSize(QSize(54, 26));
    ui->pbExit->setMaximumSize(QSize(70, 28));
    ui->pbExit->setCursor(QCursor(Qt::PointingHandCursor));
    ui->pbExit->setStyleSheet(QString::fromUtf8("color:#43B4FF;\n"
                                                "background-color: rgba(255, 255, 255, 170);\n"
                                                "border:1px solid rgba(67, 180, 255, 180);\n"
                                                "border-radius:6px;\n"
                                                "font-size: 13px;\n"
                                                "font-weight: bold;\n"
                                                "text-transform: lowercase;"));
    ui->pbExit->setFlat(false);
    ui->horizontalLayout_2->addWidget(ui->pbExit);
    ui->verticalLayout->addLayout(ui->horizontalLayout_2);

    retranslateUi();
    QMetaObject::connectSlotsByName(this);
}

void MainLabel::retranslateUi() {
    setWindowTitle(QCoreApplication::translate("MainLabel", "Form"));
    ui->leHostPort->setPlaceholderText(QCoreApplication::translate("MainLabel", "HOST:PORT"));
    ui->leStreamId->setPlaceholderText(
        QCoreApplication::translate("MainLabel", "Stream ID (optional)"));
    ui->pbStart->setToolTip(QString());
    ui->pbStart->setText(QCoreApplication::translate("MainLabel", "START"));
    ui->lblMessage->setText(QString());
    ui->pbExit->setToolTip(QCoreApplication::translate("MainLabel", "exit"));
    ui->pbExit->setText(QCoreApplication::translate("MainLabel", "exit"));
}

StreamParams MainLabel::streamParams() {
    StreamParams params;
    const QString hostPort = ui->leHostPort->text().trimmed();
    const QString streamId = ui->leStreamId->text().trimmed();
    params.hostPort = hostPort.toUtf8().toStdString();
    params.streamId = streamId.toUtf8().toStdString();
    params.videoBitrateKbps = 5000;
    params.audioBitrateKbps = 128;
    params.latency = 10;
    if (QSettings* settings = settingsStore()) {
        settings->setValue(hostPortKey, hostPort);
        settings->setValue(streamIdKey, streamId);
    }
    return params;
}

void MainLabel::showMessage(QString text) {
    ui->lblMessage->setText(text);
    ui->lblMessage->setVisible(!text.isEmpty());
}

void MainLabel::loadSettings() {
    if (QSettings* settings = settingsStore()) {
        ui->leHostPort->setText(settings->value(hostPortKey).toString());
        ui->leStreamId->setText(settings->value(streamIdKey).toString());
    }
}

QPushButton* MainLabel::startButton() const {
    return ui->pbStart;
}
