#include "wcapture.h"

#include "drawingform.h"
#include "logfile.h"
#include "resizewidget.h"
#include "transparentlabel.h"
#include "widgetglue.h"

#include <QCloseEvent>
#include <QCoreApplication>
#include <QCursor>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QMouseEvent>
#include <QPixmap>
#include <QPushButton>
#include <QScreen>
#include <QSignalBlocker>
#include <QVBoxLayout>
#include <algorithm>
#include <memory>

namespace {

const char* const whiteLiveIcon = ":/icons/WHITE_LIVE.png";
const char* const redLiveIcon = ":/icons/RED_LIVE.png";
const char* const whitePointerIcon = ":/icons/GMS_WHITE_POINTER.png";
const char* const bluePointerIcon = ":/icons/GMS_BLUE_POINTER.png";

const char* const columnStyle = "QWidget{\n"
                                "background-color:  #004364;\n"
                                "border: 1px solid transparent;\n"
                                "border-radius: 10px;}\n"
                                "\n"
                                "\n"
                                "QPushButton\n"
                                "{\n"
                                "\tbackground-color: transparent;\n"
                                "}\n"
                                "QPushButton:hover\n"
                                "{\n"
                                "\tbackground-color: rgba(180, 180, 180, 50);\n"
                                "}\n"
                                "\n"
                                "QPushButton:pressed, QPushButton:checked\n"
                                "{  \n"
                                "\t/*background-color: rgba(165, 180, 195, 150);*/\n"
                                "    background-color: rgba(170, 170, 170, 90);\n"
                                "    border-style: inset;\n"
                                "    border-width: 2px;\n"
                                "}\n";

QIcon iconOff(const char* path) {
    QIcon icon;
    icon.addFile(QString::fromUtf8(path), QSize(), QIcon::Normal, QIcon::Off);
    return icon;
}

QPushButton* makeToolButton(QWidget* parent, const char* name, const char* iconPath) {
    auto* button = new QPushButton(parent);
    button->setObjectName(QString::fromUtf8(name));
    button->setCursor(QCursor(Qt::PointingHandCursor));
    button->setStyleSheet(QString::fromUtf8("padding:4px;"));
    button->setIcon(iconOff(iconPath));
    button->setIconSize(QSize(32, 32));
    button->setCheckable(true);
    button->setFlat(true);
    return button;
}

} // namespace

WCapture::WCapture() : IWCapture(nullptr), ui(std::make_unique<Ui>()) {
    setupUi();

    frame = new DrawingForm(this);
    glue = new WidgetGlue(this, frame, QPoint(-frame->width(), height() - frame->height()));

    setAttribute(Qt::WA_StyledBackground, true);
    setFocusPolicy(Qt::ClickFocus);
    setWindowFlags(Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);

    connect(frame, &DrawingForm::newSize, this, &WCapture::calcNewPosition);
    connect(frame, &DrawingForm::clickedStartButtion, this, [this] { ui->cmdLive->click(); });
    connect(frame->connectionForm(), &MainLabel::close, this, &WCapture::shutDown);

    pointerMarker = new TransparentLabel(frame);
    pointerMarker->setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    pointerMarker->setAttribute(Qt::WA_TranslucentBackground, true);
    const QPixmap pointer(QString::fromUtf8(bluePointerIcon));
    pointerMarker->setPixmap(pointer);
    pointerMarker->setFixedSize(pointer.size());
    pointerMarker->hide();

    frame->resize(1280, 720);

    const QList<QScreen*> screens = QGuiApplication::screens();
    const QRect screen = screens.isEmpty() ? QRect(0, 0, 1280, 720) : screens.at(0)->geometry();
    // Only the screen's size counts here, not its origin.
    move(screen.width() - 1280, screen.height() - 720);
    logLine("screen:", screen.x(), screen.y(), screen.width(), "x", screen.height());
    logLine("move: ", x(), y());

    glueActive = true;
    update();
    show();
    calcNewPosition();
}

WCapture::~WCapture() {
    // The glue must not pass the column's last events on to a frame that is gone.
    glueActive = false;
    delete frame;
}

