#ifndef KEP_TESTS_BUSFIXTURE_H
#define KEP_TESTS_BUSFIXTURE_H

#include <QByteArray>
#include <QDBusConnection>
#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

#include "sim/privatebus.h"

class KepBusObject;
class KepService;

// What one run of the client left behind.
struct ClientResult
{
    bool finished = false;
    int exitCode = -1;
    QProcess::ExitStatus exitStatus = QProcess::CrashExit;
    QByteArray out;
    QByteArray err;
    qint64 elapsedMs = 0;
};

// The kepclient binary under test, run as a user runs it, with the system
// bus pointed at the private bus. KEPCLIENT_WRAPPER (words, e.g. an emulator
// or valgrind) is put in front when set.
class ClientProcess
{
public:
    explicit ClientProcess(const QString &busAddress);
    ~ClientProcess();

    static QString program();                 // the path handed to the client as argv[0]
    // Heading line of the usage text for that path.
    static QByteArray usageHeading(const QString &path = program());

    // Runs the client under faketime with its clock `factor` times faster.
    void setTimeSpeedUp(int factor) { m_speedUp = factor; }
    // The speed-up the client's clock can have: none under a wrapper (an
    // emulator reads the real clock itself).
    static int availableSpeedUp(int wanted) { return hasWrapper() ? 1 : wanted; }
    static bool hasWrapper() { return !qEnvironmentVariableIsEmpty("KEPCLIENT_WRAPPER"); }
    // `prefix` goes before everything, e.g. a launcher that sets up argv.
    void start(const QStringList &arguments, const QString &path = program(), const QStringList &prefix = {});
    // Runs the event loop (so an in-process service keeps answering) until the
    // client has ended or `timeoutMs` passed; then kills it if still running.
    ClientResult finish(int timeoutMs = 60000);

private:
    QString m_busAddress;
    int m_speedUp = 1;
    QProcess m_process;
    qint64 m_started = 0;
};

// The simulator's service on its own connection to the private bus.
class ServiceOnBus
{
public:
    ServiceOnBus(const QString &busAddress, const QString &connectionName);
    ~ServiceOnBus();

    bool start(QString *error);
    void stop();
    KepBusObject *object() const { return m_object.get(); }
    QDBusConnection connection() const { return m_connection; }

    // Waits, running the event loop, until `count` calls of `member` arrived.
    bool waitForCalls(const QString &member, int count = 1, int timeoutMs = 20000) const;
    // Returns once every call sent to the service before now has arrived.
    bool sync(int timeoutMs = 20000);
    QStringList callTexts() const;   // every call so far, as CallRecord::text()
    QString senderOf(const QString &member) const;

private:
    QString m_busAddress;
    QString m_connectionName;
    QDBusConnection m_connection;
    std::unique_ptr<KepBusObject> m_object;
};

// Waits until the bus routes the signal `member` of the service's interface
// to `client` (the client has subscribed), asking the bus daemon's stats.
bool waitForSubscription(const QDBusConnection &bus, const QString &client, const QString &member,
                         int timeoutMs = 20000);

// Runs the client once against the bus and returns what it printed.
ClientResult runClient(const QString &busAddress, const QStringList &arguments);

// What the end-to-end suites share: a private bus, the simulated service on
// it, and ways to run the client against them.
class EndToEnd : public QObject
{
    Q_OBJECT

private slots:
    // The usual set-up; a suite that needs another declares its own.
    void initTestCase() { startBus(); }
    void init() { startService(); }
    void cleanup() { m_service.reset(); }

protected:
    void startBus();       // a new private bus (and no service yet)
    void startService();   // a fresh simulated service on the bus
    QString busAddress() const { return m_bus->address(); }
    KepService *service() const;

    // The client ended by itself, normally, with status 0 and nothing on stdout.
    static void checkEnded(const ClientResult &result);

    // Runs a command that waits for signals: once its call has reached the
    // service and the client listens for `signal` (ScanResults is the last
    // one both scan and wps listen to), `emitSignals` runs; then the client
    // is waited for.
    ClientResult runWaiting(const QStringList &arguments, const QString &call,
                            const std::function<void()> &emitSignals,
                            const QString &signal = QStringLiteral("ScanResults"));

    std::unique_ptr<PrivateBus> m_bus;
    std::unique_ptr<ServiceOnBus> m_service;
};

// Every line of `text` with tabs shown as \t, for readable failure messages.
QByteArray visible(const QByteArray &text);

#endif
