// Typed JSON: each notation is turned into a value, sent as the only argument
// of a call over a peer-to-peer D-Bus connection, and checked as it arrives:
// its signature on the wire and its contents, read back by typedText().
#include "sim/dbustext.h"
#include "sim/typedjson.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusServer>
#include <QDBusVirtualObject>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMutex>
#include <QTest>

#include <utility>

namespace {

const char PeerName[] = "tst_typedjson";

// Keeps every call made on it.
class Sink : public QDBusVirtualObject
{
public:
    QString introspect(const QString &) const override { return QString(); }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &) override
    {
        QMutexLocker lock(&m_mutex);
        m_received << message;
        return true;
    }
    QList<QDBusMessage> take()
    {
        QMutexLocker lock(&m_mutex);
        return std::exchange(m_received, {});
    }

private:
    QMutex m_mutex;
    QList<QDBusMessage> m_received;
};

// One JSON value of any kind (a document alone can only be an object or array).
QJsonValue parse(const QByteArray &text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson("[" + text + "]", &error);
    return error.error == QJsonParseError::NoError ? document.array().at(0) : QJsonValue(QJsonValue::Undefined);
}

} // namespace

class TypedJsonTest : public QObject
{
    Q_OBJECT

    QDBusServer m_server;
    QList<QDBusConnection> m_serverSide;
    Sink m_sink;

    // What arrives at the other end when the value is sent.
    bool deliver(const QVariant &value, QDBusMessage *arrived)
    {
        QDBusMessage call = QDBusMessage::createMethodCall(QString(), "/values", "test.Values", "Take");
        call << value;
        if (!QDBusConnection(PeerName).send(call))
            return false;
        QList<QDBusMessage> got;
        if (!QTest::qWaitFor([&] { got += m_sink.take(); return !got.isEmpty(); }, 5000))
            return false;
        *arrived = got.first();
        return got.size() == 1;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(m_server.isConnected(), qPrintable(m_server.lastError().message()));
        connect(&m_server, &QDBusServer::newConnection, this, [this](const QDBusConnection &peer) {
            m_serverSide << peer;
            m_serverSide.last().registerVirtualObject("/values", &m_sink);
        });
        QVERIFY(QDBusConnection::connectToPeer(m_server.address(), PeerName).isConnected());
        QTRY_COMPARE(m_serverSide.size(), 1);
    }

    void cleanupTestCase() { QDBusConnection::disconnectFromPeer(PeerName); }

    void values_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("arrived");  // signature, blank, contents

