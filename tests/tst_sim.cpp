// kep-sim as a user runs it: serving with its behaviour switched on, its
// scenario files, and "run" with its teardown.
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusVariant>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

namespace {

const QString Service = QStringLiteral("com.calyra.kep");
const QString Path = QStringLiteral("/com/calyra/kep");

// Records the service's signals as "Member(argument text)".
class SignalLog : public QObject
{
    Q_OBJECT
public:
    QStringList lines;
public slots:
    void record(const QDBusMessage &message)
    {
        QStringList parts;
        for (const QVariant &argument : message.arguments())
            parts << (argument.userType() == qMetaTypeId<QDBusArgument>() ? QStringLiteral("{...}") : argument.toString());
        lines << message.member() + QLatin1Char('(') + parts.join(QLatin1String(", ")) + QLatin1Char(')');
    }
};

// The first line the process prints, or nothing if it ends or waits too long.
QString firstLine(QProcess &process)
{
    if (!QTest::qWaitFor([&] { return process.canReadLine() || process.state() == QProcess::NotRunning; }, 20000))
        return {};
    return QString::fromLocal8Bit(process.readLine()).trimmed();
}

} // namespace

class SimTest : public QObject
{
    Q_OBJECT

private:
    QProcess m_sim;
    QDBusConnection m_bus{QString()};
    QTemporaryDir m_dir;

    QString scenario(const QByteArray &json)
    {
        static int n = 0;
        const QString path = m_dir.filePath(QStringLiteral("scenario%1.json").arg(++n));
        QFile file(path);
        file.open(QIODevice::WriteOnly);
        file.write(json);
        return path;
    }

    QDBusMessage call(const QString &interface, const QString &member, const QVariantList &arguments = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(Service, Path, interface, member);
        message.setArguments(arguments);
        return m_bus.call(message);
    }

    QVariant get(const char *property)
    {
        const QDBusMessage reply = call(QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"),
                                        {Service, QLatin1String(property)});
        return reply.arguments().value(0).value<QDBusVariant>().variant();
    }

    QDBusMessage set(const char *property, const QVariant &value)
    {
        return call(QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Set"),
                    {Service, QLatin1String(property), QVariant::fromValue(QDBusVariant(value))});
    }

