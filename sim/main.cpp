// kep-sim: the connection manager, simulated, for trying kepclient and
// developing scripts around it without the device.
#include "sim/busobject.h"
#include "sim/privatebus.h"
#include "sim/scenario.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QProcess>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

const char Usage[] =
    "Usage:\n"
    "  kep-sim [options] run [--] COMMAND [ARGS...]\n"
    "      Start a private bus, serve the simulated service on it, run COMMAND with\n"
    "      DBUS_SYSTEM_BUS_ADDRESS pointing at it, then tear everything down.\n"
    "      Exits with COMMAND's exit status.\n"
    "  kep-sim [options] serve [--system | --address ADDRESS]\n"
    "  kep-sim [options] --system | --address ADDRESS\n"
    "      Serve until interrupted: on the system bus, on the bus at ADDRESS, or on\n"
    "      a private bus whose address is printed as DBUS_SYSTEM_BUS_ADDRESS=...\n"
    "  kep-sim [options] check\n"
    "      Only read the scenario file and report whether it is well formed.\n";

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t n = ::write(signalPipe[1], &byte, 1);
}

// Interrupts, hang-ups and termination requests arrive in the event loop.
void catchStopSignals()
{
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaction(signal, &action, nullptr);
}

int fail(const QString &message, int status = 2)
{
    std::fprintf(stderr, "kep-sim: %s\n", qPrintable(message));
    return status;
}

void trace(const QString &line)
{
    std::fprintf(stderr, "kep-sim: %s\n", qPrintable(line));
    std::fflush(stderr);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("kep-sim"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KEP_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromLatin1(Usage));
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption scenarioOption({QStringLiteral("s"), QStringLiteral("scenario")},
                                            QStringLiteral("Play the scenario in FILE (JSON)."), QStringLiteral("FILE"));
    const QCommandLineOption traceOption(QStringLiteral("trace"),
                                         QStringLiteral("Print every call received and signal sent on stderr."));
    const QCommandLineOption systemOption(QStringLiteral("system"), QStringLiteral("serve: use the system bus."));
    const QCommandLineOption addressOption(QStringLiteral("address"), QStringLiteral("serve: use the bus at ADDRESS."),
                                           QStringLiteral("ADDRESS"));
    parser.addOptions({scenarioOption, traceOption, systemOption, addressOption});
    parser.process(app);

    QStringList words = parser.positionalArguments();
    // "kep-sim --system" alone (or with --address) means serve.
    const bool busGiven = parser.isSet(systemOption) || parser.isSet(addressOption);
    const QString mode = !words.isEmpty() ? words.takeFirst() : busGiven ? QStringLiteral("serve") : QString();
    if (mode == QLatin1String("run") && !words.isEmpty() && words.first() == QLatin1String("--"))
        words.removeFirst();
    if ((mode != QLatin1String("run") && mode != QLatin1String("serve") && mode != QLatin1String("check"))
        || (mode == QLatin1String("run") && words.isEmpty()) || (mode != QLatin1String("run") && !words.isEmpty()))
        return fail(QStringLiteral("expected run, serve or check; see kep-sim --help"));

    Scenario scenario = defaultScenario();
    if (parser.isSet(scenarioOption)) {
        QString error;
        const std::optional<Scenario> loaded = loadScenario(parser.value(scenarioOption), &error);
        if (!loaded)
            return fail(error);
        scenario = *loaded;
    }
    if (mode == QLatin1String("check")) {
        std::printf("%s: ok\n", qPrintable(parser.value(scenarioOption)));
        return 0;
    }

    catchStopSignals();
    bool interrupted = false;
    QSocketNotifier stopNotifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&stopNotifier, &QSocketNotifier::activated, &app, [&] {
        char bytes[16];
        while (::read(signalPipe[0], bytes, sizeof bytes) > 0) {
        }
        interrupted = true;
        QCoreApplication::exit(130);
    });

    PrivateBus privateBus;
    QDBusConnection bus{QString()};
    QString error;
    if (parser.isSet(systemOption)) {
        bus = QDBusConnection::systemBus();
    } else if (parser.isSet(addressOption)) {
        bus = QDBusConnection::connectToBus(parser.value(addressOption), QStringLiteral("kep-sim"));
    } else {
        if (!privateBus.start(&error))
            return fail(error, 1);
        bus = QDBusConnection::connectToBus(privateBus.address(), QStringLiteral("kep-sim"));
    }
    if (!bus.isConnected())
        return fail(QStringLiteral("cannot connect to the bus: ") + bus.lastError().message(), 1);

    KepBusObject object;
    object.service()->setBehaviour(true);
    applyScenario(scenario, &object);
    if (parser.isSet(traceOption)) {
        QObject::connect(&object, &KepBusObject::callReceived, [](const CallRecord &call) {
            trace(QStringLiteral("call ") + call.text());
        });
        QObject::connect(&object, &KepBusObject::signalSent, [](const QString &member, const QVariantList &arguments) {
            trace(QStringLiteral("signal ") + CallRecord{QString(), QString(), member, QString(), arguments}.text());
        });
    }
    if (!object.registerOn(bus, &error))
        return fail(QStringLiteral("cannot serve com.calyra.kep: ") + error, 1);

    if (mode == QLatin1String("serve")) {
        if (!privateBus.address().isEmpty()) {
            std::printf("DBUS_SYSTEM_BUS_ADDRESS=%s\n", qPrintable(privateBus.address()));
            std::fflush(stdout);
        }
        const int status = app.exec();
        return interrupted ? 0 : status;
    }

    // run: the command's own output goes straight through.
    QProcess command;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), privateBus.address());
    command.setProcessEnvironment(environment);
    command.setProcessChannelMode(QProcess::ForwardedChannels);
    command.setInputChannelMode(QProcess::ForwardedInputChannel);
    command.setProgram(words.takeFirst());
    command.setArguments(words);
    QObject::connect(&command, qOverload<int, QProcess::ExitStatus>(&QProcess::finished),
                     [](int code, QProcess::ExitStatus status) {
                         QCoreApplication::exit(status == QProcess::NormalExit ? code : 1);
                     });
    QObject::connect(&command, &QProcess::errorOccurred, [&command](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            QCoreApplication::exit(fail(command.program() + QStringLiteral(": ") + command.errorString(), 127));
    });
    command.start();
    const int status = app.exec();
    if (command.state() != QProcess::NotRunning) {
        command.terminate();
        if (!command.waitForFinished(3000))
            command.kill();
        command.waitForFinished(3000);
    }
    return status;
}
