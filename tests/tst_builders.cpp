// The pure pieces of the commands: what "add", "wiredip"/"wirelessip" and
// "loglevel" make of their words.
#include "commands/add.h"
#include "commands/ipsettings.h"
#include "commands/loglevel.h"

#include <QTest>

class BuildersTest : public QObject
{
    Q_OBJECT

private slots:
    void ipSettings_data()
    {
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QVariantMap>("map");

        QTest::newRow("none is dhcp") << QStringList{} << true << QVariantMap{};
        QTest::newRow("ip only") << QStringList{"10.0.0.2"} << true << QVariantMap{{"Ip", "10.0.0.2"}};
        QTest::newRow("ip and netmask") << QStringList{"10.0.0.2", "255.0.0.0"} << true
                                        << QVariantMap{{"Ip", "10.0.0.2"}, {"Netmask", "255.0.0.0"}};
        QTest::newRow("gateway key spelled Gatewap")
            << QStringList{"10.0.0.2", "255.0.0.0", "10.0.0.1"} << true
            << QVariantMap{{"Ip", "10.0.0.2"}, {"Netmask", "255.0.0.0"}, {"Gatewap", "10.0.0.1"}};
        QTest::newRow("one dns, no blank")
            << QStringList{"10.0.0.2", "255.0.0.0", "10.0.0.1", "9.9.9.9"} << true
            << QVariantMap{{"Ip", "10.0.0.2"}, {"Netmask", "255.0.0.0"}, {"Gatewap", "10.0.0.1"}, {"Dns", "9.9.9.9"}};
        QTest::newRow("three dns joined by blanks")
            << QStringList{"10.0.0.2", "255.0.0.0", "10.0.0.1", "9.9.9.9", "8.8.8.8", "1.1.1.1"} << true
            << QVariantMap{{"Ip", "10.0.0.2"}, {"Netmask", "255.0.0.0"}, {"Gatewap", "10.0.0.1"},
                           {"Dns", "9.9.9.9 8.8.8.8 1.1.1.1"}};
        QTest::newRow("text kept as typed, not canonical") << QStringList{"010.000.000.002"} << true
                                                           << QVariantMap{{"Ip", "010.000.000.002"}};
        QTest::newRow("ipv6 first") << QStringList{"::1"} << false << QVariantMap{};
        QTest::newRow("mapped ipv6") << QStringList{"::ffff:10.0.0.1"} << false << QVariantMap{};
        QTest::newRow("host name") << QStringList{"router.local"} << false << QVariantMap{};
        QTest::newRow("empty word") << QStringList{""} << false << QVariantMap{};
        QTest::newRow("out of range") << QStringList{"256.1.1.1"} << false << QVariantMap{};
        QTest::newRow("bad netmask") << QStringList{"10.0.0.2", "255.255.255.0/24"} << false << QVariantMap{};
        QTest::newRow("bad fifth word") << QStringList{"1.1.1.1", "1.1.1.1", "1.1.1.1", "1.1.1.1", "x"} << false
                                        << QVariantMap{};
    }

    void ipSettings()
    {
        QFETCH(QStringList, words);
        QFETCH(bool, ok);
        QFETCH(QVariantMap, map);
        const auto [built, settings] = ipSettingsMap(words);
        QCOMPARE(built, ok);
        QCOMPARE(settings, map);
        for (const QVariant &value : settings)
            QCOMPARE(value.userType(), int(QMetaType::QString));
    }

    void networks_data()
    {
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QVariantMap>("map");
        const QVariantMap empty;

        QTest::newRow("no networks") << QStringList{} << true << QVariantMap{};
        QTest::newRow("one word") << QStringList{"a"} << false << empty;
        QTest::newRow("two words") << QStringList{"Net", "unsecured"} << false << empty;
        QTest::newRow("four words") << QStringList{"a", "b", "c", "d"} << false << empty;
        QTest::newRow("five words") << QStringList{"a", "b", "c", "d", "e"} << false << empty;
        QTest::newRow("unsecured ignores third word") << QStringList{"Net", "unsecured", "anything"} << true
                                                      << QVariantMap{{"Net", QVariantMap{}}};
        QTest::newRow("wpa") << QStringList{"Home", "wpa_psk", "k1"} << true
                             << QVariantMap{{"Home", QVariantMap{{"wpa_psk", "k1"}}}};
        QTest::newRow("only exact unsecured") << QStringList{"Net", "Unsecured", "x"} << true
                                              << QVariantMap{{"Net", QVariantMap{{"Unsecured", "x"}}}};
        QTest::newRow("later triple replaces") << QStringList{"A", "wep_key", "k1", "A", "wpa_psk", "k2"} << true
                                               << QVariantMap{{"A", QVariantMap{{"wpa_psk", "k2"}}}};
        QTest::newRow("empty ssid and key kept") << QStringList{"", "wep_key", ""} << true
                                                 << QVariantMap{{"", QVariantMap{{"wep_key", ""}}}};
    }

    void networks()
    {
        QFETCH(QStringList, words);
        QFETCH(bool, ok);
        QFETCH(QVariantMap, map);
        const std::optional<QVariantMap> built = wirelessNetworkMap(words);
        QCOMPARE(built.has_value(), ok);
        if (built)
            QCOMPARE(*built, map);
    }

    void networkOrder()
    {
        const QVariantMap map = *wirelessNetworkMap({"b", "unsecured", "-", "B", "unsecured", "-",
                                                     "a", "unsecured", "-", "\u00e9", "unsecured", "-"});
        QCOMPARE(map.keys(), (QStringList{"B", "a", "b", "\u00e9"}));
    }

    void logLevel_data()
    {
        QTest::addColumn<QString>("word");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<int>("level");
        QTest::newRow("0") << "0" << true << 0;
        QTest::newRow("3") << "3" << true << 3;
        QTest::newRow("leading zeros") << "007" << true << 7;
        QTest::newRow("max signed") << "2147483647" << true << 2147483647;
        QTest::newRow("one above max signed") << "2147483648" << true << int(0x80000000u);
        QTest::newRow("max unsigned") << "4294967295" << true << -1;
        QTest::newRow("beyond unsigned") << "4294967296" << false << 0;
        QTest::newRow("negative") << "-1" << false << 0;
        QTest::newRow("word") << "abc" << false << 0;
        QTest::newRow("empty") << "" << false << 0;
        QTest::newRow("hex") << "0x10" << false << 0;
        QTest::newRow("decimal point") << "1.5" << false << 0;
    }

    void logLevel()
    {
        QFETCH(QString, word);
        QFETCH(bool, ok);
        QFETCH(int, level);
        const std::optional<int> parsed = parseLogLevel(word);
        QCOMPARE(parsed.has_value(), ok);
        if (parsed)
            QCOMPARE(*parsed, level);
    }
};

QTEST_GUILESS_MAIN(BuildersTest)
#include "tst_builders.moc"
