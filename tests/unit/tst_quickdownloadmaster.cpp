#include "capture.h"
#include "child.h"
#include "quickdownloadmaster.h"

#include <QChildEvent>
#include <QMetaProperty>
#include <QNetworkAccessManager>
#include <QPointer>
#include <QtTest>

// There is one instance for a process, never given up: each test has a process of its own.
class TestQuickDownloadMaster : public QObject {
    Q_OBJECT

private slots:
    void metaObjectHasOnePropertyAndOneSignal();
    void instanceIsMadeOnFirstUse();
    void constructorRecordsTheInstance();
    void constructorEmitsReadyChangedOnce();
    void managerIsMadeOnFirstUse();
    void managerIsAChildOfTheRecordedInstance();
    void outsideManagerTakesThePlaceOfTheOwnOne();
    void ownManagerHandedInIsDeletedAndStillHeld();
    void outsideManagerSurvivesAReplacement();
    void outsideManagerSurvivesTheDestructor();
    void outsideManagerSurvivesBehindADisconnectedOwnOne_data();
    void outsideManagerSurvivesBehindADisconnectedOwnOne();
    void ownManagerGoesWithTheDestructor();
    void disconnectedManagerDeletedElsewhereIsReplaced_data();
    void disconnectedManagerDeletedElsewhereIsReplaced();
    void nullManagerIsReplacedOnTheNextUse();
    void settingAManagerEmitsNothing();
    void missingInstanceIsWarnedAbout();
    void presentInstanceIsNotWarnedAbout();
};

namespace {

/// Counts the signal that a child emits while it is still being made.
class EarlyListener : public QObject {
public:
    int emissions = 0;

protected:
    void childEvent(QChildEvent *event) override
    {
        if (!event->added())
            return;
        // Not yet the class that it is going to be, so there is no cast that checks.
        connect(reinterpret_cast<QuickDownloadMaster *>(event->child()),
                &QuickDownloadMaster::readyChanged, this, [this] { ++emissions; });
    }
};

} // namespace

void TestQuickDownloadMaster::metaObjectHasOnePropertyAndOneSignal()
{
    const QMetaObject &meta = QuickDownloadMaster::staticMetaObject;
    QCOMPARE(meta.className(), "QuickDownloadMaster");
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 1);
    const QMetaProperty ready = meta.property(meta.propertyOffset());
    QCOMPARE(ready.name(), "ready");
    QCOMPARE(ready.typeName(), "bool");
    QVERIFY(ready.isReadable());
    QVERIFY(!ready.isWritable());
    QCOMPARE(ready.notifySignal().methodSignature(), QByteArray("readyChanged()"));
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 1);
    QCOMPARE(meta.method(meta.methodOffset()).methodSignature(), QByteArray("readyChanged()"));
    QCOMPARE(meta.method(meta.methodOffset()).methodType(), QMetaMethod::Signal);
}

