// End-to-end: the reports of "status", "scan" and "wps", byte for byte, from
// values the simulated service sends over a private bus.
#include "tests/busfixture.h"
#include "tests/golden.h"

#include "sim/busobject.h"
#include "sim/kepservice.h"

#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QTest>

#include <functional>
#include <memory>

namespace {

// A dictionary a{sv} marshalled by hand, so that a key can come twice and
// entries keep the order given.
QVariant rawDictionary(const QList<QPair<QString, QVariant>> &entries)
{
    QDBusArgument argument;
    argument.beginMap(QVariant::String, qMetaTypeId<QDBusVariant>());
    for (const auto &entry : entries) {
        argument.beginMapEntry();
        argument << entry.first << QDBusVariant(entry.second);
        argument.endMapEntry();
    }
    argument.endMap();
    return QVariant::fromValue(argument);
}

QVariant nested(const QVariantMap &map) { return QVariant(map); }

} // namespace

class ReportsTest : public EndToEnd
{
    Q_OBJECT

private slots:
    void status_data()
    {
        QTest::addColumn<QVariantMap>("details");
        QTest::addColumn<QByteArray>("err");

        QTest::newRow("text, dictionary, object path")
            << QVariantMap{{"a", "x"},
                           {"b", nested({{"c", "y"}, {"d", 2}})},
                           {"e", QVariant::fromValue(QDBusObjectPath("/p"))}}
            << QByteArray("Property:  \"a\"  ->  \"x\"\n"
                          "Property:  \"b\"  -> \n"
                          "\t \"c\" = \"y\"\n"
                          "\t \"d\" = \"2\"\n"
                          "Entry:  \"e\"  ->  QVariant(QDBusObjectPath, )\n");
        QTest::newRow("ascending key order") << QVariantMap{{"b", "2"}, {"a", "1"}, {"Z", "0"}}
                                             << QByteArray("Property:  \"Z\"  ->  \"0\"\n"
                                                           "Property:  \"a\"  ->  \"1\"\n"
                                                           "Property:  \"b\"  ->  \"2\"\n");
        QTest::newRow("numbers and booleans as text")
            << QVariantMap{{"i", -3}, {"u", 7u}, {"x", qlonglong(-5000000000LL)}, {"t", qulonglong(9)},
                           {"b", true}, {"f", false}, {"d", 2.5}}
            << QByteArray("Property:  \"b\"  ->  \"true\"\n"
                          "Property:  \"d\"  ->  \"2.5\"\n"
                          "Property:  \"f\"  ->  \"false\"\n"
                          "Property:  \"i\"  ->  \"-3\"\n"
                          "Property:  \"t\"  ->  \"9\"\n"
                          "Property:  \"u\"  ->  \"7\"\n"
                          "Property:  \"x\"  ->  \"-5000000000\"\n");
        QTest::newRow("string lists and signature")
            << QVariantMap{{"one", QStringList{"only"}},
                           {"two", QStringList{"a", "b"}},
                           {"none", QStringList{}},
                           {"sig", QVariant::fromValue(QDBusSignature("a{sv}"))}}
            << QByteArray("Entry:  \"none\"  ->  QVariant(QStringList, ())\n"
                          "Property:  \"one\"  ->  \"only\"\n"
                          "Entry:  \"sig\"  ->  QVariant(QDBusSignature, )\n"
                          "Entry:  \"two\"  ->  QVariant(QStringList, (\"a\", \"b\"))\n");
        QTest::newRow("quotes and backslashes escaped")
            << QVariantMap{{"k\"1", "say \"hi\""}, {"k\\2", nested({{"in\"ner", "c:\\dir"}})}}
            << QByteArray("Property:  \"k\\\"1\"  ->  \"say \\\"hi\\\"\"\n"
                          "Property:  \"k\\\\2\"  -> \n"
                          "\t \"in\\\"ner\" = \"c:\\\\dir\"\n");
        QTest::newRow("empty dictionary") << QVariantMap{{"e", nested({})}, {"f", "x"}}
                                          << QByteArray("Property:  \"e\"  -> \n"
                                                        "Property:  \"f\"  ->  \"x\"\n");
        QTest::newRow("three levels, inner lines before next key")
            << QVariantMap{{"a", nested({{"b", nested({{"c", nested({{"d", "deep"}})}, {"c2", "x"}})}, {"b2", 1}})},
                           {"z", "last"}}
            << QByteArray("Property:  \"a\"  -> \n"
                          "\t \"b\"  -> \n"
                          "\t\t \"c\"  -> \n"
                          "\t\t\t \"d\" = \"deep\"\n"
                          "\t\t \"c2\" = \"x\"\n"
                          "\t \"b2\" = \"1\"\n"
                          "Property:  \"z\"  ->  \"last\"\n");
        QTest::newRow("nested other values")
            << QVariantMap{{"n", nested({{"p", QVariant::fromValue(QDBusObjectPath("/x"))},
                                         {"l", QStringList{"a", "b"}},
                                         {"v", QVariant::fromValue(QDBusVariant(5))}})}}
            << QByteArray("Property:  \"n\"  -> \n"
                          "\t \"l\" = QVariant(QStringList, (\"a\", \"b\"))\n"
                          "\t \"p\" = QVariant(QDBusObjectPath, )\n"
                          "\t \"v\" = QVariant(QDBusVariant, )\n");
        QTest::newRow("repeated key inside a dictionary")
            << QVariantMap{{"d", rawDictionary({{"k", "first"}, {"j", "j"}, {"k", "second"}})}}
            << QByteArray("Property:  \"d\"  -> \n"
                          "\t \"j\" = \"j\"\n"
                          "\t \"k\" = \"second\"\n"
                          "\t \"k\" = \"second\"\n");
        QTest::newRow("empty") << QVariantMap{} << QByteArray();
    }

