// kep-sim: the connection manager, simulated, for trying kepclient and
// scripting around it without the device.
#include "service/endpoint.h"
#include "sim/service.h"

#include <glib-unix.h>
#include <glib/gstdio.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/wait.h>

namespace {

const char Usage[] = R"(Usage: kep-sim [--scenario FILE] [--trace] run [--] COMMAND [ARGS...]
       kep-sim [--scenario FILE] [--trace] [serve] [--system | --address ADDRESS]
       kep-sim [--scenario FILE] check
       kep-sim capture [--system | --address ADDRESS]
run: serve on a private bus while COMMAND runs with DBUS_SYSTEM_BUS_ADDRESS set to it. serve: print
DBUS_SYSTEM_BUS_ADDRESS=... once up. --trace: calls and signals on stderr. Scenarios: see kep-sim(1).
)";

// A bus of our own that anyone may use; setpriv has the kernel end it if this process dies first.
const char BusConfiguration[] = R"(<busconfig><type>kep-sim</type><listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth><policy context="default"><allow user="*"/><allow own="*"/>
  <allow send_type="method_call"/><allow send_type="signal"/><allow send_type="method_return"/>
  <allow send_type="error"/><allow receive_type="method_call"/><allow receive_type="signal"/>
  <allow receive_type="method_return"/><allow receive_type="error"/></policy></busconfig>)";

struct PrivateBus {
    GPid pid = 0;
    std::string address, error = "dbus-daemon did not start";

    bool start() {
        g_autoptr(GError) e = nullptr;
        g_autofree char *config = nullptr;
        const int fd = g_file_open_tmp("kep-sim-XXXXXX.conf", &config, &e);
        if (fd < 0 || !g_close(fd, &e) || !g_file_set_contents(config, BusConfiguration, -1, &e))
            return error = e->message, false;
        g_autofree char *configArgument = g_strconcat("--config-file=", config, nullptr);
        const char *argv[] = {"setpriv", "--pdeathsig", "KILL", "dbus-daemon", "--nofork", configArgument,
                              "--print-address=1", nullptr};
        const auto flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDERR_TO_DEV_NULL;
        int out = -1;
        char line[1024] = "";
        if (g_spawn_async_with_pipes(nullptr, const_cast<char **>(argv), nullptr, GSpawnFlags(flags), nullptr,
                                     nullptr, &pid, nullptr, &out, nullptr, &e)) {
            FILE *stream = fdopen(out, "r"); // the daemon prints its address once it listens, or ends
            line[fgets(line, sizeof line, stream) ? std::strcspn(line, "\n") : 0] = '\0';
            fclose(stream);
        }
        g_unlink(config);
        address = line;
        return !address.empty();
    }
    ~PrivateBus() {
        if (pid && kill(pid, SIGTERM) == 0) waitpid(pid, nullptr, 0);
    }
};

struct Options {
    std::string word, scenario, address;
    bool system = false, trace = false;
    std::vector<char *> command; // run: the command line, null-terminated
};

bool parse(int argc, char **argv, Options &o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "--scenario" || arg == "--address") && i + 1 < argc)
            (arg == "--scenario" ? o.scenario : o.address) = argv[++i];
        else if (arg == "--system" || arg == "--trace") (arg == "--system" ? o.system : o.trace) = true;
        else if (arg == "--help" || (o.word.empty() && (arg == "serve" || arg == "check" || arg == "capture")))
            o.word = arg;
        else if (!o.word.empty() || arg != "run") return false;
        else { // run: the rest is the command
            o.word = arg;
            i += i + 1 < argc && std::strcmp(argv[i + 1], "--") == 0;
            o.command.assign(argv + i + 1, argv + argc + 1); // argv ends with a null pointer
            break;
        }
    }
    const bool busGiven = o.system || !o.address.empty();
    o.word = o.word.empty() && busGiven ? "serve" : o.word;
    return !o.word.empty() && !(o.system && !o.address.empty()) && (o.word != "run" || o.command.size() > 1)
           && (!busGiven || o.word == "serve" || o.word == "capture" || o.word == "--help");
}

int fail(const std::string &message, int status = 1) {
    std::fprintf(stderr, "kep-sim: %s\n", message.c_str());
    return status;
}

