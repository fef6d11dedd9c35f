// End-to-end: the client against strangers on the bus, a failing bus, a
// misbehaving service and odd command lines. It must end, print only what it
// prints for such a case, and never crash or warn.
#include "tests/busfixture.h"
#include "tests/golden.h"

#include "sim/busobject.h"
#include "sim/kepservice.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QStandardPaths>
#include <QTest>

#include <memory>

namespace {

QVariant nested(const QVariantMap &map) { return QVariant(map); }

QDBusMessage kepSignal(const char *member, const QVariantList &arguments)
{
    QDBusMessage message = QDBusMessage::createSignal(QStringLiteral("/com/calyra/kep"),
                                                      QStringLiteral("com.calyra.kep"), QLatin1String(member));
    message.setArguments(arguments);
    return message;
}

} // namespace

class HostileTest : public EndToEnd
{
    Q_OBJECT

private:
    // Starts a waiting command and returns once the service has its call and
    // the client listens for `signal`.
    bool startWaiting(ClientProcess &client, const QStringList &arguments, const QString &call, const QString &signal)
    {
        client.start(arguments);
        return m_service->waitForCalls(call)
               && waitForSubscription(m_service->connection(), m_service->senderOf(call), signal);
    }

private slots:
    // A bus of its own for every test, not one for the suite: some stop it.
    void initTestCase() {}
    void init()
    {
        startBus();
        startService();
    }

    void cleanup()
    {
        m_service.reset();
        m_bus.reset();
    }

