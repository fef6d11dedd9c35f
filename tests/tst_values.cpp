// End-to-end: D-Bus values of every kind, in Details, in both levels of
// ScanResults and in WpsCredentials. Dictionaries a{sv} print as the reports
// define; other containers print as README's "Values of any D-Bus type"
// says. Nothing may crash, warn, or disturb the keys after the odd value.
#include "tests/busfixture.h"

#include "sim/busobject.h"
#include "sim/kepservice.h"
#include "sim/typedjson.h"

#include <QJsonDocument>
#include <QTest>

#include <memory>

namespace {

// A map in typed JSON written with ' for ", e.g. {'n': {'@ai': [1, 2]}}.
QVariantMap typed(const QByteArray &json)
{
    QString error;
    const std::optional<QVariantMap> map = typedJsonMap(
        QJsonDocument::fromJson(QByteArray(json).replace('\'', '"')).object(), QStringLiteral("row"), &error);
    if (!map)
        qFatal("bad row: %s", qPrintable(error));
    return *map;
}

} // namespace

class ValuesTest : public EndToEnd
{
    Q_OBJECT

private slots:
    // Each row puts one odd value between two plain keys, "A" and "z".
    void status_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QByteArray>("lines");
        const auto row = [](const char *name, const char *value, const char *lines) {
            QTest::newRow(name) << QByteArray(value) << QByteArray(lines);
        };
        row("int array", "{'@ai': [1, -2, 3]}", "Property:  \"m\"  -> \n\t [1, -2, 3]\n");
        row("empty array", "{'@au': []}", "Property:  \"m\"  -> \n\t []\n");
        row("byte elements", "{'@(yay)': [7, [0, 255]]}", "Property:  \"m\"  -> \n\t (7, [0, 255])\n");
        row("struct", "{'@(sib)': ['a\\\"b', 3, true]}", "Property:  \"m\"  -> \n\t (\"a\\\"b\", 3, true)\n");
        row("object paths and signatures", "{'@(aoag)': [['/a', '/b/c'], ['s', 'a{sv}']]}",
            "Property:  \"m\"  -> \n\t ([ObjectPath(\"/a\"), ObjectPath(\"/b/c\")], [Signature(\"s\"), Signature(\"a{sv}\")])\n");
        row("variant array", "[1, 'x', {'@o': '/q'}]",
            "Property:  \"m\"  -> \n\t [<1>, <\"x\">, <ObjectPath(\"/q\")>]\n");
        row("array of dictionaries", "{'@aa{sv}': [{'k': 'v'}, {}]}",
            "Property:  \"m\"  -> \n\t [{\"k\": <\"v\">}, {}]\n");
        row("integer keys", "{'@a{is}': {'2': 'two', '10': 'ten'}}",
            "Property:  \"m\"  -> \n\t \"10\" = \"ten\"\n\t \"2\" = \"two\"\n");
        row("object path keys", "{'@a{oi}': {'/p': 1}}", "Property:  \"m\"  -> \n\t \"/p\" = \"1\"\n");
        row("repeated key", "{'@a{ss}': [['k', 'first'], ['a', 'x'], ['k', 'second']]}",
            "Property:  \"m\"  -> \n\t \"a\" = \"x\"\n\t \"k\" = \"second\"\n\t \"k\" = \"second\"\n");
        row("dictionary of structs", "{'@a{s(ii)}': {'r': [1, 2]}}",
            "Property:  \"m\"  -> \n\t \"r\"  -> \n\t\t (1, 2)\n");
        row("dictionary of bytes", "{'@a{sy}': {'b': 65}}", "Property:  \"m\"  -> \n\t \"b\" = QVariant(uchar, 65)\n");
        row("empty dictionary of other kind", "{'@a{ib}': {}}", "Property:  \"m\"  -> \n");
        row("variant in variant", "{'@v': {'@v': 5}}", "Entry:  \"m\"  ->  QVariant(QDBusVariant, )\n");
        row("nested variants inline", "{'@(v)': [{'@v': {'@s': 'x'}}]}", "Property:  \"m\"  -> \n\t (<<\"x\">>)\n");
        row("byte", "{'@y': 65}", "Entry:  \"m\"  ->  QVariant(uchar, 65)\n");
        row("int16 and uint64", "{'@(nt)': [-3, 4294967296]}", "Property:  \"m\"  -> \n\t (-3, 4294967296)\n");
        row("byte array as text", "{'@ay': 'hi'}", "Property:  \"m\"  ->  \"hi\"\n");
        row("deep dictionary with a struct array",
            "{'a': {'b': {'@a(sv)': [['k', 1]]}}}",
            "Property:  \"m\"  -> \n\t \"a\"  -> \n\t\t \"b\"  -> \n\t\t\t [(\"k\", <1>)]\n");
    }

    void status()
    {
        QFETCH(QByteArray, value);
        QFETCH(QByteArray, lines);
        service()->setDetails(typed("{'A': 'first', 'm': " + value + ", 'z': 'last'}"));
        const ClientResult result = runClient(busAddress(), {"status"});
        checkEnded(result);
        QCOMPARE(visible(result.err),
                 visible("Property:  \"A\"  ->  \"first\"\n" + lines + "Property:  \"z\"  ->  \"last\"\n"));
    }

    // As deep as the bus carries: 21 dictionaries, each in a variant.
    void deepestDetails()
    {
        QVariantMap details{{"k", "leaf"}};
        QByteArray expected = QByteArray(20, '\t') + " \"k\" = \"leaf\"\n";
        for (int depth = 20; depth > 0; --depth) {
            details = QVariantMap{{"k", details}};
            expected.prepend(QByteArray(depth - 1, '\t') + (depth > 1 ? " \"k\"  -> \n" : ""));
        }
        expected.replace(0, 0, "Property:  \"k\"  -> \n");
        service()->setDetails(details);
        const ClientResult result = runClient(busAddress(), {"status"});
        checkEnded(result);
        QCOMPARE(result.err.count('\n'), 21);
        QCOMPARE(visible(result.err), visible(expected));
    }

    void scan_data()
    {
        QTest::addColumn<QByteArray>("results");
        QTest::addColumn<QByteArray>("lines");
        QTest::newRow("network as array") << QByteArray("{'a': {'@ai': [1]}, 'b': {'k': 1}}")
                                          << QByteArray("Network:  \"a\"  -> \n\t [1]\n"
                                                        "Network:  \"b\"  -> \n\t \"k\" = \"1\"\n");
        QTest::newRow("network as struct") << QByteArray("{'a': {'@(si)': ['x', 1]}}")
                                           << QByteArray("Network:  \"a\"  -> \n\t (\"x\", 1)\n");
        QTest::newRow("network as other dictionary")
            << QByteArray("{'a': {'@a{is}': {'1': 'x'}}, 'b': {'@a{ss}': [['k', '1'], ['k', '2']]}}")
            << QByteArray("Network:  \"a\"  -> \n\t \"1\" = \"x\"\n"
                          "Network:  \"b\"  -> \n\t \"k\" = \"2\"\n\t \"k\" = \"2\"\n");
        QTest::newRow("properties of every kind")
            << QByteArray("{'n': {'arr': {'@ai': [1]}, 'dict': {'x': 1}, 'path': {'@o': '/p'}, 'vv': {'@v': 1}, 'list': ['a', 'b'], 'y': {'@y': 1}, 's': 't'}}")
            << QByteArray("Network:  \"n\"  -> \n"
                          "\t \"arr\" = QVariant(QDBusArgument, )\n"
                          "\t \"dict\" = QVariant(QDBusArgument, )\n"
                          "\t \"list\" = QVariant(QStringList, (\"a\", \"b\"))\n"
                          "\t \"path\" = QVariant(QDBusObjectPath, )\n"
                          "\t \"s\" = \"t\"\n"
                          "\t \"vv\" = QVariant(QDBusVariant, )\n"
                          "\t \"y\" = QVariant(uchar, 1)\n");
    }

    void scan()
    {
        QFETCH(QByteArray, results);
        QFETCH(QByteArray, lines);
        const QVariantMap map = typed(results);
        const ClientResult result = runWaiting({"scan"}, QStringLiteral("Scan"), [&] { emit service()->ScanResults(map); });
        checkEnded(result);
        QCOMPARE(visible(result.err), visible(lines));
    }

    void credentials()
    {
        const QVariantMap map = typed("{'a': {'@ai': [1]}, 'b': {'@o': '/p'}, 'c': {'@v': 2}, 'd': {'@u': 7}, 'e': {'x': 1}, 'f': {'@(si)': ['x', 1]}}");
        const ClientResult result = runWaiting({"wps"}, QStringLiteral("WpsPbc"), [&] { emit service()->WpsCredentials(map); });
        checkEnded(result);
        QCOMPARE(result.err, QByteArray("Wps Credentials: QMap((\"a\", QVariant(QDBusArgument, ))"
                                        "(\"b\", QVariant(QDBusObjectPath, ))(\"c\", QVariant(QDBusVariant, ))"
                                        "(\"d\", QVariant(uint, 7))(\"e\", QVariant(QDBusArgument, ))"
                                        "(\"f\", QVariant(QDBusArgument, )))\n"));
    }
};

QTEST_GUILESS_MAIN(ValuesTest)
#include "tst_values.moc"