    void status()
    {
        QFETCH(QVariantMap, details);
        QFETCH(QByteArray, err);
        service()->setDetails(details);
        for (const QStringList &arguments : {QStringList{"status"}, QStringList{}, QStringList{"status", "x", "y"}}) {
            const ClientResult result = runClient(busAddress(), arguments);
            checkEnded(result);
            QCOMPARE(visible(result.err), visible(err));
        }
        QVERIFY(m_service->sync());
        const QString get = QStringLiteral("Get(s \"com.calyra.kep\", s \"Details\")");
        QCOMPARE(m_service->callTexts(), (QStringList{get, get, get}));
    }

    void statusRepeatedTopLevelKey()
    {
        KepBusObject::PropertyAnswer answer;
        answer.value = rawDictionary({{"k", "first"}, {"a", 1}, {"k", "second"}});
        m_service->object()->setPropertyAnswer(QStringLiteral("Details"), answer);
        const ClientResult result = runClient(busAddress(), {"status"});
        checkEnded(result);
        QCOMPARE(visible(result.err), visible("Property:  \"a\"  ->  \"1\"\n"
                                              "Property:  \"k\"  ->  \"second\"\n"
                                              "Property:  \"k\"  ->  \"second\"\n"));
    }

    void scan_data()
    {
        QTest::addColumn<QVariantMap>("results");
        QTest::addColumn<QByteArray>("err");
        QTest::newRow("two networks")
            << QVariantMap{{"net-b", nested({{"c", true}})}, {"net-a", nested({{"b", 3}, {"a", "x"}})}}
            << QByteArray("Network:  \"net-a\"  -> \n"
                          "\t \"a\" = \"x\"\n"
                          "\t \"b\" = \"3\"\n"
                          "Network:  \"net-b\"  -> \n"
                          "\t \"c\" = \"true\"\n");
        QTest::newRow("empty results") << QVariantMap{} << QByteArray();
        QTest::newRow("empty network") << QVariantMap{{"n", nested({})}} << QByteArray("Network:  \"n\"  -> \n");
        QTest::newRow("network value not a dictionary") << QVariantMap{{"n", "plain"}, {"o", 5}}
                                                        << QByteArray("Network:  \"n\"  -> \n"
                                                                      "Network:  \"o\"  -> \n");
        QTest::newRow("nested dictionary not descended")
            << QVariantMap{{"n", nested({{"inner", nested({{"x", 1}})}, {"ssid", "home"}})}}
            << QByteArray("Network:  \"n\"  -> \n"
                          "\t \"inner\" = QVariant(QDBusArgument, )\n"
                          "\t \"ssid\" = \"home\"\n");
        QTest::newRow("escaping and other values")
            << QVariantMap{{"a\"b", nested({{"p\\", QVariant::fromValue(QDBusObjectPath("/o"))}, {"s", "q\""}})}}
            << QByteArray("Network:  \"a\\\"b\"  -> \n"
                          "\t \"p\\\\\" = QVariant(QDBusObjectPath, )\n"
                          "\t \"s\" = \"q\\\"\"\n");
    }