    QVariantMap details(const char *part)
    {
        const QVariantMap all = qdbus_cast<QVariantMap>(get("Details").value<QDBusArgument>());
        return qdbus_cast<QVariantMap>(all.value(QLatin1String(part)).value<QDBusArgument>());
    }

private slots:
    void initTestCase()
    {
        m_sim.setProgram(QStringLiteral(KEP_SIM_PATH));
        m_sim.setArguments({QStringLiteral("--scenario"),
                            scenario(R"({"scan": {"delay_ms": 0}, "wps": {"scan_passes": 2, "step_ms": 10}})"),
                            QStringLiteral("serve")});
        m_sim.start();
        const QString line = firstLine(m_sim);
        QVERIFY2(line.startsWith(QLatin1String("DBUS_SYSTEM_BUS_ADDRESS=")), qPrintable(line));
        m_bus = QDBusConnection::connectToBus(line.section(QLatin1Char('='), 1), QStringLiteral("test"));
        QVERIFY(m_bus.isConnected());
    }

    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus(QStringLiteral("test"));
        m_sim.terminate();
        QVERIFY(m_sim.waitForFinished(10000));
        QCOMPARE(m_sim.exitCode(), 0);
    }

    void properties()
    {
        QCOMPARE(get("Mode").toString(), QStringLiteral("automatic"));
        QCOMPARE(details("Wired").value("Interface").toString(), QStringLiteral("eth0"));
        QCOMPARE(details("Wireless").value("Ssid").toString(), QStringLiteral("Workshop"));

        QCOMPARE(set("LogLevel", 4).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(get("LogLevel").toInt(), 4);
        QCOMPARE(set("LogLevel", QStringLiteral("5")).errorName(), QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"));
        QCOMPARE(set("LogLevel", 5u).errorName(), QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"));
        QCOMPARE(set("Mode", QStringLiteral("off")).errorName(), QStringLiteral("org.freedesktop.DBus.Error.PropertyReadOnly"));
        QCOMPARE(set("Nope", 1).errorName(), QStringLiteral("org.freedesktop.DBus.Error.UnknownProperty"));
        QCOMPARE(get("LogLevel").toInt(), 4);

        const QVariantMap ip{{"Ip", "10.9.8.7"}, {"Netmask", "255.0.0.0"}, {"Gatewap", "10.0.0.1"}, {"Dns", "1.1.1.1"}};
        QCOMPARE(set("WiredIpSettings", ip).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(details("Wired").value("Method").toString(), QStringLiteral("static"));
        QCOMPARE(details("Wired").value("Address").toString(), QStringLiteral("10.9.8.7"));
        QCOMPARE(details("Wired").value("Gateway").toString(), QStringLiteral("10.0.0.1"));
    }

    void methods()
    {
        SignalLog log;
        QVERIFY(m_bus.connect(Service, Path, Service, QString(), &log, SLOT(record(QDBusMessage))));

        QCOMPARE(call(Service, QStringLiteral("SetNormalMode"), {QStringLiteral("wired")}).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(get("Mode").toString(), QStringLiteral("wired"));
        QCOMPARE(call(Service, QStringLiteral("StartSoftAp"), {QStringLiteral("uap1"), QVariantMap()}).type(),
                 QDBusMessage::ReplyMessage);
        QCOMPARE(get("Mode").toString(), QStringLiteral("softap"));
        QCOMPARE(details("SoftAp").value("Interface").toString(), QStringLiteral("uap1"));
        QCOMPARE(call(Service, QStringLiteral("StopSoftAp"), {QStringLiteral("uap1")}).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(get("Mode").toString(), QStringLiteral("off"));
        QCOMPARE(call(Service, QStringLiteral("SetNormalMode"), {7}).errorName(),
                 QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs"));

        const QDBusMessage eth0 = call(Service, QStringLiteral("InterfaceDetails"), {QStringLiteral("eth0")});
        QCOMPARE(eth0.signature(), QStringLiteral("a{sv}"));
        QCOMPARE(qdbus_cast<QVariantMap>(eth0.arguments().at(0)).value("Mac").toString(), QStringLiteral("02:4b:45:50:00:01"));

        const QStringList expected{
            "Disconnecting(automatic)", "Disconnected(automatic)", "InterfaceStatusChanged(wired, 1)", "Connected(wired)",
            "AddressesChanged()",                                                    // normal wired
            "Disconnecting(wired)", "Disconnected(wired)", "AddressesChanged()", "Started()", // softap start
            "Disconnecting(softap)", "Disconnected(softap)", "AddressesChanged()"};           // softap stop
        QTRY_COMPARE_WITH_TIMEOUT(log.lines.size(), expected.size(), 10000);
        QCOMPARE(log.lines, expected);
        log.lines.clear();
        call(Service, QStringLiteral("Scan"));
        QTRY_COMPARE_WITH_TIMEOUT(log.lines, QStringList{"ScanResults({...})"}, 10000);
        log.lines.clear();
        call(Service, QStringLiteral("WpsPbc"));
        QTRY_COMPARE_WITH_TIMEOUT(log.lines, (QStringList{"ScanResults({...})", "ScanResults({...})", "WpsCredentials({...})"}), 10000);
    }

    void badScenarios_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("problem");
        QTest::newRow("syntax") << QByteArray("{\n  \"log_level\": 3,\n  \"mode\" \"off\"\n}") << ":3:10: missing name separator";
        QTest::newRow("unknown key") << QByteArray(R"({"modes": "off"})")
                                     << ": modes: unknown key (known here: details, log_level, mode, wireless_networks, "
                                        "wired_ip, wireless_ip, scan, wps, silent, property_reads)";
        QTest::newRow("wrong kind") << QByteArray(R"({"log_level": "high"})")
                                    << ": log_level: expected a whole number from -2147483648 to 2147483647";
        QTest::newRow("both outcomes") << QByteArray(R"({"wps": {"credentials": {}, "error": "x"}})")
                                       << ": wps: give either credentials or error, not both";
        QTest::newRow("bad typed value") << QByteArray(R"({"details": {"Wired": {"Mtu": {"@q": 70000}}}})")
                                         << ": details.Wired.Mtu: 70000 is out of range for 'q' (0 to 65535)";
    }

    void badScenarios()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, problem);
        const QString file = scenario(json);
        QProcess check;
        check.start(QStringLiteral(KEP_SIM_PATH), {QStringLiteral("--scenario"), file, QStringLiteral("check")});
        QVERIFY(check.waitForFinished(10000));
        QCOMPARE(check.exitCode(), 2);
        QCOMPARE(QString::fromUtf8(check.readAllStandardError()), QStringLiteral("kep-sim: ") + file + problem + QLatin1Char('\n'));
    }

    // run passes the command's output and exit status through, and tears
    // down the command and its bus when it is itself told to stop.
    void run()
    {
        QProcess sim;
        sim.start(QStringLiteral(KEP_SIM_PATH),
                  {QStringLiteral("run"), QStringLiteral("--"), QStringLiteral("sh"), QStringLiteral("-c"),
                   QStringLiteral("echo \"$DBUS_SYSTEM_BUS_ADDRESS\"; echo oops >&2; exit 3")});
        QVERIFY(sim.waitForFinished(20000));
        QCOMPARE(sim.exitCode(), 3);
        QVERIFY(sim.readAllStandardOutput().startsWith("unix:"));
        QCOMPARE(sim.readAllStandardError(), QByteArray("oops\n"));
    }

    void runInterrupted()
    {
        QProcess sim;
        sim.start(QStringLiteral(KEP_SIM_PATH),
                  {QStringLiteral("run"), QStringLiteral("sh"), QStringLiteral("-c"),
                   QStringLiteral("echo \"$$ $DBUS_SYSTEM_BUS_ADDRESS\"; exec sleep 60")});
        const QStringList words = firstLine(sim).split(QLatin1Char(' '));
        QCOMPARE(words.size(), 2);
        const qint64 command = words.at(0).toLongLong();
        QVERIFY(QDBusConnection::connectToBus(words.at(1), QStringLiteral("probe")).isConnected());
        QDBusConnection::disconnectFromBus(QStringLiteral("probe"));

        ::kill(pid_t(sim.processId()), SIGINT);
        QVERIFY(sim.waitForFinished(10000));
        QCOMPARE(sim.exitCode(), 130);
        QTRY_VERIFY_WITH_TIMEOUT(::kill(pid_t(command), 0) != 0, 10000);
        QTRY_VERIFY_WITH_TIMEOUT(!QDBusConnection::connectToBus(words.at(1), QStringLiteral("gone")).isConnected(), 10000);
        QDBusConnection::disconnectFromBus(QStringLiteral("gone"));
    }
};

QTEST_GUILESS_MAIN(SimTest)
#include "tst_sim.moc"
