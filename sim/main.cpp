// kep-sim: the connection manager, simulated, for trying kepclient and scripting around it without the
// device. This file reads the command line and runs the command word it names.
#include "service/endpoint.h"
#include "sim/bus.h"
#include "sim/capture.h"
#include "sim/message.h"
#include "sim/record.h"
#include "sim/service.h"

#include <cstdio>

namespace {

const char Usage[] = R"(Usage: kep-sim [--scenario FILE] [--trace] run [--] COMMAND [ARGS...]
       kep-sim [--scenario FILE] [--trace] [serve] [--system | --address ADDRESS]
       kep-sim [--scenario FILE] check
       kep-sim capture [--system | --address ADDRESS]
       kep-sim record [--system | --address ADDRESS] --output FILE [--] COMMAND [ARGS...]
run: serve on a private bus while COMMAND runs with DBUS_SYSTEM_BUS_ADDRESS set to it. serve: print
DBUS_SYSTEM_BUS_ADDRESS=... once up. --trace: calls and signals on stderr. capture: the service's
state as a scenario. record: COMMAND's dialog with the service as a scenario. See kep-sim(1).
)";

// Exit statuses of kep-sim's own: a bus failure is 1.
constexpr int UsageStatus = 2;
constexpr int BusFailureStatus = 1;

struct Options {
    std::string word; // run, serve, check, capture, record or --help
    std::string scenario;
    std::string address;
    std::string output;
    bool system = false;
    bool trace = false;
    CommandLine command; // run and record
};

bool isWord(const std::string &arg)
{
    return arg == "run" || arg == "serve" || arg == "check" || arg == "capture" || arg == "record"
        || arg == "--help";
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
    const bool takesOutput = options.word == "record";
    if (options.word.empty() || (options.system && !options.address.empty()) || (busGiven && !takesBus))
        return false;
    if (takesCommand && options.command.size() < 2)
        return false;
    return options.output.empty() != takesOutput;
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
        std::printf("DBUS_SYSTEM_BUS_ADDRESS=%s\n", address.c_str());
        std::fflush(stdout);
    }
    const int commandStatus = runLoop(bus, options.command, address);
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    if (!running)
        return 0;
    return commandStatus;
}

// COMMAND's dialog with the service, and the state of the service once COMMAND has ended (what the
// simulated service goes on from once the dialog is played), as one scenario in --output.
int record(const Options &options)
{
    g_autoptr(GError) error = nullptr;
    if (!g_file_set_contents(options.output.c_str(), "", 0, &error))
        return fail(error->message);
    PrivateBus privateBus;
    if (!privateBus.start())
        return BusFailureStatus;
    g_autoptr(GDBusConnection) service = connectTo(serviceBus(options));
    g_autoptr(GDBusConnection) program = connectTo(privateBus.address());
    if (!service || !program)
        return BusFailureStatus;
    Recorder recorder(service, program);
    recorder.start();
    if (!ownName(program, false))
        return BusFailureStatus;
    const int commandStatus = runLoop(program, options.command, privateBus.address());
    // The dialog has what the service refused to read, so those are left out without a word.
    std::vector<Entry> properties;
    std::string leftOut;
    captureProperties(service, properties, leftOut);
    const std::string recording = scenarioText(properties, recorder.dialog());
    if (!g_file_set_contents(options.output.c_str(), recording.c_str(), -1, &error))
        return fail(error->message);
    return commandStatus;
}

int capture(const Options &options)
{
    g_autoptr(GDBusConnection) bus = connectTo(serviceBus(options));
    if (!bus)
        return BusFailureStatus;
    std::vector<Entry> properties;
    std::string leftOut;
    const bool complete = captureProperties(bus, properties, leftOut);
    std::fputs(leftOut.c_str(), stderr);
    std::fputs(scenarioText(properties).c_str(), stdout);
    if (!complete)
        return BusFailureStatus;
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parse(argc, argv, options))
        return fail("expected run, serve, check, capture or record; see kep-sim --help", UsageStatus);
    if (options.word == "--help") {
        std::fputs(Usage, stdout);
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
    if (options.word == "check")
        return 0;
    return serve(options, std::move(scenario));
}
