// End-to-end: every command that ends at once, run as the real binary
// against the simulated service on a private bus. Checks stderr byte for
// byte, an empty stdout, exit status 0 and exactly the calls that arrived.
#include "tests/busfixture.h"
#include "tests/golden.h"

#include "sim/busobject.h"
#include "sim/kepservice.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <memory>

namespace {
const QByteArray NormalMessage = "Normal mode requires one argument!\n";
const QByteArray SoftApMessage = "SoftAp mode requires at least one argument!\n";
const QByteArray FormatMessage = "kepclient: Expected networks in correct format!\n";

QString setCall(const char *property, const QString &value)
{
    return QStringLiteral("Set(s \"com.calyra.kep\", s \"%1\", v <%2>)").arg(QLatin1String(property), value);
}
} // namespace

class CommandsTest : public EndToEnd
{
    Q_OBJECT

private:
    ClientResult run(const QStringList &arguments) { return runClient(busAddress(), arguments); }

private slots:
    void commands_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("message"); // the command's own lines
        QTest::addColumn<bool>("usage");         // followed by the usage text
        QTest::addColumn<QStringList>("calls");  // what reached the service

        const QStringList none;
        const auto row = [](const char *name) -> QTestData & { return QTest::newRow(name); };

        row("help") << QStringList{"help"} << QByteArray() << true << none;
        row("help ignores further words") << QStringList{"help", "me", "now"} << QByteArray() << true << none;
        row("unknown word") << QStringList{"bogus"} << QByteArray() << true << none;
        row("word in other case") << QStringList{"Status"} << QByteArray() << true << none;
        row("word cut short") << QStringList{"statu"} << QByteArray() << true << none;
        row("empty word") << QStringList{""} << QByteArray() << true << none;

        row("off") << QStringList{"off"} << QByteArray() << false << QStringList{"SetOffMode()"};
        row("off ignores words") << QStringList{"off", "now", "please"} << QByteArray() << false
                                 << QStringList{"SetOffMode()"};

        row("normal without word") << QStringList{"normal"} << NormalMessage << true << none;
        row("normal with two words") << QStringList{"normal", "wired", "wireless"} << NormalMessage << true << none;
        row("normal wired") << QStringList{"normal", "wired"} << QByteArray() << false
                            << QStringList{"SetNormalMode(s \"wired\")"};
        row("normal word sent as typed") << QStringList{"normal", "WIRELESS"} << QByteArray() << false
                                         << QStringList{"SetNormalMode(s \"WIRELESS\")"};
        row("normal unlisted word") << QStringList{"normal", "turbo"} << QByteArray() << false
                                    << QStringList{"SetNormalMode(s \"turbo\")"};

        row("softap alone") << QStringList{"softap"} << SoftApMessage << true << none;
        row("softap start") << QStringList{"softap", "start"} << QByteArray() << false
                            << QStringList{"StartSoftAp(s \"uap0\", a{sv} {})"};
        row("softap start interface") << QStringList{"softap", "start", "wlan1"} << QByteArray() << false
                                      << QStringList{"StartSoftAp(s \"wlan1\", a{sv} {})"};
        row("softap start three words") << QStringList{"softap", "start", "wlan1", "x"} << QByteArray() << false
                                        << QStringList{"StartSoftAp(s \"uap0\", a{sv} {})"};
        row("softap stop") << QStringList{"softap", "stop"} << QByteArray() << false
                           << QStringList{"StopSoftAp(s \"uap0\")"};
        row("softap stop interface") << QStringList{"softap", "stop", "wlan1"} << QByteArray() << false
                                     << QStringList{"StopSoftAp(s \"wlan1\")"};
        row("softap Start") << QStringList{"softap", "Start"} << SoftApMessage << true << none;
        row("softap STOP interface") << QStringList{"softap", "STOP", "wlan1"} << SoftApMessage << true << none;
        row("softap other word") << QStringList{"softap", "go"} << SoftApMessage << true << none;