        QTest::newRow("string") << QByteArray(R"~("eth0")~") << R"~(s "eth0")~";
        QTest::newRow("int") << QByteArray("42") << "i 42";
        QTest::newRow("int32 min") << QByteArray("-2147483648") << "i -2147483648";
        QTest::newRow("beyond int32") << QByteArray("2147483648") << "x 2147483648";
        QTest::newRow("fraction") << QByteArray("1.5") << "d 1.5";
        QTest::newRow("integral by value") << QByteArray("2.0") << "i 2";
        QTest::newRow("bool") << QByteArray("true") << "b true";
        QTest::newRow("strings") << QByteArray(R"~(["a", "b"])~") << R"~(as ["a", "b"])~";
        QTest::newRow("empty array") << QByteArray("[]") << "as []";
        QTest::newRow("mixed array") << QByteArray(R"~([1, "a", [true]])~") << R"~(av [<i 1>, <s "a">, <av [<b true>]>])~";
        QTest::newRow("object") << QByteArray(R"~({"Name": "eth0", "Mtu": 1500, "Up": true})~")
                                << R"~(a{sv} {"Mtu": <i 1500>, "Name": <s "eth0">, "Up": <b true>})~";
        QTest::newRow("empty object") << QByteArray("{}") << "a{sv} {}";
        QTest::newRow("@y") << QByteArray(R"~({"@y": 255})~") << "y 255";
        QTest::newRow("@n") << QByteArray(R"~({"@n": -3})~") << "n -3";
        QTest::newRow("@q") << QByteArray(R"~({"@q": 3})~") << "q 3";
        QTest::newRow("@u") << QByteArray(R"~({"@u": 4294967295})~") << "u 4294967295";
        QTest::newRow("@x") << QByteArray(R"~({"@x": 5})~") << "x 5";
        QTest::newRow("@x string") << QByteArray(R"~({"@x": "-9223372036854775808"})~") << "x -9223372036854775808";
        QTest::newRow("@t string") << QByteArray(R"~({"@t": "18446744073709551615"})~") << "t 18446744073709551615";
        QTest::newRow("@d") << QByteArray(R"~({"@d": 1})~") << "d 1";
        QTest::newRow("@b") << QByteArray(R"~({"@b": false})~") << "b false";
        QTest::newRow("@s") << QByteArray(R"~({"@s": "x"})~") << R"~(s "x")~";
        QTest::newRow("@o") << QByteArray(R"~({"@o": "/net/eth0"})~") << R"~(o "/net/eth0")~";
        QTest::newRow("@o root") << QByteArray(R"~({"@o": "/"})~") << R"~(o "/")~";
        QTest::newRow("@g") << QByteArray(R"~({"@g": "a{sv}"})~") << R"~(g "a{sv}")~";
        QTest::newRow("@v") << QByteArray(R"~({"@v": 5})~") << "v <i 5>";
        QTest::newRow("@v in @v") << QByteArray(R"~({"@v": {"@v": "x"}})~") << R"~(v <v <s "x">>)~";
        QTest::newRow("@v in a{sv}") << QByteArray(R"~({"Inner": {"@v": "x"}})~") << R"~(a{sv} {"Inner": <v <s "x">>})~";
        QTest::newRow("@v of a(si)") << QByteArray(R"~({"@v": {"@a(si)": [["a", 1]]}})~") << R"~(v <a(si) [("a", 1)]>)~";
        QTest::newRow("@ai") << QByteArray(R"~({"@ai": [1, 2]})~") << "ai [1, 2]";
        QTest::newRow("@ai empty") << QByteArray(R"~({"@ai": []})~") << "ai []";
        QTest::newRow("@as") << QByteArray(R"~({"@as": ["a"]})~") << R"~(as ["a"])~";
        QTest::newRow("@ay numbers") << QByteArray(R"~({"@ay": [1, 2, 255]})~") << "ay [1, 2, 255]";
        QTest::newRow("@ay text") << QByteArray(R"~({"@ay": "h\u00e9"})~") << "ay [104, 195, 169]";
        QTest::newRow("@av") << QByteArray(R"~({"@av": [{"@u": 2}, "s"]})~") << R"~(av [<u 2>, <s "s">])~";
        QTest::newRow("@ao") << QByteArray(R"~({"@ao": ["/a", "/b/c"]})~") << R"~(ao ["/a", "/b/c"])~";
        QTest::newRow("@a{ss} in key order") << QByteArray(R"~({"@a{ss}": {"b": "1", "a": "2"}})~")
                                             << R"~(a{ss} {"a": "2", "b": "1"})~";
        QTest::newRow("@a{is}") << QByteArray(R"~({"@a{is}": {"7": "x", "-2": "y"}})~") << R"~(a{is} {-2: "y", 7: "x"})~";
        QTest::newRow("@a{is} pairs, key repeated") << QByteArray(R"~({"@a{is}": [[7, "x"], [7, "y"], [-2, "z"]]})~")
                                                    << R"~(a{is} {7: "x", 7: "y", -2: "z"})~";
        QTest::newRow("@a{sv} pairs") << QByteArray(R"~({"@a{sv}": [["k", 1], ["k", "two"]]})~")
                                      << R"~(a{sv} {"k": <i 1>, "k": <s "two">})~";
        QTest::newRow("@a{sv} with an @ key") << QByteArray(R"~({"@a{sv}": {"@u": 1}})~") << R"~(a{sv} {"@u": <i 1>})~";
        QTest::newRow("@a{ob}") << QByteArray(R"~({"@a{ob}": {"/a": true}})~") << R"~(a{ob} {"/a": true})~";
        QTest::newRow("@a{bd} keys") << QByteArray(R"~({"@a{bd}": {"true": 1}})~") << "a{bd} {true: 1}";
        QTest::newRow("@a{ds} keys") << QByteArray(R"~({"@a{ds}": {"0.5": "h"}})~") << R"~(a{ds} {0.5: "h"})~";
        QTest::newRow("@a{ts} keys") << QByteArray(R"~({"@a{ts}": {"18446744073709551615": "max"}})~")
                                     << R"~(a{ts} {18446744073709551615: "max"})~";
        QTest::newRow("@(si)") << QByteArray(R"~({"@(si)": ["a", 3]})~") << R"~((si) ("a", 3))~";
        QTest::newRow("@a(si)") << QByteArray(R"~({"@a(si)": [["a", 1], ["b", 2]]})~") << R"~(a(si) [("a", 1), ("b", 2)])~";
        QTest::newRow("@a(si) empty") << QByteArray(R"~({"@a(si)": []})~") << "a(si) []";
        QTest::newRow("@a(ybnqiuxtdsogv)")
            << QByteArray(R"~({"@a(ybnqiuxtdsogv)": [[1, true, -2, 3, -4, 5, -6, 7, 0.5, "s", "/o", "a{sv}", 8]]})~")
            << R"~(a(ybnqiuxtdsogv) [(1, true, -2, 3, -4, 5, -6, 7, 0.5, "s", "/o", "a{sv}", <i 8>)])~";
        QTest::newRow("@aai") << QByteArray(R"~({"@aai": [[1], [], [2, 3]]})~") << "aai [[1], [], [2, 3]]";
        QTest::newRow("@aa(si)") << QByteArray(R"~({"@aa(si)": [[["a", 1]], []]})~") << R"~(aa(si) [[("a", 1)], []])~";
        QTest::newRow("@a{s(ii)}") << QByteArray(R"~({"@a{s(ii)}": {"k": [1, 2]}})~") << R"~(a{s(ii)} {"k": (1, 2)})~";
        QTest::newRow("@a{sa{sv}}") << QByteArray(R"~({"@a{sa{sv}}": {"eth0": {"Mtu": 1500, "Dns": ["9.9.9.9"]}}})~")
                                    << R"~(a{sa{sv}} {"eth0": {"Dns": <as ["9.9.9.9"]>, "Mtu": <i 1500>}})~";
        QTest::newRow("@(a{sv}ayv)") << QByteArray(R"~({"@(a{sv}ayv)": [{"a": 1}, "xy", {"@d": 2}]})~")
                                     << R"~((a{sv}ayv) ({"a": <i 1>}, [120, 121], <d 2>))~";
        QTest::newRow("details fragment")
            << QByteArray(R"~({"Wired": {"Ip": "10.0.0.2", "Dns": ["9.9.9.9", "1.1.1.1"], "Mtu": {"@u": 1500},
                              "Device": {"@o": "/net/eth0"}}, "RxBytes": {"@t": "18446744073709551615"}})~")
            << R"~(a{sv} {"RxBytes": <t 18446744073709551615>, "Wired": <a{sv} {"Device": <o "/net/eth0">, )~"
               R"~("Dns": <as ["9.9.9.9", "1.1.1.1"]>, "Ip": <s "10.0.0.2">, "Mtu": <u 1500>}>})~";
        QByteArray deep = "{\"@v\": 1}";
        QString arrivedDeep = "v <i 1>";
        for (int level = 0; level < 21; ++level) {  // each an array, a dictionary entry and a variant
            deep = "{\"k\": " + deep + "}";
            arrivedDeep = "a{sv} {\"k\": <" + arrivedDeep + ">}";
        }
        QTest::newRow("64 containers deep") << deep << arrivedDeep;
    }

    void values()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, arrived);
        const QJsonValue input = parse(json);
        QVERIFY(!input.isUndefined());
        QString error;
        const QVariant value = typedJsonValue(input, "Details", &error);
        QVERIFY2(value.isValid(), qPrintable(error));
        QVERIFY(error.isEmpty());
        const QString signature = arrived.section(' ', 0, 0);
        QCOMPARE(dbusSignatureOf(value), signature);
        QDBusMessage message;
        QVERIFY(deliver(value, &message));
        QCOMPARE(message.signature(), signature);
        QCOMPARE(typedText(message.arguments().value(0)), arrived);
    }

    void errors_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("error");

        const struct { const char *name, *json, *error; } rows[] = {
            {"null", "null", "Details: null has no D-Bus type"},
            {"NUL in string", R"~("a\u0000b")~", "Details: a D-Bus string cannot hold a NUL character"},
            {"NUL in strings", R"~(["x", "\u0000"])~", "Details[1]: a D-Bus string cannot hold a NUL character"},
            {"NUL in @as", R"~({"@as": ["x", "\u0000"]})~", "Details[1]: a D-Bus string cannot hold a NUL character"},
            {"null in array", "[1, null]", "Details[1]: null has no D-Bus type"},
            {"null in member", R"~({"Wired": {"Dns": ["a", null]}})~", "Details.Wired.Dns[1]: null has no D-Bus type"},
            {"typed element", R"~({"Wired": {"Dns": {"@as": ["a", "b", 3]}}})~",
             "Details.Wired.Dns[2]: expected a string for 's', got a number"},
            {"beyond int64", "1e19", R"~(Details: 1e+19 is out of range for 'x'; write {"@d": ...} for a double)~"},
            {"@i fraction", R"~({"@i": 1.5})~", "Details: expected an integer for 'i', got 1.5"},
            {"@y 256", R"~({"@y": 256})~", "Details: 256 is out of range for 'y' (0 to 255)"},
            {"@y -1", R"~({"@y": -1})~", "Details: -1 is out of range for 'y' (0 to 255)"},
            {"@n", R"~({"@n": 32768})~", "Details: 32768 is out of range for 'n' (-32768 to 32767)"},
            {"@u -1", R"~({"@u": -1})~", "Details: -1 is out of range for 'u' (0 to 4294967295)"},
            {"@i", R"~({"@i": 2147483648})~", "Details: 2147483648 is out of range for 'i' (-2147483648 to 2147483647)"},
            {"@t string", R"~({"@t": "18446744073709551616"})~",
             R"~(Details: "18446744073709551616" is out of range for 't' (0 to 18446744073709551615))~"},
            {"@x not decimal", R"~({"@x": "12a"})~", R"~(Details: "12a" is not a decimal integer)~"},
            {"@i string", R"~({"@i": "5"})~", "Details: expected a number for 'i', got a string"},
            {"@s number", R"~({"@s": 5})~", "Details: expected a string for 's', got a number"},
            {"@b number", R"~({"@b": 1})~", "Details: expected true or false for 'b', got a number"},
            {"@o relative", R"~({"@o": "net/eth0"})~", R"~(Details: "net/eth0" is not a valid object path)~"},
            {"@o trailing /", R"~({"@o": "/net/"})~", R"~(Details: "/net/" is not a valid object path)~"},
            {"@o dash", R"~({"@o": "/net/eth-0"})~", R"~(Details: "/net/eth-0" is not a valid object path)~"},
            {"@g invalid", R"~({"@g": "a{vs}"})~", R"~(Details: "a{vs}" is not a valid signature)~"},
            {"@g empty", R"~({"@g": ""})~", R"~(Details: "" is not a valid signature)~"},
            {"@h", R"~({"@h": 3})~", R"~(Details: invalid type "@h": file descriptors ('h') are not supported)~"},
            {"two types", R"~({"@ii": [1, 2]})~", R"~(Details: invalid type "@ii": not a single complete type)~"},
            {"unknown code", R"~({"@z": 1})~", R"~(Details: invalid type "@z": unknown type code 'z')~"},
            {"no type", R"~({"@": 1})~", R"~(Details: invalid type "@": no type after '@')~"},
            {"variant key", R"~({"@a{vs}": {}})~", R"~(Details: invalid type "@a{vs}": dictionary key must be a basic type)~"},
            {"unterminated", "{\"@(si\": []}", "Details: invalid type \"@(si\": unterminated structure"},
            {"empty struct", R"~({"@()": []})~", R"~(Details: invalid type "@()": empty structure)~"},
            {"bare a", R"~({"@a": []})~", R"~(Details: invalid type "@a": array without element type)~"},
            {"bare entry", R"~({"@{sv}": {}})~", R"~(Details: invalid type "@{sv}": dictionary entry outside an array)~"},
            {"three in entry", R"~({"@a{sss}": {}})~",
             R"~(Details: invalid type "@a{sss}": dictionary entry needs exactly a key and a value type)~"},
            {"struct arity", R"~({"@(si)": ["a"]})~", "Details: expected 2 fields for '(si)', got 1"},
            {"struct kind", R"~({"@(si)": {"a": 1}})~", "Details: expected an array for '(si)', got an object"},
            {"array kind", R"~({"@ai": 1})~", "Details: expected an array for 'ai', got a number"},
            {"ay kind", R"~({"@ay": true})~", "Details: expected an array or a string for 'ay', got a boolean"},
            {"ay element", R"~({"@ay": [1, 256]})~", "Details[1]: 256 is out of range for 'y' (0 to 255)"},
            {"aai element", R"~({"@aai": [[1], [2, "x"]]})~", "Details[1][1]: expected a number for 'i', got a string"},
            {"a(si) field", R"~({"@a(si)": [["a", 1], ["b", "c"]]})~",
             "Details[1][1]: expected a number for 'i', got a string"},
            {"dict kind", R"~({"@a{ss}": 5})~",
             "Details: expected an object or an array of [key, value] pairs for 'a{ss}', got a number"},
            {"dict value", R"~({"@a{ss}": {"k": 1}})~", "Details.k: expected a string for 's', got a number"},
            {"dict key name", R"~({"@a{is}": {"x": "a"}})~", R"~(Details.x: key "x" is not an integer)~"},
            {"dict key range", R"~({"@a{ys}": {"300": "a"}})~", "Details.300: 300 is out of range for 'y' (0 to 255)"},
            {"short pair", R"~({"@a{is}": [[1]]})~", "Details[0]: expected a [key, value] pair, got an array of 1"},
            {"pair key", R"~({"@a{is}": [["1", "a"]]})~", "Details[0][0]: expected a number for 'i', got a string"},
            {"pair value", R"~({"@a{sv}": [["k", null]]})~", "Details[0][1]: null has no D-Bus type"},
            {"in @v", R"~({"@v": {"@a{sv}": {"Wired": {"Mtu": null}}}})~", "Details.Wired.Mtu: null has no D-Bus type"},
        };
        for (const auto &row : rows)
            QTest::newRow(row.name) << QByteArray(row.json) << QString::fromUtf8(row.error);
        QByteArray open, close;
        QString where = "Details";
        for (int level = 0; level < 21; ++level) {
            open += "{\"k\": ";
            close += "}";
            where += ".k";
        }
        QTest::newRow("65 containers deep") << open + "{\"@v\": {\"@v\": 1}}" + close
                                            << where + ": nested more than 64 containers deep";
        QTest::newRow("strings 65 deep") << open + "{\"@v\": [\"a\"]}" + close
                                         << where + "[0]: nested more than 64 containers deep";
        QTest::newRow("too deep") << "{\"@" + QByteArray(33, 'a') + "i\": []}"
                                  << "Details: invalid type \"@" + QString(33, 'a') + "i\": nested more than 32 deep";
    }

    void errors()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, error);
        const QJsonValue input = parse(json);
        QVERIFY(!input.isUndefined());
        QString message;
        QVERIFY(!typedJsonValue(input, "Details", &message).isValid());
        QCOMPARE(message, error);
    }

    // Read back by hand rather than by typedText(): order and repeats kept.
    void pairsArriveInOrder()
    {
        QString error;
        const QVariant value = typedJsonValue(parse(R"~({"@a{q(sy)}": [[2, ["b", 1]], [1, ["a", 2]], [2, ["c", 3]]]})~"),
                                              "Scan", &error);
        QVERIFY2(value.isValid(), qPrintable(error));
        QDBusMessage message;
        QVERIFY(deliver(value, &message));
        const QDBusArgument arg = message.arguments().value(0).value<QDBusArgument>();
        QStringList entries;
        arg.beginMap();
        while (!arg.atEnd()) {
            ushort key = 0;
            QString text;
            uchar byte = 0;
            arg.beginMapEntry();
            arg >> key;
            arg.beginStructure();
            arg >> text >> byte;
            arg.endStructure();
            arg.endMapEntry();
            entries << QStringLiteral("%1=%2%3").arg(key).arg(text).arg(byte);
        }
        arg.endMap();
        QCOMPARE(entries, (QStringList{"2=b1", "1=a2", "2=c3"}));
    }

    void maps()
    {
        QString error;
        const auto details = typedJsonMap(parse(R"~({"Mode": "wired", "Wired": {"Mtu": {"@u": 1500}}})~").toObject(),
                                          "Details", &error);
        QVERIFY2(details, qPrintable(error));
        QCOMPARE(details->keys(), (QStringList{"Mode", "Wired"}));
        QCOMPARE(details->value("Wired").userType(), int(QMetaType::QVariantMap));
        QDBusMessage message;
        QVERIFY(deliver(*details, &message));
        QCOMPARE(typedText(message.arguments().value(0)), R"~(a{sv} {"Mode": <s "wired">, "Wired": <a{sv} {"Mtu": <u 1500>}>})~");

        const auto explicitMap = typedJsonMap(parse(R"~({"@a{sv}": {"@u": 1}})~").toObject(), "Details", &error);
        QVERIFY2(explicitMap, qPrintable(error));
        QCOMPARE(explicitMap->value("@u"), QVariant(1));

        QVERIFY(!typedJsonMap(parse(R"~({"@u": 5})~").toObject(), "Details", &error));
        QCOMPARE(error, R"~(Details: expected a dictionary (a{sv}), got type "@u")~");
        QVERIFY(!typedJsonMap(parse(R"~({"Wired": {"Dns": [null]}})~").toObject(), "Details", &error));
        QCOMPARE(error, "Details.Wired.Dns[0]: null has no D-Bus type");
    }

    // Runs last: it uses up the pool of element types for the whole process.
    void elementTypePool()
    {
        QString error;
        for (int i = 0; i < 300; ++i)  // a type keeps its slot: reuse costs none
            QVERIFY2(typedJsonValue(parse(R"~({"@a(sd)": []})~"), "Scan", &error).isValid(), qPrintable(error));
        int exhaustedAt = 0;
        for (int fields = 1; fields <= 129 && exhaustedAt == 0; ++fields) {
            if (!typedJsonValue(parse("{\"@a(" + QByteArray(fields, 'u') + ")\": []}"), "Scan", &error).isValid())
                exhaustedAt = fields;
        }
        QVERIFY(exhaustedAt > 1);
        QCOMPARE(error, "Scan: more than 128 distinct container element types");
        const QVariant value = typedJsonValue(parse(R"~({"@a(sd)": [["a", 0.5]]})~"), "Scan", &error);
        QDBusMessage message;
        QVERIFY(deliver(value, &message));
        QCOMPARE(typedText(message.arguments().value(0)), R"~(a(sd) [("a", 0.5)])~");
    }
};

QTEST_GUILESS_MAIN(TypedJsonTest)
#include "tst_typedjson.moc"
