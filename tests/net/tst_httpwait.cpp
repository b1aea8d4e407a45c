#include "httpfixture.h"

/// How long the requests of the screens wait for their answer.
class TestHttpWait : public DownloadTest {
    Q_OBJECT

private slots:
    void silenceIsWaitedOutInNinePauses();
    void answerEndsTheWaitAfterItsPause();
    void silenceIsWaitedOutInRealTime();
    void eventsAreProcessedMeanwhile();
    void delayLastsByTheWallClock();
    void delayOfNothingProcessesNothing_data();
    void delayOfNothingProcessesNothing();
    void delayEndsEarlyAcrossMidnight();
};

void TestHttpWait::silenceIsWaitedOutInNinePauses()
{
    m_server->on("/a", HttpScript::silence());
    FileIO fileIo;
    const FakeClock clock(kNoon, 1);
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QString());
    // A pause of 100 ms: a look for its end, and one in each millisecond up to it.
    QCOMPARE(clock.looks(), 9 * 101);
}

void TestHttpWait::answerEndsTheWaitAfterItsPause()
{
    m_server->on("/a", HttpScript::fixedLength("body"));
    FileIO fileIo;
    // Time stands still until the answer is there.
    FakeClock clock(kNoon, 0);
    int looksBefore = 0;
    soon(this, [&] {
        connect(m_manager->lastReply(), &QNetworkReply::readyRead, this, [&] {
            looksBefore = clock.looks();
            clock.setStep(100);
        });
    });
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QStringLiteral("body"));
    QVERIFY(looksBefore > 0);
    QCOMPARE(clock.looks() - looksBefore, 2); // to the end of this pause, and no other
}

void TestHttpWait::silenceIsWaitedOutInRealTime()
{
    m_server->on("/a", HttpScript::silence());
    FileIO fileIo;
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QString());
    QCOMPARE(m_server->requests().size(), 1);
    QVERIFY(m_manager->lastReply()->isRunning());
}

void TestHttpWait::eventsAreProcessedMeanwhile()
{
    m_server->on("/a", HttpScript().hold().then(HttpScript::fixedLength("body")));
    FileIO fileIo;
    // Only the event loop of the wait can bring the answer.
    soon(this, [&] { m_server->release("/a"); });
    QCOMPARE(fileIo.httpGet(text(m_server->url("/a"))), QStringLiteral("body"));
}

void TestHttpWait::delayLastsByTheWallClock()
{
    FileIO fileIo;
    bool turned = false;
    soon(&fileIo, [&turned] { turned = true; });
    const FakeClock clock(kNoon, 1);
    fileIo.delay_ms(250);
    QCOMPARE(clock.looks(), 251); // the start and 250 steps of 1 ms
    QVERIFY(turned);
}

void TestHttpWait::delayOfNothingProcessesNothing_data()
{
    QTest::addColumn<int>("ms");

    QTest::newRow("0") << 0;
    QTest::newRow("negative") << -1000;
}

void TestHttpWait::delayOfNothingProcessesNothing()
{
    QFETCH(int, ms);

    FileIO fileIo;
    bool turned = false;
    soon(&fileIo, [&turned] { turned = true; });
    const FakeClock clock(kNoon, 10);
    fileIo.delay_ms(ms);
    QCOMPARE(clock.looks(), 2);
    QVERIFY(!turned);
}

void TestHttpWait::delayEndsEarlyAcrossMidnight()
{
    FileIO fileIo;
    bool turned = false;
    soon(&fileIo, [&turned] { turned = true; });
    const FakeClock clock(QTime(23, 59, 59, 950), 10);
    fileIo.delay_ms(100);
    QCOMPARE(clock.looks(), 2);
    QVERIFY(!turned);
}

QTEST_GUILESS_MAIN(TestHttpWait)
#include "tst_httpwait.moc"