        row("add nothing clears") << QStringList{"add"} << QByteArray() << false
                                  << QStringList{setCall("WirelessNetworks", "a{sv} {}")};
        row("add two words") << QStringList{"add", "Net", "unsecured"} << FormatMessage << true << none;
        row("add four words") << QStringList{"add", "A", "wpa_psk", "k", "B"} << FormatMessage << true << none;
        row("add sorted by ssid") << QStringList{"add", "Home", "wpa_psk", "k1", "Guest", "unsecured", "none"}
                                  << QByteArray() << false
                                  << QStringList{setCall("WirelessNetworks",
                                                         "a{sv} {\"Guest\": <a{sv} {}>, "
                                                         "\"Home\": <a{sv} {\"wpa_psk\": <s \"k1\">}>}")};
        row("add unsecured ignores key") << QStringList{"add", "Net", "unsecured", "anything"} << QByteArray()
                                         << false << QStringList{setCall("WirelessNetworks", "a{sv} {\"Net\": <a{sv} {}>}")};
        row("add type word kept as typed") << QStringList{"add", "Net", "WPA_PSK", "k1"} << QByteArray() << false
                                           << QStringList{setCall("WirelessNetworks",
                                                                  "a{sv} {\"Net\": <a{sv} {\"WPA_PSK\": <s \"k1\">}>}")};
        row("add later ssid wins") << QStringList{"add", "A", "wep_key", "k1", "A", "wpa_psk", "k2"} << QByteArray()
                                   << false
                                   << QStringList{setCall("WirelessNetworks",
                                                          "a{sv} {\"A\": <a{sv} {\"wpa_psk\": <s \"k2\">}>}")};

        row("wiredip dhcp") << QStringList{"wiredip"} << QByteArray() << false
                            << QStringList{setCall("WiredIpSettings", "a{sv} {}")};
        row("wirelessip five addresses")
            << QStringList{"wirelessip", "192.168.1.10", "255.255.255.0", "192.168.1.1", "8.8.8.8", "8.8.4.4"}
            << QByteArray() << false
            << QStringList{setCall("WirelessIpSettings",
                                   "a{sv} {\"Dns\": <s \"8.8.8.8 8.8.4.4\">, \"Gatewap\": <s \"192.168.1.1\">, "
                                   "\"Ip\": <s \"192.168.1.10\">, \"Netmask\": <s \"255.255.255.0\">}")};
        row("wiredip one address") << QStringList{"wiredip", "10.0.0.2"} << QByteArray() << false
                                   << QStringList{setCall("WiredIpSettings", "a{sv} {\"Ip\": <s \"10.0.0.2\">}")};
        row("wiredip ipv6") << QStringList{"wiredip", "fe80::1"} << QByteArray() << true << none;
        row("wirelessip host name fifth")
            << QStringList{"wirelessip", "10.0.0.2", "255.0.0.0", "10.0.0.1", "10.0.0.1", "dns.example"}
            << QByteArray() << true << none;