    void scan()
    {
        QFETCH(QVariantMap, results);
        QFETCH(QByteArray, err);
        const ClientResult result = runWaiting({"scan", "extra", "words"}, QStringLiteral("Scan"),
                                               [&] { emit service()->ScanResults(results); });
        checkEnded(result);
        QCOMPARE(visible(result.err), visible(err));
        QCOMPARE(m_service->callTexts(), QStringList{"Scan()"});
    }

    // Only an a{sv} ScanResults is the report; one of another signature is
    // not delivered and the run goes on to the real one.
    void scanIgnoresOtherSignature()
    {
        const ClientResult result = runWaiting({"scan"}, QStringLiteral("Scan"), [&] {
            m_service->object()->sendSignal(QStringLiteral("ScanResults"), {QStringList{"net"}});
            emit service()->ScanResults({{"net", nested({{"k", "v"}})}});
        });
        checkEnded(result);
        QCOMPARE(visible(result.err), visible("Network:  \"net\"  -> \n\t \"k\" = \"v\"\n"));
    }

    void wps_data()
    {
        QTest::addColumn<int>("progress");
        QTest::addColumn<QVariantMap>("credentials");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QByteArray>("err");
        const QByteArray progressLine = "Wps scan completed, still waiting...\n";
        QTest::newRow("three passes then credentials")
            << 3 << QVariantMap{{"a", "b"}} << QString()
            << progressLine + progressLine + progressLine + "Wps Credentials: QMap((\"a\", QVariant(QString, \"b\")))\n";
        QTest::newRow("credentials in key order")
            << 0 << QVariantMap{{"ssid", "Home"}, {"key", "s\"e\\c"}, {"auth", 4}} << QString()
            << QByteArray("Wps Credentials: QMap((\"auth\", QVariant(int, 4))(\"key\", QVariant(QString, \"s\\\"e\\\\c\"))"
                          "(\"ssid\", QVariant(QString, \"Home\")))\n");
        QTest::newRow("empty credentials") << 0 << QVariantMap{} << QString()
                                           << QByteArray("Wps Credentials: QMap()\n");
        QTest::newRow("error escaped") << 1 << QVariantMap{} << QStringLiteral("PBC \"overlap\" at C:\\ap")
                                       << progressLine + "Wps Error: \"PBC \\\"overlap\\\" at C:\\\\ap\"\n";
    }

    void wps()
    {
        QFETCH(int, progress);
        QFETCH(QVariantMap, credentials);
        QFETCH(QString, error);
        QFETCH(QByteArray, err);
        const ClientResult result = runWaiting({"wps", "1234"}, QStringLiteral("WpsPbc"), [&] {
            for (int i = 0; i < progress; ++i)
                emit service()->ScanResults({{"net", nested({{"k", "v"}})}});
            if (error.isEmpty())
                emit service()->WpsCredentials(credentials);
            else
                emit service()->WpsError(error);
        });
        checkEnded(result);
        QCOMPARE(visible(result.err), visible(err));
        QCOMPARE(m_service->callTexts(), QStringList{"WpsPbc()"});
    }
};

QTEST_GUILESS_MAIN(ReportsTest)
#include "tst_reports.moc"
