#include "drawingform.h"

#include "iwcapture.h"
#include "logfile.h"
#include "resizewidget.h"
#include "widgetglue.h"

#include <QCoreApplication>
#include <QHBoxLayout>
#include <QMoveEvent>
#include <QPainter>
#include <QPen>
#include <QPushButton>
#include <QRegion>
#include <QVector>

DrawingForm::DrawingForm(IWCapture* capture)
    : QWidget(nullptr), ui(std::make_unique<Ui>()), capture(capture) {
    setupUi();

    setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowSystemMenuHint |
                   Qt::WindowStaysOnTopHint);
    setAttribute(Qt::WA_TranslucentBackground, true);
    setAttribute(Qt::WA_TransparentForMouseEvents, false);
    setWindowFlag(Qt::WindowTransparentForInput, false);
    setFocusPolicy(Qt::StrongFocus);

    grip = new ResizeWidget(nullptr);
    glue = new WidgetGlue(this, grip, QPoint(width(), height()));

    connect(grip, &ResizeWidget::click, this, &DrawingForm::onGripClick, Qt::DirectConnection);
    connect(grip, &ResizeWidget::mouseMove, this, &DrawingForm::onGripMove, Qt::DirectConnection);

    statusLabel.setWindowFlags(statusLabel.windowFlags() | Qt::Tool | Qt::FramelessWindowHint |
                               Qt::WindowStaysOnTopHint);
    statusLabel.setStyleSheet("QLabel{background-color:#004364;color:white;font-weight: "
                              "bold;font-size:13pt;font-family:'Arial';}");
    statusLabel.setAlignment(Qt::AlignCenter);
    statusLabel.setTextFormat(Qt::PlainText);
    statusLabel.setGeometry(x() + width() - 355, y() + height(), 350, 20);

    connect(form.startButton(), &QPushButton::clicked, this,
            [this] { emit clickedStartButtion(); });
    ui->horizontalLayout->addWidget(&form);

    setFormMode(1);
}

DrawingForm::~DrawingForm() {
    grip->deleteLater();
}

void DrawingForm::setupUi() {
    if (objectName().isEmpty())
        setObjectName(QString::fromUtf8("DrawingForm"));
    resize(610, 520);
    setMinimumSize(QSize(205, 205));
    ui->horizontalLayout = new QHBoxLayout(this);
    ui->horizontalLayout->setObjectName(QString::fromUtf8("horizontalLayout"));
    setWindowTitle(QCoreApplication::translate("DrawingForm", "Form"));
    QMetaObject::connectSlotsByName(this);
}

void DrawingForm::setFormMode(int on) {
    setAttribute(Qt::WA_TransparentForMouseEvents, !on);
    setWindowFlag(Qt::WindowTransparentForInput, !on);
    form.setVisible(on != 0);
    if (on)
        form.startButton()->setVisible(true);
    update();
    if (!isVisible()) {
        show();
        // Changing the input flag maps the window again, on top of the pointer marker and
        // any other window that belongs to the frame; put them back above it.
        for (QWidget* child : findChildren<QWidget*>(QString(), Qt::FindDirectChildrenOnly)) {
            if (child->isWindow() && child->isVisible())
                child->raise();
        }
    }
    // Without a compositing manager a translucent window is painted opaque, so while
    // streaming the window keeps only its border and leaves the captured pixels uncovered.
    // Set once the window exists again: a mask cleared while the flag change had the window
    // torn down would never reach the window system.
    if (on)
        clearMask();
    else
        applyStreamingMask();
}

void DrawingForm::applyStreamingMask() {
    const QRect outer = rect();
    setMask(QRegion(outer).subtracted(
        QRegion(outer.adjusted(visibleBorder, visibleBorder, -visibleBorder, -visibleBorder))));
}

void DrawingForm::showStartForm() {
    setFormMode(1);
    form.startButton()->setText("START");
}

void DrawingForm::changeStatus(QString message, int kind) {
    logLine("changeStatus ", kind, " ", message);
    if (kind == 0) {
        form.showMessage(message);
    } else if (kind == 1) {
        if (message.isEmpty())
            message = lastStatus;
        lastStatus = message;
        statusLabel.setText(message);
        form.showMessage(QString());
    }
}

StreamParams DrawingForm::streamParams() {
    return form.streamParams();
}

void DrawingForm::setLocked(bool locked) {
    grip->setLocked(locked);
}

void DrawingForm::onGripClick(bool pressed) {
    resizing.exchange(pressed);
    if (pressed) {
        if (capture)
            capture->hideToolbar();
        return;
    }
    repaint();
    emit newSize();
}

bool DrawingForm::onGripMove(QPoint pos) {
    if (!resizing.load())
        return true;
    const int newWidth = width() + pos.x();
    const int newHeight = height() + pos.y();
    // The minimum size is what really bounds the frame; the answer keeps the grip from
    // running ahead of a frame that would become too small.
    setGeometry(x(), y(), newWidth, newHeight);
    return newWidth > 200 && newHeight > 200;
}

void DrawingForm::paintEvent(QPaintEvent* event) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.setRenderHint(QPainter::SmoothPixmapTransform, true);
    // Almost invisible, but enough for the inside to catch clicks in form mode.
    painter.setBrush(QBrush(QColor(0, 0, 0, 1), Qt::SolidPattern));

    QPen pen(Qt::white, 6, Qt::SolidLine, Qt::SquareCap);
    pen.setCosmetic(true);
    painter.setPen(pen);
    painter.drawRect(rect());

    pen.setColor(Qt::black);
    pen.setDashPattern(QVector<qreal>{4, 5.2});
    painter.setPen(pen);
    painter.drawRect(rect());

    QWidget::paintEvent(event);
}

void DrawingForm::moveEvent(QMoveEvent* event) {
    statusLabel.move(event->pos().x() - statusLabel.width() + width() - 5,
                     event->pos().y() + height());
    glue->onMove(event->pos());
    emit geometryChanged();
}

void DrawingForm::resizeEvent(QResizeEvent*) {
    glue->setOffset(QPoint(width(), height()));
    emit geometryChanged();
    if (testAttribute(Qt::WA_TransparentForMouseEvents))
        applyStreamingMask();
}

void DrawingForm::showEvent(QShowEvent*) {
    statusLabel.hide();
    emit glue->sigShow();
}

void DrawingForm::hideEvent(QHideEvent*) {
    statusLabel.hide();
    glue->onHide();
}

void DrawingForm::closeEvent(QCloseEvent*) {
    statusLabel.hide();
    glue->onClose();
}

void DrawingForm::focusInEvent(QFocusEvent* event) {
    update();
    QWidget::focusInEvent(event);
}

void DrawingForm::focusOutEvent(QFocusEvent* event) {
    event->ignore();
    update();
    QWidget::focusOutEvent(event);
}
