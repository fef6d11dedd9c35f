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

class WaitingTest : public QObject
{
    Q_OBJECT

private:
    PrivateBus m_bus;
    std::unique_ptr<ServiceOnBus> m_service;

    static void checkEnded(const ClientResult &result)
    {
        QVERIFY(result.finished);
        QCOMPARE(result.exitStatus, QProcess::NormalExit);
        QCOMPARE(result.exitCode, 0);
        QCOMPARE(result.out, QByteArray());
    }

private slots:
    void initTestCase()
    {
        QString error;
        QVERIFY2(m_bus.start(&error, QStringLiteral(KEP_TESTS_DIR "/bus.conf")), qPrintable(error));
    }

    void init()
    {
        m_service = std::make_unique<ServiceOnBus>(m_bus.address(), QStringLiteral("service"));
        QString error;
        QVERIFY2(m_service->start(&error), qPrintable(error));
    }

    void cleanup() { m_service.reset(); }

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
        ClientProcess client(m_bus.address());
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
        ClientProcess client(m_bus.address());
        client.setTimeSpeedUp(100);
        client.start({"wps"});
        QVERIFY(m_service->waitForCalls(QStringLiteral("WpsPbc")));
        QVERIFY(waitForSubscription(m_service->connection(), m_service->senderOf(QStringLiteral("WpsPbc")),
                                    QStringLiteral("ScanResults")));
        emit m_service->object()->service()->ScanResults({});
        emit m_service->object()->service()->ScanResults({});
        const ClientResult result = client.finish(40000);
        checkEnded(result);
        QCOMPARE(result.err, QByteArray("Wps scan completed, still waiting...\n"
                                        "Wps scan completed, still waiting...\n") + TimeoutLine);
        QVERIFY(result.elapsedMs < 180000 / 100 * 3);
    }
};

QTEST_GUILESS_MAIN(WaitingTest)
#include "tst_waiting.moc"
