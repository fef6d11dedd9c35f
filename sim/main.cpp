// kep-sim: the connection manager, simulated, for trying kepclient and scripting around it without the
// device. This file reads the command line and runs the command word it names.
#include "service/endpoint.h"
#include "sim/bus.h"
#include "sim/capture.h"
#include "sim/format/message.h"
#include "sim/format/secrets.h"
#include "sim/output.h"
#include "sim/record.h"
#include "sim/service.h"

#include <algorithm>
#include <cstdio>

namespace {

const char Usage[] = R"(Usage: kep-sim [--scenario FILE] [--trace] run [--] COMMAND [ARGS...]
       kep-sim [--scenario FILE] [--trace] serve [--system | --address ADDRESS]
       kep-sim [--scenario FILE] check
       kep-sim capture [--system | --address ADDRESS] [--keep-secrets] [--output FILE]
       kep-sim record [--system | --address ADDRESS] [--keep-secrets] --output FILE [--] COMMAND [ARGS...]
       kep-sim --help | --version
run: serve on a private bus while COMMAND runs with DBUS_SYSTEM_BUS_ADDRESS set to it. serve: print
DBUS_SYSTEM_BUS_ADDRESS=... once up; the word may be left out after --system or --address ADDRESS.
--trace: calls and signals on stderr. capture: the service's state as a scenario. record: COMMAND's
dialog with the service as a scenario. Both leave out Wi-Fi keys, passphrases and PINs unless
--keep-secrets, and write FILE for its owner only. See kep-sim(1).
)";

// What --version prints: the release, as debian/changelog names it.
const char VersionLine[] = "kep-sim " KEP_VERSION "\n";

// Exit statuses of kep-sim's own; a bus failure is BusFailureStatus.
constexpr int UsageStatus = 2;
constexpr int WriteFailureStatus = 1;

struct Options {
    std::string word; // run, serve, check, capture, record, --help or --version
    std::string scenario;
    std::string address;
    std::string output;
    bool system = false;
    bool trace = false;
    bool keepSecrets = false;
    CommandLine command; // run and record
};

bool isWord(const std::string &arg)
{
    return arg == "run" || arg == "serve" || arg == "check" || arg == "capture" || arg == "record"
        || arg == "--help" || arg == "--version";
}

// The options, then the word, then for run and record the command, with more options allowed before it.
bool parse(int argc, char **argv, Options &options)
{
    for (int index = 1; index < argc; ++index) {
        const std::string arg = argv[index];
        const bool valueFollows = index + 1 < argc;
        if (arg == "--scenario" && valueFollows) {
            index += 1;
            options.scenario = argv[index];
        } else if (arg == "--address" && valueFollows) {
            index += 1;
            options.address = argv[index];
        } else if (arg == "--output" && valueFollows) {
            index += 1;
            options.output = argv[index];
        } else if (arg == "--system") {
            options.system = true;
        } else if (arg == "--trace") {
            options.trace = true;
        } else if (arg == "--keep-secrets") {
            options.keepSecrets = true;
        } else if (options.word.empty() && isWord(arg)) {
            options.word = arg;
        } else if (options.word == "run" || options.word == "record") { // the rest is the command
            if (arg == "--")
                index += 1;
            options.command.assign(argv + index, argv + argc + 1); // argv ends with a null pointer
            break;
        } else {
            return false;
        }
    }
    const bool busGiven = options.system || !options.address.empty();
    if (options.word.empty() && busGiven)
        options.word = "serve";
    const bool takesBus = options.word == "serve" || options.word == "capture" || options.word == "record";
    const bool takesCommand = options.word == "run" || options.word == "record";
    const bool takesFile = options.word == "record" || options.word == "capture";
    if (options.word.empty() || (options.system && !options.address.empty()) || (busGiven && !takesBus))
        return false;
    if (takesCommand && options.command.size() < 2)
        return false;
    if (options.keepSecrets && !takesFile)
        return false;
    if (options.word == "record")
        return !options.output.empty();
    return takesFile || options.output.empty();
}

// The bus a service is looked for on: the one given, else the system bus.
std::string serviceBus(const Options &options)
{
    if (!options.address.empty())
        return options.address;
    return systemBusAddress();
}

int serve(const Options &options, Scenario scenario)
{
    PrivateBus privateBus;
    std::string address;
    if (options.system || !options.address.empty())
        address = serviceBus(options);
    else if (privateBus.start())
        address = privateBus.address();
    else
        return BusFailureStatus;
    g_autoptr(GDBusConnection) bus = connectTo(address);
    if (!bus)
        return BusFailureStatus;
    g_autoptr(GError) error = nullptr;
    Service service(std::move(scenario), options.trace);
    if (!service.serve(bus, &error))
        return fail(std::string("cannot serve ") + kep::ObjectPath + ": " + error->message);
    service.startReplay(); // its signals go once the loop runs
    if (!ownName(bus, options.system))
        return BusFailureStatus;
    const bool running = options.word == "run";
    if (!running) {
        watchStopSignals(); // a script may stop kep-sim as soon as it reads the address
        std::printf("DBUS_SYSTEM_BUS_ADDRESS=%s\n", address.c_str());
        std::fflush(stdout);
    }
    const int commandStatus = runLoop(bus, options.command, address, privateBus.pid());
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    if (!running && commandStatus != BusFailureStatus)
        return 0;
    return commandStatus;
}

