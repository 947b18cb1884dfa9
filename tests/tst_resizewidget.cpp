#include "frame/resizewidget.h"
#include "support/mouseinput.h"

#include <QLabel>
#include <QtTest>

class ResizeWidgetTest : public QObject {
    Q_OBJECT

private slots:
    void isASmallFloatingGrip();
    void dragReportsHowFarThePointerWentAndFollowsIt();
    void refusedSizeLeavesTheGripWhereItIs();
    void lockedGripOnlyReportsTheRelease();
    void moveWithoutPressDoesNothing();
};

void ResizeWidgetTest::isASmallFloatingGrip() {
    ResizeWidget grip;
    QCOMPARE(int(grip.windowFlags()), 0x4080B);
    QCOMPARE(grip.size(), QSize(16, 16));
    QCOMPARE(grip.minimumSize(), QSize(16, 16));
    QCOMPARE(grip.maximumSize(), QSize(16, 16));
    QCOMPARE(grip.cursor().shape(), Qt::SizeFDiagCursor);
    QCOMPARE(grip.objectName(), QString("ResizeWidget"));
    auto* label = grip.findChild<QLabel*>("label");
    QVERIFY(label);
    QVERIFY(!label->pixmap(Qt::ReturnByValue).isNull());
    QVERIFY(!grip.isLocked());
}

void ResizeWidgetTest::dragReportsHowFarThePointerWentAndFollowsIt() {
    ResizeWidget grip;
    grip.move(300, 200);
    grip.show();
    QVERIFY(QTest::qWaitForWindowExposed(&grip));

    QList<QPoint> asked;
    connect(&grip, &ResizeWidget::mouseMove, this, [&](QPoint pos) {
        asked.append(pos);
        return true;
    });
    QSignalSpy clicks(&grip, &ResizeWidget::click);

    sendMouse(&grip, QEvent::MouseButtonPress, QPoint(8, 8), Qt::LeftButton, Qt::LeftButton);
    QCOMPARE(clicks.count(), 1);
    QCOMPARE(clicks.at(0).at(0).toBool(), true);

    sendMouse(&grip, QEvent::MouseMove, QPoint(30, 12), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(asked, QList<QPoint>{QPoint(30, 12)});
    QCOMPARE(grip.pos(), QPoint(330, 212));

    sendMouse(&grip, QEvent::MouseButtonRelease, QPoint(0, 0), Qt::LeftButton, Qt::NoButton);
    QCOMPARE(clicks.count(), 2);
    QCOMPARE(clicks.at(1).at(0).toBool(), false);
}

void ResizeWidgetTest::refusedSizeLeavesTheGripWhereItIs() {
    ResizeWidget grip;
    grip.move(300, 200);
    grip.show();
    QVERIFY(QTest::qWaitForWindowExposed(&grip));
    connect(&grip, &ResizeWidget::mouseMove, this, [](QPoint) { return false; });

    sendMouse(&grip, QEvent::MouseButtonPress, QPoint(8, 8), Qt::LeftButton, Qt::LeftButton);
    sendMouse(&grip, QEvent::MouseMove, QPoint(-40, -40), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(grip.pos(), QPoint(300, 200));
}

void ResizeWidgetTest::lockedGripOnlyReportsTheRelease() {
    ResizeWidget grip;
    grip.move(300, 200);
    grip.show();
    QVERIFY(QTest::qWaitForWindowExposed(&grip));
    int moves = 0;
    connect(&grip, &ResizeWidget::mouseMove, this, [&](QPoint) {
        ++moves;
        return true;
    });
    QSignalSpy clicks(&grip, &ResizeWidget::click);
    grip.setLocked(true);

    sendMouse(&grip, QEvent::MouseButtonPress, QPoint(8, 8), Qt::LeftButton, Qt::LeftButton);
    sendMouse(&grip, QEvent::MouseMove, QPoint(50, 50), Qt::NoButton, Qt::LeftButton);
    sendMouse(&grip, QEvent::MouseButtonRelease, QPoint(50, 50), Qt::LeftButton, Qt::NoButton);
    QCOMPARE(moves, 0);
    QCOMPARE(grip.pos(), QPoint(300, 200));
    QCOMPARE(clicks.count(), 1);
    QCOMPARE(clicks.at(0).at(0).toBool(), false);

    // Unpinned again, it drags as before.
    grip.setLocked(false);
    sendMouse(&grip, QEvent::MouseButtonPress, QPoint(8, 8), Qt::LeftButton, Qt::LeftButton);
    sendMouse(&grip, QEvent::MouseMove, QPoint(20, 20), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(moves, 1);
    QCOMPARE(grip.pos(), QPoint(320, 220));
}

void ResizeWidgetTest::moveWithoutPressDoesNothing() {
    ResizeWidget grip;
    grip.move(300, 200);
    grip.show();
    int moves = 0;
    connect(&grip, &ResizeWidget::mouseMove, this, [&](QPoint) {
        ++moves;
        return true;
    });
    sendMouse(&grip, QEvent::MouseMove, QPoint(20, 20), Qt::NoButton, Qt::NoButton);
    QCOMPARE(moves, 0);
    QCOMPARE(grip.pos(), QPoint(300, 200));
}

QTEST_MAIN(ResizeWidgetTest)
#include "tst_resizewidget.moc"
