#include "tests/busfixture.h"

#include "sim/busobject.h"
#include "sim/kepservice.h"
#include "service/endpoint.h"

#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusReply>
#include <QDateTime>
#include <QElapsedTimer>
#include <QProcessEnvironment>
#include <QTest>

namespace {

// Environment of a client run: the private bus as the system bus, and no
// settings that would change how Qt writes its debug stream.
QProcessEnvironment clientEnvironment(const QString &busAddress)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), busAddress);
    env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    // A sanitized client may run under faketime, which is preloaded first.
    env.insert(QStringLiteral("ASAN_OPTIONS"),
               env.value(QStringLiteral("ASAN_OPTIONS")) + QStringLiteral(":verify_asan_link_order=0"));
    for (const char *name : {"QT_LOGGING_RULES", "QT_MESSAGE_PATTERN", "QT_LOGGING_CONF",
                             "QT_FATAL_WARNINGS", "DBUS_SESSION_BUS_ADDRESS"})
        env.remove(QLatin1String(name));
    return env;
}

} // namespace

ClientProcess::ClientProcess(const QString &busAddress)
    : m_busAddress(busAddress)
{
    m_process.setProcessEnvironment(clientEnvironment(busAddress));
}

ClientProcess::~ClientProcess()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

QString ClientProcess::program()
{
    const QString chosen = qEnvironmentVariable("KEPCLIENT_UNDER_TEST");
    return chosen.isEmpty() ? QStringLiteral(KEPCLIENT_PATH) : chosen;
}

QByteArray ClientProcess::usageHeading(const QString &path)
{
    QString heading;
    QDebug(&heading) << path << ": Usage:";
    return heading.trimmed().toUtf8();
}

void ClientProcess::start(const QStringList &arguments, const QString &path, const QStringList &prefix)
{
    QStringList command = qEnvironmentVariable("KEPCLIENT_WRAPPER").split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (m_speedUp > 1)
        command = QStringList{QStringLiteral("faketime"), QStringLiteral("-f"),
                              QStringLiteral("+0 x%1").arg(m_speedUp)} + command;
    command = prefix + command;
    command << path << arguments;
    m_process.setProgram(command.takeFirst());
    m_process.setArguments(command);
    m_started = QDateTime::currentMSecsSinceEpoch();
    m_process.start();
}

ClientResult ClientProcess::finish(int timeoutMs)
{
    ClientResult result;
    result.finished = QTest::qWaitFor([this] { return m_process.state() == QProcess::NotRunning; }, timeoutMs);
    result.elapsedMs = QDateTime::currentMSecsSinceEpoch() - m_started;
    if (!result.finished) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
    result.exitCode = m_process.exitCode();
    result.exitStatus = m_process.exitStatus();
    result.out = m_process.readAllStandardOutput();
    result.err = m_process.readAllStandardError();
    return result;
}

ServiceOnBus::ServiceOnBus(const QString &busAddress, const QString &connectionName)
    : m_busAddress(busAddress)
    , m_connectionName(connectionName)
    , m_connection(QDBusConnection::connectToBus(busAddress, connectionName))
{
}

ServiceOnBus::~ServiceOnBus()
{
    stop();
    m_connection = QDBusConnection(QString());
    QDBusConnection::disconnectFromBus(m_connectionName);
}

bool ServiceOnBus::start(QString *error)
{
    if (!m_connection.isConnected()) {
        *error = m_connection.lastError().message();
        return false;
    }
    m_object = std::make_unique<KepBusObject>();
    return m_object->registerOn(m_connection, error);
}

void ServiceOnBus::stop()
{
    m_object.reset();
}

bool ServiceOnBus::waitForCalls(const QString &member, int count, int timeoutMs) const
{
    const auto arrived = [this, &member] {
        int n = 0;
        for (const CallRecord &call : m_object->calls())
            n += call.member == member;
        return n;
    };
    return QTest::qWaitFor([&] { return arrived() >= count; }, timeoutMs) && arrived() == count;
}

bool ServiceOnBus::sync(int timeoutMs)
{
    // Calls reach the service in the order the bus daemon got them: once a
    // marker sent now has arrived, every earlier call has too.
    QDBusConnection probe = QDBusConnection::connectToBus(m_busAddress, m_connectionName + QStringLiteral("-probe"));
    const QString marker = QStringLiteral("SyncMarker");
    probe.asyncCall(QDBusMessage::createMethodCall(QString::fromLatin1(kep::ServiceName),
                                                   QString::fromLatin1(kep::ObjectPath),
                                                   QString::fromLatin1(kep::InterfaceName), marker));
    const bool arrived = QTest::qWaitFor([&] {
        return !m_object->calls().isEmpty() && m_object->calls().constLast().member == marker;
    }, timeoutMs);
    if (arrived)
        m_object->dropLastCall();
    QDBusConnection::disconnectFromBus(probe.name());
    return arrived;
}

QStringList ServiceOnBus::callTexts() const
{
    QStringList texts;
    for (const CallRecord &call : m_object->calls())
        texts << call.text();
    return texts;
}

QString ServiceOnBus::senderOf(const QString &member) const
{
    for (const CallRecord &call : m_object->calls()) {
        if (call.member == member)
            return call.sender;
    }
    return {};
}

bool waitForSubscription(const QDBusConnection &bus, const QString &client, const QString &member,
                         int timeoutMs)
{
    qDBusRegisterMetaType<QMap<QString, QStringList>>();
    const QString wanted = QStringLiteral("member='%1'").arg(member);
    return QTest::qWaitFor([&] {
        const QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
            QStringLiteral("org.freedesktop.DBus.Debug.Stats"), QStringLiteral("GetAllMatchRules"));
        const QDBusReply<QMap<QString, QStringList>> rules = bus.call(call);
        if (!rules.isValid())
            return false;
        for (const QString &rule : rules.value().value(client)) {
            if (rule.contains(wanted) && rule.contains(QLatin1String("interface='com.calyra.kep'")))
                return true;
        }
        return false;
    }, timeoutMs);
}

ClientResult runClient(const QString &busAddress, const QStringList &arguments)
{
    ClientProcess client(busAddress);
    client.start(arguments);
    return client.finish();
}

QByteArray visible(const QByteArray &text)
{
    QByteArray out = text;
    return out.replace('\t', "\\t");
}

void EndToEnd::startBus()
{
    m_service.reset();
    m_bus = std::make_unique<PrivateBus>();
    QString error;
    QVERIFY2(m_bus->start(&error, QStringLiteral(KEP_TESTS_DIR "/bus.conf")), qPrintable(error));
}

void EndToEnd::startService()
{
    m_service = std::make_unique<ServiceOnBus>(m_bus->address(), QStringLiteral("service"));
    QString error;
    QVERIFY2(m_service->start(&error), qPrintable(error));
}

KepService *EndToEnd::service() const
{
    return m_service->object()->service();
}

void EndToEnd::checkEnded(const ClientResult &result)
{
    QVERIFY(result.finished);
    QCOMPARE(result.exitStatus, QProcess::NormalExit);
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QByteArray());
}

ClientResult EndToEnd::runWaiting(const QStringList &arguments, const QString &call,
                                  const std::function<void()> &emitSignals, const QString &signal)
{
    ClientProcess client(m_bus->address());
    client.start(arguments);
    if (m_service->waitForCalls(call)
        && waitForSubscription(m_service->connection(), m_service->senderOf(call), signal))
        emitSignals();
    return client.finish(20000);
}