void TestQuickDownloadMaster::instanceIsMadeOnFirstUse()
{
    const ChildResult child = runInChild([] {
        QuickDownloadMaster *const master = QuickDownloadMaster::instance();
        CHILD_VERIFY(master);
        CHILD_VERIFY(!master->parent());
        CHILD_VERIFY(master->ready());
        CHILD_VERIFY(master->property("ready") == QVariant(true));
        CHILD_VERIFY(QuickDownloadMaster::instance() == master);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::constructorRecordsTheInstance()
{
    const ChildResult child = runInChild([] {
        QObject parent;
        auto *const first = new QuickDownloadMaster(&parent);
        CHILD_VERIFY(first->parent() == &parent);
        CHILD_VERIFY(first->ready());
        CHILD_VERIFY(QuickDownloadMaster::instance() == first);
        auto *const second = new QuickDownloadMaster(&parent);
        CHILD_VERIFY(QuickDownloadMaster::instance() == second);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::constructorEmitsReadyChangedOnce()
{
    const ChildResult child = runInChild([] {
        EarlyListener listener;
        auto *const master = new QuickDownloadMaster(&listener);
        CHILD_VERIFY(listener.emissions == 1);
        master->networkAccessManager();
        CHILD_VERIFY(listener.emissions == 1);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::managerIsMadeOnFirstUse()
{
    const ChildResult child = runInChild([] {
        QuickDownloadMaster *const master = QuickDownloadMaster::instance();
        CHILD_VERIFY(master->children().isEmpty());
        QNetworkAccessManager *const manager = master->networkAccessManager();
        CHILD_VERIFY(manager);
        CHILD_VERIFY(master->children().contains(manager));
        CHILD_VERIFY(master->networkAccessManager() == manager);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::managerIsAChildOfTheRecordedInstance()
{
    const ChildResult child = runInChild([] {
        auto *const first = new QuickDownloadMaster;
        auto *const second = new QuickDownloadMaster;
        QNetworkAccessManager *const manager = first->networkAccessManager();
        CHILD_VERIFY(manager->parent() == second);
        CHILD_VERIFY(second->networkAccessManager() != manager);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::outsideManagerTakesThePlaceOfTheOwnOne()
{
    const ChildResult child = runInChild([] {
        QuickDownloadMaster *const master = QuickDownloadMaster::instance();
        const QPointer<QNetworkAccessManager> own = master->networkAccessManager();
        QNetworkAccessManager outside;
        master->setNetworkAccessManager(&outside);
        CHILD_VERIFY(own.isNull());
        CHILD_VERIFY(master->networkAccessManager() == &outside);
        CHILD_VERIFY(!outside.parent());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::ownManagerHandedInIsDeletedAndStillHeld()
{
    const ChildResult child = runInChild([] {
        QuickDownloadMaster *const master = QuickDownloadMaster::instance();
        QNetworkAccessManager *const own = master->networkAccessManager();
        const QPointer<QNetworkAccessManager> watched = own;
        master->setNetworkAccessManager(own);
        CHILD_VERIFY(watched.isNull());
        CHILD_VERIFY(master->networkAccessManager() == own); // dangling; only compared
        // It is not deleted once more.
        QNetworkAccessManager outside;
        master->setNetworkAccessManager(&outside);
        CHILD_VERIFY(master->networkAccessManager() == &outside);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::outsideManagerSurvivesAReplacement()
{
    const ChildResult child = runInChild([] {
        auto *const master = new QuickDownloadMaster;
        const QPointer<QNetworkAccessManager> first = new QNetworkAccessManager;
        const QPointer<QNetworkAccessManager> second = new QNetworkAccessManager;
        master->networkAccessManager();
        master->setNetworkAccessManager(first);
        master->setNetworkAccessManager(second);
        CHILD_VERIFY(!first.isNull());
        CHILD_VERIFY(master->networkAccessManager() == second);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::outsideManagerSurvivesTheDestructor()
{
    const ChildResult child = runInChild([] {
        const QPointer<QNetworkAccessManager> outside = new QNetworkAccessManager;
        auto *const master = new QuickDownloadMaster;
        // Made by the object first, so that a forgotten flag would show.
        master->networkAccessManager();
        master->setNetworkAccessManager(outside);
        delete master;
        CHILD_VERIFY(!outside.isNull());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::outsideManagerSurvivesBehindADisconnectedOwnOne_data()
{
    QTest::addColumn<bool>("isReplaced");
    QTest::newRow("replacement") << true;
    QTest::newRow("destructor") << false;
}

void TestQuickDownloadMaster::outsideManagerSurvivesBehindADisconnectedOwnOne()
{
    QFETCH(bool, isReplaced);

    const ChildResult child = runInChild([isReplaced] {
        const QPointer<QNetworkAccessManager> outside = new QNetworkAccessManager;
        auto *const master = new QuickDownloadMaster;
        const QPointer<QNetworkAccessManager> own = master->networkAccessManager();
        own->disconnect(); // nobody hears of its end any more
        master->setNetworkAccessManager(outside);
        CHILD_VERIFY(own.isNull());
        if (isReplaced)
            master->setNetworkAccessManager(nullptr);
        else
            delete master;
        CHILD_VERIFY(!outside.isNull());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::ownManagerGoesWithTheDestructor()
{
    const ChildResult child = runInChild([] {
        auto *const first = new QuickDownloadMaster;
        // Another one is recorded, so the manager is not this object's child.
        auto *const second = new QuickDownloadMaster;
        const QPointer<QNetworkAccessManager> own = first->networkAccessManager();
        delete first;
        CHILD_VERIFY(own.isNull());
        CHILD_VERIFY(QuickDownloadMaster::instance() == second);
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::disconnectedManagerDeletedElsewhereIsReplaced_data()
{
    QTest::addColumn<bool>("isOwn");
    QTest::newRow("own") << true;
    QTest::newRow("outside") << false;
}

void TestQuickDownloadMaster::disconnectedManagerDeletedElsewhereIsReplaced()
{
    QFETCH(bool, isOwn);

    const ChildResult child = runInChild([isOwn] {
        auto *const master = new QuickDownloadMaster;
        if (!isOwn)
            master->setNetworkAccessManager(new QNetworkAccessManager);
        QNetworkAccessManager *const manager = master->networkAccessManager();
        manager->disconnect();
        delete manager;
        // A child that is made now: the address may be the old one.
        const QPointer<QNetworkAccessManager> next = master->networkAccessManager();
        CHILD_VERIFY(master->children().contains(next));
        // Neither is deleted once more.
        delete master;
        CHILD_VERIFY(next.isNull());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::nullManagerIsReplacedOnTheNextUse()
{
    const ChildResult child = runInChild([] {
        QuickDownloadMaster *const master = QuickDownloadMaster::instance();
        const QPointer<QNetworkAccessManager> own = master->networkAccessManager();
        master->setNetworkAccessManager(nullptr);
        CHILD_VERIFY(own.isNull());
        const QPointer<QNetworkAccessManager> next = master->networkAccessManager();
        CHILD_VERIFY(!next.isNull());
        // Made by the object again, hence deleted again.
        master->setNetworkAccessManager(nullptr);
        CHILD_VERIFY(next.isNull());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::settingAManagerEmitsNothing()
{
    const ChildResult child = runInChild([] {
        QuickDownloadMaster *const master = QuickDownloadMaster::instance();
        QSignalSpy changed(master, &QuickDownloadMaster::readyChanged);
        QNetworkAccessManager outside;
        master->setNetworkAccessManager(&outside);
        master->setNetworkAccessManager(nullptr);
        CHILD_VERIFY(changed.isEmpty());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::missingInstanceIsWarnedAbout()
{
    const ChildResult child = runInChild([] {
        const MessageCapture messages;
        CHILD_VERIFY(!QuickDownloadMaster::checkInstance("networkAccessManager"));
        CHILD_VERIFY(messages.messages()
                     == QStringList(QStringLiteral(
                         "QuickDownloadMaster::networkAccessManager: Please instantiate the "
                         "QuickDownloadMaster object first")));
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

void TestQuickDownloadMaster::presentInstanceIsNotWarnedAbout()
{
    const ChildResult child = runInChild([] {
        QuickDownloadMaster::instance();
        const MessageCapture messages;
        CHILD_VERIFY(QuickDownloadMaster::checkInstance("networkAccessManager"));
        CHILD_VERIFY(messages.messages().isEmpty());
        return 0;
    });
    VERIFY_CHILD_PASSED(child);
}

QTEST_GUILESS_MAIN(TestQuickDownloadMaster)
#include "tst_quickdownloadmaster.moc"