        row("loglevel 0") << QStringList{"loglevel", "0"} << QByteArray() << false
                          << QStringList{setCall("LogLevel", "i 0")};
        row("loglevel max unsigned") << QStringList{"loglevel", "4294967295"} << QByteArray() << false
                                     << QStringList{setCall("LogLevel", "i -1")};
        row("loglevel above max signed") << QStringList{"loglevel", "2147483648"} << QByteArray() << false
                                         << QStringList{setCall("LogLevel", "i -2147483648")};
        row("loglevel negative") << QStringList{"loglevel", "-1"} << QByteArray() << true << none;
        row("loglevel beyond unsigned") << QStringList{"loglevel", "4294967296"} << QByteArray() << true << none;
        row("loglevel word") << QStringList{"loglevel", "abc"} << QByteArray() << true << none;
        row("loglevel empty word") << QStringList{"loglevel", ""} << QByteArray() << true << none;
        row("loglevel two numbers") << QStringList{"loglevel", "3", "4"} << QByteArray() << true << none;
    }

    void commands()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, message);
        QFETCH(bool, usage);
        QFETCH(QStringList, calls);

        const ClientResult result = run(arguments);
        checkEnded(result);
        const QByteArray expected =
            message + (usage ? ClientProcess::usageHeading() + '\n' + UsageBody : QByteArray());
        QCOMPARE(visible(result.err), visible(expected));
        QVERIFY(m_service->sync());
        QCOMPARE(m_service->callTexts(), calls);
    }

    // The writes were accepted and stored by the service, not just sent.
    void writesReachTheServiceState()
    {
        checkEnded(run({"loglevel", "4294967295"}));
        checkEnded(run({"wiredip", "10.1.1.1", "255.255.0.0"}));
        QCOMPARE(service()->logLevel(), -1);
        QCOMPARE(service()->wiredIpSettings(),
                 (QVariantMap{{"Ip", "10.1.1.1"}, {"Netmask", "255.255.0.0"}}));
    }

    void loglevelShows_data()
    {
        QTest::addColumn<int>("level");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("2") << 2 << QByteArray("Current log level:  2\n");
        QTest::newRow("negative") << -7 << QByteArray("Current log level:  -7\n");
        QTest::newRow("zero") << 0 << QByteArray("Current log level:  0\n");
    }

    void loglevelShows()
    {
        QFETCH(int, level);
        QFETCH(QByteArray, line);
        service()->setLogLevel(level);
        const ClientResult result = run({"loglevel"});
        checkEnded(result);
        QCOMPARE(result.err, line);
        QVERIFY(m_service->sync());
        QCOMPARE(m_service->callTexts(), QStringList{"Get(s \"com.calyra.kep\", s \"LogLevel\")"});
    }

    // Without the service every command still ends quietly: reads show the
    // default, writes and calls are lost without a word.
    void absentService_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("err");
        QTest::newRow("status") << QStringList{"status"} << QByteArray();
        QTest::newRow("no word") << QStringList{} << QByteArray();
        QTest::newRow("loglevel") << QStringList{"loglevel"} << QByteArray("Current log level:  0\n");
        QTest::newRow("loglevel 3") << QStringList{"loglevel", "3"} << QByteArray();
        QTest::newRow("off") << QStringList{"off"} << QByteArray();
        QTest::newRow("normal") << QStringList{"normal", "wired"} << QByteArray();
        QTest::newRow("softap") << QStringList{"softap", "start"} << QByteArray();
        QTest::newRow("add") << QStringList{"add", "N", "wpa_psk", "k"} << QByteArray();
        QTest::newRow("wiredip") << QStringList{"wiredip"} << QByteArray();
        QTest::newRow("wirelessip") << QStringList{"wirelessip", "1.2.3.4"} << QByteArray();
    }

    void absentService()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, err);
        m_service.reset();
        const ClientResult result = run(arguments);
        checkEnded(result);
        QCOMPARE(result.err, err);
    }

    // A call issued just before the process quits must never be lost.
    void everyCallBeforeQuitArrives()
    {
        const int runs = 40;
        for (int i = 0; i < runs; ++i)
            checkEnded(run({"off"}));
        QVERIFY(m_service->waitForCalls(QStringLiteral("SetOffMode"), runs, 20000));
    }

    void programPathIsQuotedAndEscaped()
    {
        const QString dir = QDir::tempPath() + QStringLiteral("/kep\"cl\\dir-") + QString::number(QCoreApplication::applicationPid());
        QVERIFY(QDir().mkpath(dir));
        const QString link = dir + QStringLiteral("/kepclient");
        QVERIFY(QFile::link(ClientProcess::program(), link));
        ClientProcess client(busAddress());
        client.start({"help"}, link);
        const ClientResult result = client.finish();
        QDir(dir).removeRecursively();
        checkEnded(result);
        const QByteArray heading = "\"" + dir.toUtf8().replace("\\", "\\\\").replace("\"", "\\\"") + "/kepclient\" : Usage:\n";
        QCOMPARE(visible(result.err), visible(heading + UsageBody));
    }
};

QTEST_GUILESS_MAIN(CommandsTest)
#include "tst_commands.moc"
