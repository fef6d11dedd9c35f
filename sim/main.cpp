// kep-sim: the connection manager, simulated, for trying kepclient and
// scripting around it without the device.
#include "service/endpoint.h"
#include "sim/bus.h"
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

struct Options {
    std::string word, scenario, address, output;
    bool system = false, trace = false;
    std::vector<char *> command; // run and record: the command line, null-terminated
};

bool isWord(const std::string &arg)
{
    return arg == "run" || arg == "serve" || arg == "check" || arg == "capture" || arg == "record"
        || arg == "--help";
}

bool parse(int argc, char **argv, Options &o)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool valueFollows = i + 1 < argc;
        if (arg == "--scenario" && valueFollows)
            o.scenario = argv[++i];
        else if (arg == "--address" && valueFollows)
            o.address = argv[++i];
        else if (arg == "--output" && valueFollows)
            o.output = argv[++i];
        else if (arg == "--system")
            o.system = true;
        else if (arg == "--trace")
            o.trace = true;
        else if (o.word.empty() && isWord(arg))
            o.word = arg;
        else if (o.word == "run" || o.word == "record") { // the rest is the command
            if (arg == "--")
                i += 1;
            o.command.assign(argv + i, argv + argc + 1); // argv ends with a null pointer
            break;
        } else
            return false;
    }
    const bool busGiven = o.system || !o.address.empty();
    if (o.word.empty() && busGiven)
        o.word = "serve";
    const bool takesBus = o.word == "serve" || o.word == "capture" || o.word == "record";
    const bool takesCommand = o.word == "run" || o.word == "record";
    if (o.word.empty() || (o.system && !o.address.empty()) || (busGiven && !takesBus))
        return false;
    if (takesCommand && o.command.size() < 2)
        return false;
    return o.output.empty() == (o.word != "record");
}

// The bus a service is looked for on: the one given, else the system bus.
std::string serviceBus(const Options &o)
{
    if (!o.address.empty())
        return o.address;
    return systemBusAddress();
}

int serve(const Options &o, Scenario scenario)
{
    PrivateBus privateBus;
    std::string address;
    if (o.system || !o.address.empty())
        address = serviceBus(o);
    else if (privateBus.start())
        address = privateBus.address();
    else
        return 1;
    g_autoptr(GDBusConnection) bus = connectTo(address);
    g_autoptr(GError) e = nullptr;
    Service service(std::move(scenario), o.trace);
    if (!bus)
        return 1;
    if (!service.serve(bus, &e))
        return fail(std::string("cannot serve ") + kep::ObjectPath + ": " + e->message);
    service.startReplay(); // its signals go once the loop runs
    if (!ownName(bus, o.system))
        return 1;
    if (o.word != "run") {
        std::printf("DBUS_SYSTEM_BUS_ADDRESS=%s\n", address.c_str());
        std::fflush(stdout);
    }
    const int status = runLoop(bus, o.command, address);
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    if (o.word != "run")
        return 0;
    return status;
}

// COMMAND's dialog with the service, and the state of the service once COMMAND has ended (what the
// simulated service goes on from once the dialog is played), as one scenario in --output.
int record(const Options &o)
{
    g_autoptr(GError) e = nullptr;
    if (!g_file_set_contents(o.output.c_str(), "", 0, &e))
        return fail(e->message);
    PrivateBus privateBus;
    if (!privateBus.start())
        return 1;
    g_autoptr(GDBusConnection) service = connectTo(serviceBus(o));
    g_autoptr(GDBusConnection) program = connectTo(privateBus.address());
    if (!service || !program)
        return 1;
    Recorder recorder(service, program);
    recorder.start();
    if (!ownName(program, false))
        return 1;
    const int status = runLoop(program, o.command, privateBus.address());
    // The dialog has what the service refused to read, so those are left out without a word.
    std::string scenario, leftOut;
    captureProperties(service, scenario, leftOut);
    if (!scenario.empty())
        scenario += ",\n";
    scenario = "{\n" + scenario + "  'dialog': <" + dialogText(recorder.dialog()) + ">\n}\n";
    if (!g_file_set_contents(o.output.c_str(), scenario.c_str(), -1, &e))
        return fail(e->message);
    return status;
}

int capture(const Options &o)
{
    g_autoptr(GDBusConnection) bus = connectTo(serviceBus(o));
    if (!bus)
        return 1;
    std::string entries, leftOut;
    const bool complete = captureProperties(bus, entries, leftOut);
    std::fputs(leftOut.c_str(), stderr);
    if (entries.empty())
        std::puts("{}");
    else
        std::printf("{\n%s\n}\n", entries.c_str());
    if (!complete)
        return 1;
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    if (!parse(argc, argv, o))
        return fail("expected run, serve, check, capture or record; see kep-sim --help", 2);
    if (o.word == "--help") {
        std::fputs(Usage, stdout);
        return 0;
    }
    if (o.word == "capture")
        return capture(o);
    if (o.word == "record")
        return record(o);
    Scenario scenario;
    std::string message;
    if (!loadScenario(o.scenario, scenario, message)) {
        std::fprintf(stderr, "%s\n", message.c_str());
        return 2;
    }
    if (o.word == "check")
        return 0;
    return serve(o, std::move(scenario));
}