// What of a recording will not be played, said on standard error: the end of one cut short, and the
// steps from the first one it could not write so that it plays, which are dropped.
void sayWhatIsPlayed(const std::string &path, Scenario &scenario)
{
    if (scenario.cutShort) {
        const char *steps = "steps are";
        if (scenario.dialog.size() == 1)
            steps = "step is";
        std::fprintf(stderr, "kep-sim: %s was cut short: its %zu whole %s played\n", shown(path).c_str(),
                     scenario.dialog.size(), steps);
    }
    Dialog &dialog = scenario.dialog;
    const auto playable = [](const Step &step) { return step.unplayable.empty(); };
    const auto unplayable = std::find_if_not(dialog.begin(), dialog.end(), playable);
    if (unplayable != dialog.end()) {
        const char *kind = "signal";
        if (unplayable->isCall)
            kind = "call";
        std::fprintf(stderr,
                     "kep-sim: %s: its step %zu, the %s %s, cannot be played: %s; the replay stops there\n",
                     shown(path).c_str(), size_t(unplayable - dialog.begin()) + 1, kind,
                     unplayable->member.c_str(), shown(unplayable->unplayable).c_str());
        dialog.erase(unplayable, dialog.end());
    }
}

// What kep-sim took out of a file it wrote, said on standard error.
void saySecretsRemoved(size_t removed)
{
    if (removed == 0)
        return;
    const char *secrets = "secrets";
    if (removed == 1)
        secrets = "secret";
    std::fprintf(stderr, "kep-sim: %zu %s removed; --keep-secrets keeps them\n", removed, secrets);
}

// COMMAND's dialog with the service, and the state of the service once COMMAND has ended (what the
// simulated service goes on from once the dialog is played), as one scenario in --output. Nothing is
// written there unless COMMAND starts.
int record(const Options &options)
{
    const std::string refusal = outputRefusal(options.output);
    if (!refusal.empty())
        return fail(refusal, UsageStatus);
    OutputFile output(options.output);
    if (!output.create())
        return WriteFailureStatus;
    PrivateBus privateBus;
    if (!privateBus.start())
        return BusFailureStatus;
    g_autoptr(GDBusConnection) service = connectTo(serviceBus(options));
    g_autoptr(GDBusConnection) program = connectTo(privateBus.address());
    if (!service || !program)
        return BusFailureStatus;
    if (!ownName(program, false))
        return BusFailureStatus;
    Recorder recorder(service, program, output, options.keepSecrets);
    if (!recorder.start())
        return WriteFailureStatus;
    // The file at --output stays as it was unless COMMAND starts.
    bool started = false;
    const auto begin = [&recorder, &started] {
        started = true;
        recorder.begin();
    };
    const int commandStatus
        = runLoop(program, options.command, privateBus.address(), privateBus.pid(), begin);
    if (!started)
        return commandStatus;
    std::vector<Entry> properties;
    std::string leftOut;
    const Captured captured = captureProperties(service, properties, leftOut);
    std::fputs(leftOut.c_str(), stderr);
    if (!recorder.finish(properties))
        return WriteFailureStatus;
    saySecretsRemoved(recorder.secretsRemoved());
    if (captured == Captured::Interrupted)
        return InterruptedStatus;
    return commandStatus;
}

// The service's state as a scenario, on standard output or in --output.
int capture(const Options &options)
{
    if (!options.output.empty()) {
        const std::string refusal = outputRefusal(options.output);
        if (!refusal.empty())
            return fail(refusal, UsageStatus);
    }
    g_autoptr(GDBusConnection) bus = connectTo(serviceBus(options));
    if (!bus)
        return BusFailureStatus;
    std::vector<Entry> properties;
    std::string leftOut;
    const Captured captured = captureProperties(bus, properties, leftOut);
    std::fputs(leftOut.c_str(), stderr);
    SecretRemover remover;
    if (!options.keepSecrets) {
        // Every secret is known before any value is written.
        for (const Entry &property : properties)
            remover.learnFrom(property.first, property.second.get());
        for (Entry &property : properties)
            property.second = remover.removedFrom(property.first, property.second.get());
    }
    const std::string scenario = scenarioText(properties);
    if (options.output.empty()) {
        std::fputs(scenario.c_str(), stdout);
        std::fflush(stdout);
    } else {
        OutputFile output(options.output);
        if (!output.create() || !output.append(scenario) || !output.place())
            return WriteFailureStatus;
    }
    saySecretsRemoved(remover.removed());
    if (captured == Captured::Interrupted)
        return InterruptedStatus;
    if (captured == Captured::LeftOut)
        return BusFailureStatus;
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        if (options.word == "record" && options.output.empty())
            return fail("record needs --output FILE; see kep-sim --help", UsageStatus);
        return fail("expected run, serve, check, capture or record; see kep-sim --help", UsageStatus);
    }
    if (options.word == "--help") {
        std::fputs(Usage, stdout);
        return 0;
    }
    if (options.word == "--version") {
        std::fputs(VersionLine, stdout);
        return 0;
    }
    if (options.word == "capture")
        return capture(options);
    if (options.word == "record")
        return record(options);
    Scenario scenario;
    std::string message;
    if (!loadScenario(options.scenario, scenario, message)) {
        std::fprintf(stderr, "%s\n", message.c_str());
        return UsageStatus;
    }
    sayWhatIsPlayed(options.scenario, scenario);
    if (options.word == "check")
        return 0;
    return serve(options, std::move(scenario));
}
