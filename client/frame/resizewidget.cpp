#include "resizewidget.h"

#include <QCoreApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPixmap>

ResizeWidget::ResizeWidget(QWidget* parent) : QWidget(parent), ui(std::make_unique<Ui>()) {
    setupUi();
    setWindowFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    setCursor(Qt::SizeFDiagCursor);
}

ResizeWidget::~ResizeWidget() = default;

void ResizeWidget::setupUi() {
    if (objectName().isEmpty())
        setObjectName(QString::fromUtf8("ResizeWidget"));
    resize(16, 16);
    setMinimumSize(QSize(16, 16));
    setMaximumSize(QSize(16, 16));
    setCursor(QCursor(Qt::SizeFDiagCursor));
    setAutoFillBackground(false);

    ui->horizontalLayout = new QHBoxLayout(this);
    ui->horizontalLayout->setSpacing(0);
    ui->horizontalLayout->setObjectName(QString::fromUtf8("horizontalLayout"));
    ui->horizontalLayout->setContentsMargins(0, 0, 0, 0);

    ui->label = new QLabel(this);
    ui->label->setObjectName(QString::fromUtf8("label"));
    ui->label->setSizePolicy(QSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding));
    ui->label->setAutoFillBackground(false);
    ui->label->setStyleSheet(QString::fromUtf8("background-color: #004364"));
    ui->label->setPixmap(QPixmap(QString::fromUtf8(":/icons/resize.png")));
    ui->label->setScaledContents(true);
    ui->label->setAlignment(Qt::AlignCenter);
    ui->horizontalLayout->addWidget(ui->label);

    setWindowTitle(QCoreApplication::translate("ResizeWidget", "Form"));
    ui->label->setText(QString());
    QMetaObject::connectSlotsByName(this);
}

void ResizeWidget::paintEvent(QPaintEvent* event) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillRect(rect(), Qt::gray);
    QWidget::paintEvent(event);
}

void ResizeWidget::mousePressEvent(QMouseEvent*) {
    if (!locked)
        emit click(true);
    pressed = true;
}

void ResizeWidget::mouseReleaseEvent(QMouseEvent*) {
    // Also when pinned: the frame repaints and the tool column places itself again.
    emit click(false);
    pressed = false;
}

void ResizeWidget::mouseMoveEvent(QMouseEvent* event) {
    if (locked || !pressed)
        return;
    if (!emit mouseMove(event->pos())) {
        event->ignore();
        return;
    }
    move(pos() + event->pos());
}