    // Signals of the right name, path and interface from a connection that
    // does not own com.calyra.kep, or with another signature, are not heard.
    void onlyTheServiceIsHeard_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("call");
        QTest::addColumn<QByteArray>("err");
        QTest::newRow("scan") << QStringList{"scan"} << "Scan" << QByteArray("Network:  \"real\"  -> \n");
        QTest::newRow("wps") << QStringList{"wps"} << "WpsPbc" << QByteArray("Wps Error: \"real\"\n");
    }

    void onlyTheServiceIsHeard()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, call);
        QFETCH(QByteArray, err);
        ClientProcess client(busAddress());
        // ScanResults is the last signal either command listens to.
        QVERIFY(startWaiting(client, arguments, call, QStringLiteral("ScanResults")));

        QDBusConnection stranger = QDBusConnection::connectToBus(busAddress(), QStringLiteral("stranger"));
        QVERIFY(stranger.isConnected());
        QVERIFY(stranger.send(kepSignal("ScanResults", {QVariant(QVariantMap{{"fake", nested({})}})})));
        QVERIFY(stranger.send(kepSignal("WpsCredentials", {QVariant(QVariantMap{{"ssid", "fake"}})})));
        QVERIFY(stranger.send(kepSignal("WpsError", {QStringLiteral("fake")})));
        // From the service itself, but with other signatures.
        m_service->object()->sendSignal(QStringLiteral("ScanResults"), {QStringLiteral("fake")});
        m_service->object()->sendSignal(QStringLiteral("WpsCredentials"), {QStringList{"fake"}});
        m_service->object()->sendSignal(QStringLiteral("WpsError"), {QStringLiteral("fake"), 1});
        m_service->object()->sendSignal(QStringLiteral("WpsError"), {7});
        QDBusConnection::disconnectFromBus(stranger.name());

        if (call == QLatin1String("Scan"))
            emit service()->ScanResults({{"real", nested({})}});
        else
            emit service()->WpsError(QStringLiteral("real"));
        const ClientResult result = client.finish();
        checkEnded(result);
        QCOMPARE(result.err, err);
    }

    // The service leaves the bus and comes back under a new connection during
    // WPS: the new owner's signals count.
    void serviceRestartsDuringWps()
    {
        ClientProcess client(busAddress());
        QVERIFY(startWaiting(client, {"wps"}, QStringLiteral("WpsPbc"), QStringLiteral("WpsCredentials")));
        emit service()->ScanResults({});
        m_service = std::make_unique<ServiceOnBus>(busAddress(), QStringLiteral("service-restarted"));
        QString error;
        QVERIFY2(m_service->start(&error), qPrintable(error));
        emit service()->WpsCredentials({{"Ssid", "Home"}});
        const ClientResult result = client.finish();
        checkEnded(result);
        QCOMPARE(result.err, QByteArray("Wps scan completed, still waiting...\n"
                                        "Wps Credentials: QMap((\"Ssid\", QVariant(QString, \"Home\")))\n"));
    }

    // The bus goes away while the client waits: the run still ends by its
    // timeout, quietly.
    void busGoneWhileWaiting_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("call");
        QTest::newRow("scan") << QStringList{"scan"} << "Scan";
        QTest::newRow("wps") << QStringList{"wps"} << "WpsPbc";
    }

    void busGoneWhileWaiting()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, call);
        const int speedUp = ClientProcess::availableSpeedUp(100);
        if (call == QLatin1String("WpsPbc") && speedUp == 1)
            QSKIP("the 180 s timer cannot be sped up for this client");
        ClientProcess client(busAddress());
        client.setTimeSpeedUp(speedUp);
        client.start(arguments);
        QVERIFY(m_service->waitForCalls(call));
        m_service.reset();
        m_bus->stop();
        const ClientResult result = client.finish();
        checkEnded(result);
        QCOMPARE(result.err, TimeoutLine);
    }

    // Property reads that fail, or bring a value of another type, give the
    // defaults: no status lines, log level 0.
    void badPropertyAnswers_data()
    {
        QTest::addColumn<QString>("property");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("err");
        const int raw = KepBusObject::PropertyAnswer::RawValue;
        const int error = KepBusObject::PropertyAnswer::ErrorReply;
        const QByteArray zero = "Current log level:  0\n";
        QTest::newRow("Details error") << "Details" << error << QVariant() << QStringList{"status"} << QByteArray();
        QTest::newRow("Details as string") << "Details" << raw << QVariant("text") << QStringList{"status"} << QByteArray();
        QTest::newRow("Details as string list") << "Details" << raw << QVariant(QStringList{"a"}) << QStringList{"status"}
                                                << QByteArray();
        QTest::newRow("LogLevel error") << "LogLevel" << error << QVariant() << QStringList{"loglevel"} << zero;
        QTest::newRow("LogLevel as uint32") << "LogLevel" << raw << QVariant(5u) << QStringList{"loglevel"} << zero;
        QTest::newRow("LogLevel as string") << "LogLevel" << raw << QVariant("5") << QStringList{"loglevel"} << zero;
        QTest::newRow("LogLevel as int64") << "LogLevel" << raw << QVariant(qlonglong(5)) << QStringList{"loglevel"}
                                           << zero;
    }

    void badPropertyAnswers()
    {
        QFETCH(QString, property);
        QFETCH(int, kind);
        QFETCH(QVariant, value);
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, err);
        KepBusObject::PropertyAnswer answer;
        answer.kind = KepBusObject::PropertyAnswer::Kind(kind);
        answer.value = value;
        answer.errorName = QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
        answer.errorMessage = QStringLiteral("not today");
        m_service->object()->setPropertyAnswer(property, answer);
        const ClientResult result = runClient(busAddress(), arguments);
        checkEnded(result);
        QCOMPARE(result.err, err);
    }

    // A read that is never answered waits for QtDBus's default call timeout
    // (25 s; the client runs 100 times faster here) and then gives the default.
    void unansweredPropertyRead_data()
    {
        QTest::addColumn<QString>("property");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("err");
        QTest::newRow("status") << "Details" << QStringList{"status"} << QByteArray();
        QTest::newRow("loglevel") << "LogLevel" << QStringList{"loglevel"} << QByteArray("Current log level:  0\n");
    }

    void unansweredPropertyRead()
    {
        QFETCH(QString, property);
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, err);
        KepBusObject::PropertyAnswer answer;
        answer.kind = KepBusObject::PropertyAnswer::NoReply;
        m_service->object()->setPropertyAnswer(property, answer);
        const int speedUp = ClientProcess::availableSpeedUp(100);
        if (speedUp == 1)
            QSKIP("the 25 s call timeout cannot be sped up for this client");
        ClientProcess client(busAddress());
        client.setTimeSpeedUp(speedUp);
        client.start(arguments);
        const ClientResult result = client.finish();
        checkEnded(result);
        QCOMPARE(result.err, err);
        QVERIFY2(result.elapsedMs >= 25000 / speedUp * 9 / 10, qPrintable(QString::number(result.elapsedMs)));
    }

    // No argv[0] at all: runs "status", like no command word.
    void emptyArgumentVector()
    {
        if (ClientProcess::hasWrapper())
            QSKIP("a wrapped client always gets a program path");
        service()->setDetails({{"State", "up"}});
        ClientProcess client(busAddress());
        client.start({}, ClientProcess::program(), {QStringLiteral(KEP_RAWEXEC), QStringLiteral("--no-argv0")});
        const ClientResult result = client.finish();
        checkEnded(result);
        QCOMPARE(result.err, QByteArray("Property:  \"State\"  ->  \"up\"\n"));
    }

    // Bytes that are not UTF-8 reach the service as U+FFFD, one per bad byte;
    // as a command word they are just an unknown word.
    void nonUtf8Arguments()
    {
        ClientProcess client(busAddress());
        client.start({QStringLiteral("normal"), QStringLiteral("a\\xff\\xfeb")}, ClientProcess::program(),
                     {QStringLiteral(KEP_RAWEXEC)});
        checkEnded(client.finish());
        QVERIFY(m_service->sync());
        QCOMPARE(m_service->callTexts(), QStringList{QString::fromUtf8("SetNormalMode(s \"a\xEF\xBF\xBD\xEF\xBF\xBD" "b\")")});

        ClientProcess word(busAddress());
        word.start({QStringLiteral("st\\xe4tus")}, ClientProcess::program(), {QStringLiteral(KEP_RAWEXEC)});
        const ClientResult result = word.finish();
        checkEnded(result);
        QVERIFY(result.err.startsWith(ClientProcess::usageHeading() + '\n' + "\thelp\n"));
    }

    // Linux refuses any single argument of 128 KiB or more (execve fails with
    // E2BIG), so no program is ever started with a 1 MiB one: the longest
    // possible argument goes through whole.
    void longestArgument()
    {
        const QString word(128 * 1024 - 1, QLatin1Char('w'));
        checkEnded(runClient(busAddress(), {"normal", word}));
        QVERIFY(m_service->sync());
        QCOMPARE(m_service->object()->calls().size(), 1);
        QCOMPARE(m_service->object()->calls().at(0).arguments, QVariantList{word});
    }

    void manyArguments()
    {
        QStringList add{"add"};
        for (int i = 0; i < 33333; ++i)
            add << QStringLiteral("net%1").arg(i) << QStringLiteral("wpa_psk") << QStringLiteral("key%1").arg(i);
        checkEnded(runClient(busAddress(), add));
        QCOMPARE(service()->wirelessNetworks().size(), 33333);
        const QVariant last = service()->wirelessNetworks().value("net33332");
        QCOMPARE(qdbus_cast<QVariantMap>(last.value<QDBusArgument>()), (QVariantMap{{"wpa_psk", "key33332"}}));

        QStringList ip{"wiredip"};
        for (int i = 0; i < 100000; ++i)
            ip << QStringLiteral("10.%1.%2.%3").arg(i >> 16).arg((i >> 8) & 255).arg(i & 255);
        checkEnded(runClient(busAddress(), ip));
        const QVariantMap settings = service()->wiredIpSettings();
        QCOMPARE(settings.value("Ip").toString(), QStringLiteral("10.0.0.0"));
        QCOMPARE(settings.value("Dns").toString().count(QLatin1Char(' ')), 100000 - 4);
        QVERIFY(settings.value("Dns").toString().endsWith(QLatin1String(" 10.1.134.159")));
    }

    // memcheck finds no error in a status run and a scan run.
    void valgrindFindsNoErrors()
    {
#ifdef KEP_SANITIZED
        QSKIP("valgrind does not run a sanitized build");
#endif
        if (ClientProcess::hasWrapper())
            QSKIP("valgrind runs the client itself, not a wrapper");
        if (QStandardPaths::findExecutable(QStringLiteral("valgrind")).isEmpty())
            QSKIP("valgrind is not installed");
        service()->setDetails({{"a", "x"}, {"b", nested({{"c", nested({{"d", 1}})}})}});
        const QStringList valgrind{QStringLiteral("valgrind"), QStringLiteral("-q"), QStringLiteral("--error-exitcode=99"),
                                   QStringLiteral("--leak-check=no")};
        ClientProcess status(busAddress());
        status.start({"status"}, ClientProcess::program(), valgrind);
        const ClientResult statusResult = status.finish();
        checkEnded(statusResult);
        QCOMPARE(statusResult.err, QByteArray("Property:  \"a\"  ->  \"x\"\nProperty:  \"b\"  -> \n"
                                              "\t \"c\"  -> \n\t\t \"d\" = \"1\"\n"));

        ClientProcess scan(busAddress());
        scan.start({"scan"}, ClientProcess::program(), valgrind);
        QVERIFY(m_service->waitForCalls(QStringLiteral("Scan"), 1, 60000));
        QVERIFY(waitForSubscription(m_service->connection(), m_service->senderOf(QStringLiteral("Scan")),
                                    QStringLiteral("ScanResults"), 60000));
        emit service()->ScanResults({{"n", nested({{"k", 1}})}});
        const ClientResult scanResult = scan.finish();
        checkEnded(scanResult);
        QCOMPARE(scanResult.err, QByteArray("Network:  \"n\"  -> \n\t \"k\" = \"1\"\n"));
    }
};

QTEST_GUILESS_MAIN(HostileTest)
#include "tst_hostile.moc"
