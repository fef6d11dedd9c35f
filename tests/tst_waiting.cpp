// End-to-end: how "scan" and "wps" end when the service stays silent. The
// client runs under faketime with its clock sped up, so its real 10 s and
// 180 s timers pass in a fraction of that; the lower bounds show which timer
// fired.
#include "tests/busfixture.h"
#include "tests/golden.h"

#include "sim/busobject.h"
#include "sim/kepservice.h"

#include <QTest>

#include <memory>

class WaitingTest : public EndToEnd
{
    Q_OBJECT

private slots:
    void timeout_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<bool>("service");
        QTest::addColumn<int>("speedUp");
        QTest::addColumn<int>("timeoutMs");
        QTest::newRow("scan, silent service") << QStringList{"scan"} << true << 20 << 10000;
        QTest::newRow("scan, no service") << QStringList{"scan", "x"} << false << 20 << 10000;
        QTest::newRow("wps, silent service") << QStringList{"wps"} << true << 100 << 180000;
        QTest::newRow("wps, no service") << QStringList{"wps"} << false << 100 << 180000;
    }

    void timeout()
    {
        QFETCH(QStringList, arguments);
        QFETCH(bool, service);
        QFETCH(int, speedUp);
        QFETCH(int, timeoutMs);
        speedUp = ClientProcess::availableSpeedUp(speedUp);
        if (timeoutMs / speedUp > 30000)
            QSKIP("this timer cannot be sped up for this client");
        if (!service)
            m_service.reset();
        ClientProcess client(busAddress());
        client.setTimeSpeedUp(speedUp);
        client.start(arguments);
        const ClientResult result = client.finish(timeoutMs / speedUp + 30000);
        checkEnded(result);
        QCOMPARE(result.err, TimeoutLine);
        // A timer cannot fire early: this much real time means the long one.
        QVERIFY2(result.elapsedMs >= timeoutMs / speedUp * 9 / 10,
                 qPrintable(QStringLiteral("ended after %1 ms").arg(result.elapsedMs)));
    }

    // Progress lines do not end the wait, nor restart its timer.
    void wpsProgressThenTimeout()
    {
        if (ClientProcess::availableSpeedUp(100) == 1)
            QSKIP("the 180 s timer cannot be sped up for this client");
        ClientProcess client(busAddress());
        client.setTimeSpeedUp(100);
        client.start({"wps"});
        QVERIFY(m_service->waitForCalls(QStringLiteral("WpsPbc")));
        QVERIFY(waitForSubscription(m_service->connection(), m_service->senderOf(QStringLiteral("WpsPbc")),
                                    QStringLiteral("ScanResults")));
        emit service()->ScanResults({});
        emit service()->ScanResults({});
        const ClientResult result = client.finish(40000);
        checkEnded(result);
        QCOMPARE(result.err, QByteArray("Wps scan completed, still waiting...\n"
                                        "Wps scan completed, still waiting...\n") + TimeoutLine);
        QVERIFY(result.elapsedMs < 180000 / 100 * 3);
    }
};

QTEST_GUILESS_MAIN(WaitingTest)
#include "tst_waiting.moc"