// `address` comes in as the private bus's, if there is one, and goes out as the one used.
GDBusConnection *connect(const Options &o, std::string &address) {
    g_autoptr(GError) error = nullptr;
    g_autofree char *system = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (address.empty()) address = o.system || o.address.empty() ? (system ? system : "") : o.address;
    const auto flags = G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION;
    GDBusConnection *bus = g_dbus_connection_new_for_address_sync(address.c_str(), GDBusConnectionFlags(flags),
                                                                  nullptr, nullptr, &error);
    if (!bus) fail("cannot connect to the bus at " + address + ": " + error->message);
    return bus;
}

bool ownName(GDBusConnection *bus, bool system) {
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", kep::ServiceName, 4u /* do not queue */), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    guint32 result = 0;
    if (reply) g_variant_get(reply, "(u)", &result);
    if (result == 1) return true; // the primary owner
    if (error) g_dbus_error_strip_remote_error(error);
    fail(std::string("cannot own ") + kep::ServiceName + ": " + (error ? error->message : "another program owns it"));
    if (system && error)
        std::fprintf(stderr, "kep-sim: this enables its system bus policy:\n"
                   "  install -m 644 %s/kep-sim.conf /etc/dbus-1/system.d/kep-sim.conf\n", KEP_SIM_DATADIR);
    return false;
}

// The run of the program: its loop, and the command that `run` started.
GMainLoop *loop = nullptr;
GPid command = 0;
int commandStatus = 0;
bool interrupted = false;

gboolean onStop(gpointer) {
    interrupted = true;
    if (!command) g_main_loop_quit(loop);
    else if (kill(command, SIGTERM) == 0) // its end quits the loop
        g_timeout_add_seconds(3, [](gpointer) { return kill(command, SIGKILL), FALSE; }, nullptr);
    return G_SOURCE_CONTINUE;
}

void onCommandEnd(GPid pid, int status, gpointer) {
    commandStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    g_spawn_close_pid(pid);
    g_main_loop_quit(loop);
}

int serve(const Options &o, Scenario scenario) {
    PrivateBus privateBus;
    if (!o.system && o.address.empty() && !privateBus.start()) return fail(privateBus.error);
    std::string address = privateBus.address;
    g_autoptr(GDBusConnection) bus = connect(o, address);
    g_autoptr(GError) e = nullptr;
    Service service(std::move(scenario), o.trace);
    if (!bus || !service.serve(bus, &e) || !ownName(bus, o.system))
        return e ? fail(std::string("cannot serve ") + kep::ObjectPath + ": " + e->message) : 1;
    loop = g_main_loop_new(nullptr, FALSE);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) g_unix_signal_add(signal, onStop, nullptr);
    g_signal_connect_swapped(bus, "closed", G_CALLBACK(g_main_loop_quit), loop);
    if (o.word == "run") {
        g_auto(GStrv) environment = g_environ_setenv(g_get_environ(), "DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
        const auto flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_CHILD_INHERITS_STDIN;
        if (!g_spawn_async(nullptr, const_cast<char **>(o.command.data()), environment, GSpawnFlags(flags), nullptr,
                           nullptr, &command, &e))
            return fail(e->message, 127);
        g_child_watch_add(command, onCommandEnd, nullptr);
    } else {
        std::printf("DBUS_SYSTEM_BUS_ADDRESS=%s\n", address.c_str());
        std::fflush(stdout);
    }
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    return o.word != "run" ? 0 : interrupted ? 130 : commandStatus;
}

} // namespace

int main(int argc, char **argv) {
    Options o;
    std::string message, captured, address;
    Scenario scenario;
    if (!parse(argc, argv, o)) return fail("expected run, serve, check or capture; see kep-sim --help", 2);
    if (o.word == "--help") return std::fputs(Usage, stdout) < 0;
    if (o.word == "capture") {
        g_autoptr(GDBusConnection) bus = connect(o, address);
        const bool complete = bus && captureScenario(bus, captured);
        return std::fputs(captured.c_str(), stdout), complete ? 0 : 1;
    }
    if (!loadScenario(o.scenario, scenario, message)) return std::fprintf(stderr, "%s\n", message.c_str()), 2;
    return o.word == "check" ? 0 : serve(o, std::move(scenario));
}
