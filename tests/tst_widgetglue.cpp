#include "frame/widgetglue.h"

#include <QCloseEvent>
#include <QMoveEvent>
#include <QPointer>
#include <QtTest>

namespace {

// An owner that passes its window events to its glue the way the apparatus's windows do.
class Owner : public QWidget {
public:
    Owner() : glue(new WidgetGlue(this, &follower, QPoint(30, -20))) {
        resize(100, 80);
        follower.resize(40, 40);
    }
    ~Owner() override { follower.hide(); }

    QWidget follower;
    WidgetGlue* glue;

protected:
    void showEvent(QShowEvent*) override { emit glue->sigShow(); }
    void hideEvent(QHideEvent*) override { glue->onHide(); }
    void moveEvent(QMoveEvent* event) override { glue->onMove(event->pos()); }
    void closeEvent(QCloseEvent*) override { glue->onClose(); }
};

} // namespace

class WidgetGlueTest : public QObject {
    Q_OBJECT

private slots:
    void showReachesFollowerOnlyThroughTheEventLoop();
    void hideMoveAndCloseActAtOnce();
    void setOffsetChangesWhereTheFollowerGoes();
    void followerMayGoAwayFirst();
    void glueIsDestroyedWithItsOwner();
};

void WidgetGlueTest::showReachesFollowerOnlyThroughTheEventLoop() {
    Owner owner;
    owner.move(200, 150);
    owner.show();
    QVERIFY(!owner.follower.isVisible());
    QTRY_VERIFY(owner.follower.isVisible());
    QCOMPARE(owner.follower.pos(), QPoint(230, 130));

    // onShow goes the same queued way.
    owner.follower.hide();
    owner.glue->onShow();
    QVERIFY(!owner.follower.isVisible());
    QTRY_VERIFY(owner.follower.isVisible());
}

void WidgetGlueTest::hideMoveAndCloseActAtOnce() {
    Owner owner;
    owner.move(100, 100);
    owner.show();
    QTRY_VERIFY(owner.follower.isVisible());

    owner.move(160, 90);
    QCOMPARE(owner.follower.pos(), QPoint(190, 70));
    owner.move(owner.pos() + QPoint(-25, 40));
    QCOMPARE(owner.follower.pos() - owner.pos(), QPoint(30, -20));

    owner.hide();
    QVERIFY(!owner.follower.isVisible());

    owner.show();
    QTRY_VERIFY(owner.follower.isVisible());
    owner.close();
    QVERIFY(!owner.follower.isVisible());
    QVERIFY(!owner.isVisible());
}

void WidgetGlueTest::setOffsetChangesWhereTheFollowerGoes() {
    Owner owner;
    owner.move(50, 50);
    owner.show();
    QTRY_VERIFY(owner.follower.isVisible());
    owner.glue->setOffset(QPoint(100, 80));
    QCOMPARE(owner.follower.pos(), QPoint(80, 30)); // nothing moves until the owner does
    owner.move(60, 70);
    QCOMPARE(owner.follower.pos(), QPoint(160, 150));
}

void WidgetGlueTest::followerMayGoAwayFirst() {
    QWidget owner;
    auto* follower = new QWidget;
    auto* glue = new WidgetGlue(&owner, follower, QPoint(5, 5));
    emit glue->sigShow();
    delete follower;
    glue->onMove(QPoint(1, 1));
    glue->onHide();
    glue->onClose();
    QCoreApplication::processEvents(); // the queued show finds no follower
}

void WidgetGlueTest::glueIsDestroyedWithItsOwner() {
    QWidget follower;
    QPointer<WidgetGlue> glue;
    {
        QWidget owner;
        glue = new WidgetGlue(&owner, &follower, QPoint());
        QCOMPARE(glue->parent(), &owner);
    }
    QVERIFY(glue.isNull());
}

QTEST_MAIN(WidgetGlueTest)
#include "tst_widgetglue.moc"