void WCapture::setupUi() {
    if (objectName().isEmpty())
        setObjectName(QString::fromUtf8("WCapture"));
    resize(50, 190);
    setSizePolicy(QSizePolicy(QSizePolicy::Maximum, QSizePolicy::Maximum));
    setLayoutDirection(Qt::LeftToRight);
    setAutoFillBackground(false);
    setStyleSheet(QString::fromUtf8(columnStyle));

    ui->verticalLayout_2 = new QVBoxLayout(this);
    ui->verticalLayout_2->setSpacing(5);
    ui->verticalLayout_2->setObjectName(QString::fromUtf8("verticalLayout_2"));
    ui->verticalLayout_2->setSizeConstraint(QLayout::SetMaximumSize);
    ui->verticalLayout_2->setContentsMargins(2, 5, 2, 10);

    ui->cmdLive = makeToolButton(this, "cmdLive", whiteLiveIcon);
    ui->verticalLayout_2->addWidget(ui->cmdLive, 0, Qt::AlignCenter);
    ui->cmdCursor = makeToolButton(this, "cmdCursor", whitePointerIcon);
    ui->verticalLayout_2->addWidget(ui->cmdCursor);
    ui->cmdLock = makeToolButton(this, "cmdLock", ":/icons/pin.png");
    ui->verticalLayout_2->addWidget(ui->cmdLock);

    ui->horizontalLayout = new QHBoxLayout();
    ui->horizontalLayout->setObjectName(QString::fromUtf8("horizontalLayout"));
    ui->lblMove = new QLabel(this);
    ui->lblMove->setObjectName(QString::fromUtf8("lblMove"));
    ui->lblMove->setSizePolicy(QSizePolicy(QSizePolicy::Minimum, QSizePolicy::Fixed));
    ui->lblMove->setMinimumSize(QSize(32, 32));
    ui->lblMove->setMaximumSize(QSize(32, 32));
    ui->lblMove->setCursor(QCursor(Qt::SizeAllCursor));
    ui->lblMove->setAutoFillBackground(false);
    ui->lblMove->setStyleSheet(QString());
    ui->lblMove->setPixmap(QPixmap(QString::fromUtf8(":/icons/move.png")));
    ui->lblMove->setScaledContents(true);
    ui->lblMove->setAlignment(Qt::AlignCenter);
    ui->horizontalLayout->addWidget(ui->lblMove);
    ui->verticalLayout_2->addLayout(ui->horizontalLayout);

    setWindowTitle(QCoreApplication::translate("WCapture", "Capture"));
    ui->cmdLive->setText(QString());
    ui->cmdCursor->setText(QString());
    ui->cmdLock->setText(QString());
    ui->lblMove->setToolTip(QCoreApplication::translate("WCapture", "press hold and move"));
    QMetaObject::connectSlotsByName(this);
}

QPushButton* WCapture::liveButton() const {
    return ui->cmdLive;
}

void WCapture::setLive(bool live) {
    const QSignalBlocker blocker(ui->cmdLive);
    ui->cmdLive->setChecked(live);
    ui->cmdLive->setIcon(QIcon(QString::fromUtf8(live ? redLiveIcon : whiteLiveIcon)));
}

void WCapture::hideToolbar() {
    glueActive = false;
    hide();
    update();
    glueActive = true;
}

void WCapture::on_cmdLive_clicked(bool checked) {
    if (!checked) {
        const QSignalBlocker blocker(ui->cmdLive);
        ui->cmdLive->setChecked(false);
        ui->cmdLive->setIcon(QIcon(QString::fromUtf8(whiteLiveIcon)));
    }
    // The red icon waits for the streamer to confirm with setLive(true).
    emit switchLive(checked);
}

void WCapture::on_cmdCursor_clicked(bool checked) {
    ui->cmdCursor->setIcon(QIcon(QString::fromUtf8(checked ? bluePointerIcon : whitePointerIcon)));
    pointerMarker->move(frame->x() + frame->width() - pointerMarker->width() - 5,
                        frame->y() + frame->height() - pointerMarker->height() - 5);
    pointerMarker->setVisible(checked);
}

void WCapture::on_cmdLock_toggled(bool checked) {
    movable = !checked;
    frame->setLocked(checked);
}

// The column always comes back: hidden by a grip press or left behind, it would leave a
// presenter whose form is hidden while live no way to stop.
void WCapture::calcNewPosition() {
    const QRect r = frame->geometry().adjusted(5, 5, -5, -5);
    glue->setOffset(QPoint(-frame->width(), height() - frame->height()));

    glueActive = false;
    move(r.x() + 5 + r.width(), 5 - height() + r.height() + r.y());
    show();
    update();
    glueActive = true;
    show();
}

void WCapture::shutDown() {
    hide();
    pointerMarker->hide();
    emit fullClose();
}

void WCapture::mousePressEvent(QMouseEvent*) {
    frame->resizeGrip()->hide();
}

void WCapture::mouseMoveEvent(QMouseEvent* event) {
    if (!movable)
        return;
    if (dragStart.isNull())
        dragStart = mapFromGlobal(QCursor::pos());
    move(pos() - dragStart + event->pos());
    if (!dragged) {
        dragged = true;
        emit dragging(true);
    }
}

void WCapture::mouseReleaseEvent(QMouseEvent*) {
    if (!movable)
        return;
    frame->resizeGrip()->show();
    dragStart = QPoint(0, 0);
    calcNewPosition();
    if (dragged) {
        dragged = false;
        emit dragging(false);
    }
    emit glue->sigShow();
}

void WCapture::showEvent(QShowEvent*) {
    if (glueActive)
        emit glue->sigShow();
}

void WCapture::hideEvent(QHideEvent*) {
    if (glueActive)
        glue->onHide();
}

void WCapture::moveEvent(QMoveEvent* event) {
    if (glueActive)
        glue->onMove(event->pos());
}

// The window manager's close (Alt+F4, the task bar) is the exit button's: it ends the program
// and its stream, whatever other window of ours is still shown.
void WCapture::closeEvent(QCloseEvent* event) {
    glue->onClose();
    if (event->spontaneous())
        shutDown();
}
