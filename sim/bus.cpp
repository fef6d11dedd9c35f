#include "sim/bus.h"

#include "service/endpoint.h"
#include "sim/format/message.h"

#include <glib-unix.h>
#include <glib/gstdio.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Anyone may connect, own names and send anything: the bus lives only for a session of kep-sim.
const char BusConfiguration[] = R"(<busconfig><type>kep-sim</type><listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth><policy context="default"><allow user="*"/><allow own="*"/>
  <allow send_type="method_call"/><allow send_type="signal"/><allow send_type="method_return"/>
  <allow send_type="error"/><allow receive_type="method_call"/><allow receive_type="signal"/>
  <allow receive_type="method_return"/><allow receive_type="error"/></policy></busconfig>)";

// RequestName's answer when the caller has become the name's primary owner.
constexpr guint32 PrimaryOwner = 1;

// How long COMMAND has to end after SIGTERM before it gets SIGKILL.
constexpr guint StopGraceSeconds = 3;

// How often what COMMAND left running is looked for again while it ends.
constexpr gulong LeftoverPollMicroseconds = 20000;

// What a shell exits with when it cannot run a command.
constexpr int CannotRunStatus = 127;

// A process ended by signal N exits with 128 + N, as a shell reports it.
constexpr int SignalStatusBase = 128;

// The first line of what `fd` gives, without its line end; empty when it ends first.
std::string firstLine(int fd)
{
    FILE *stream = fdopen(fd, "r");
    char line[1024] = "";
    if (!std::fgets(line, sizeof line, stream))
        line[0] = '\0';
    std::fclose(stream);
    line[std::strcspn(line, "\n")] = '\0';
    return line;
}

// The main loop's run: one a process.
struct Run {
    GMainLoop *loop = nullptr;
    GPid commandPid = 0;
    GPid busPid = 0; // kep-sim's own bus: not one of the command's processes
    int commandStatus = 0;
    bool interrupted = false;
    bool busGone = false;
    guint killTimer = 0;       // SIGKILL for what is left of the command
    std::string servedAddress; // the address of the bus served on
};

Run run;

// What the stop signals do now.
std::function<void()> stopAction;

gboolean onSignal(gpointer)
{
    if (stopAction)
        stopAction();
    return G_SOURCE_CONTINUE;
}

// The parent of process `pid`, from /proc/PID/stat: the fields after the program's name, which may itself
// hold blanks and parentheses. False when the process has ended.
bool parentOf(const char *pid, GPid &parent)
{
    g_autofree char *path = g_build_filename("/proc", pid, "stat", nullptr);
    g_autofree char *stat = nullptr;
    if (!g_file_get_contents(path, &stat, nullptr, nullptr))
        return false; // ended meanwhile
    const char *nameEnd = std::strrchr(stat, ')');
    char state = '\0';
    int parentPid = 0;
    if (!nameEnd || std::sscanf(nameEnd + 1, " %c %d", &state, &parentPid) != 2)
        return false;
    parent = parentPid;
    return true;
}

// The command's processes: every process below kep-sim but its own bus. Those whose parents have ended
// are below it too: kep-sim is their subreaper.
std::vector<GPid> commandProcesses()
{
    std::multimap<GPid, GPid> childrenOf;
    g_autoptr(GDir) proc = g_dir_open("/proc", 0, nullptr);
    if (!proc)
        return {};
    for (const char *name = g_dir_read_name(proc); name; name = g_dir_read_name(proc)) {
        GPid parent = 0;
        const bool isProcess = std::strspn(name, "0123456789") == std::strlen(name);
        if (isProcess && parentOf(name, parent))
            childrenOf.emplace(parent, GPid(std::atoi(name)));
    }
    std::vector<GPid> found;
    std::vector<GPid> toVisit = {getpid()};
    while (!toVisit.empty()) {
        const GPid parent = toVisit.back();
        toVisit.pop_back();
        const auto children = childrenOf.equal_range(parent);
        for (auto child = children.first; child != children.second; ++child) {
            if (child->second == run.busPid)
                continue;
            found.push_back(child->second);
            toVisit.push_back(child->second);
        }
    }
    return found;
}

void signalCommand(int signalNumber)
{
    for (GPid pid : commandProcesses())
        kill(pid, signalNumber);
}

gboolean killCommand(gpointer)
{
    run.killTimer = 0;
    signalCommand(SIGKILL);
    return G_SOURCE_REMOVE;
}

// SIGTERM to the command's processes now, SIGKILL to those left after the grace time. Its end quits the
// loop.
void endCommand()
{
    signalCommand(SIGTERM);
    if (!run.killTimer)
        run.killTimer = g_timeout_add_seconds(StopGraceSeconds, killCommand, nullptr);
}

void onStop()
{
    run.interrupted = true;
    if (!run.commandPid) {
        g_main_loop_quit(run.loop);
        return;
    }
    endCommand();
}

// The bus served on closed the connection: it has gone away, or it still takes connections and threw
// kep-sim off.
void onBusClosed(GDBusConnection *, gboolean, GError *error)
{
    if (run.busGone)
        return;
    run.busGone = true;
    const auto flags
        = G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION;
    g_autoptr(GDBusConnection) again = g_dbus_connection_new_for_address_sync(
        run.servedAddress.c_str(), GDBusConnectionFlags(flags), nullptr, nullptr, nullptr);
    if (again && error)
        fail(std::string("the bus disconnected kep-sim: ") + error->message);
    else if (again)
        fail("the bus disconnected kep-sim");
    else
        fail(std::string("the bus it serves ") + kep::ServiceName + " on has gone away");
    if (!run.commandPid) {
        g_main_loop_quit(run.loop);
        return;
    }
    endCommand();
}

void onCommandEnd(GPid pid, int status, gpointer)
{
    if (WIFEXITED(status))
        run.commandStatus = WEXITSTATUS(status);
    else
        run.commandStatus = SignalStatusBase + WTERMSIG(status);
    g_spawn_close_pid(pid);
    g_main_loop_quit(run.loop);
}

// In the command's process before it runs: it is ended if kep-sim dies first.
void endWithKepSim(gpointer)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
}

// Once the command has ended: what it started and left running gets SIGTERM, then SIGKILL after the
// grace time, and is waited for; a process that does not end even then is waited for no longer.
void endLeftovers()
{
    const gint64 graceEnd = g_get_monotonic_time() + StopGraceSeconds * G_USEC_PER_SEC;
    const gint64 waitEnd = graceEnd + StopGraceSeconds * G_USEC_PER_SEC;
    std::vector<GPid> left = commandProcesses();
    while (!left.empty() && g_get_monotonic_time() < waitEnd) {
        int signalNumber = SIGTERM;
        if (g_get_monotonic_time() >= graceEnd)
            signalNumber = SIGKILL;
        for (GPid pid : left) {
            kill(pid, signalNumber);
            waitpid(pid, nullptr, WNOHANG); // those whose parent has ended are kep-sim's to wait for
        }
        g_usleep(LeftoverPollMicroseconds);
        left = commandProcesses();
    }
    if (!left.empty())
        fail(std::to_string(left.size()) + " processes of COMMAND would not end, even with SIGKILL");
}

} // namespace

PrivateBus::~PrivateBus()
{
    if (m_daemonPid && kill(m_daemonPid, SIGTERM) == 0)
        waitpid(m_daemonPid, nullptr, 0);
}

bool PrivateBus::start()
{
    g_autoptr(GError) error = nullptr;
    g_autofree char *config = nullptr;
    const int fd = g_file_open_tmp("kep-sim-XXXXXX.conf", &config, &error);
    if (fd < 0 || !g_close(fd, &error) || !g_file_set_contents(config, BusConfiguration, -1, &error))
        return fail(error->message, false);
    g_autofree char *configArgument = g_strconcat("--config-file=", config, nullptr);
    // setpriv has the kernel end the daemon if kep-sim dies first.
    const char *argv[] = {"setpriv",      "--pdeathsig",       "KILL", "dbus-daemon", "--nofork",
                          configArgument, "--print-address=1", nullptr};
    const auto flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDERR_TO_DEV_NULL;
    int out = -1;
    const bool spawned
        = g_spawn_async_with_pipes(nullptr, const_cast<char **>(argv), nullptr, GSpawnFlags(flags), nullptr,
                                   nullptr, &m_daemonPid, nullptr, &out, nullptr, &error);
    if (spawned)
        m_address = firstLine(out); // the daemon prints its address once it listens, or ends
    g_unlink(config);
    if (m_address.empty())
        return fail("dbus-daemon did not start", false);
    return true;
}

GDBusConnection *connectTo(const std::string &address)
{
    g_autoptr(GError) error = nullptr;
    const auto flags
        = G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION;
    GDBusConnection *bus = g_dbus_connection_new_for_address_sync(
        address.c_str(), GDBusConnectionFlags(flags), nullptr, nullptr, &error);
    if (!bus)
        fail("cannot connect to the bus at " + address + ": " + error->message);
    return bus;
}

std::string systemBusAddress()
{
    g_autofree char *system = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (!system)
        return "";
    return system;
}

bool ownName(GDBusConnection *bus, bool system)
{
    g_autoptr(GError) error = nullptr;
    const guint32 flags = G_BUS_NAME_OWNER_FLAGS_DO_NOT_QUEUE;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", kep::ServiceName, flags), G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1,
        nullptr, &error);
    guint32 result = 0;
    if (reply)
        g_variant_get(reply, "(u)", &result);
    if (result == PrimaryOwner)
        return true;
    std::string why = "another program owns it";
    if (error) {
        g_dbus_error_strip_remote_error(error);
        why = error->message;
    }
    fail(std::string("cannot own ") + kep::ServiceName + ": " + why);
    if (system && error) {
        std::fprintf(stderr,
                     "kep-sim: this enables its system bus policy:\n"
                     "  install -m 644 %s/kep-sim.conf /etc/dbus-1/system.d/kep-sim.conf\n",
                     KEP_SIM_DATADIR);
    }
    return false;
}

void watchStopSignals()
{
    static bool watching = false;
    if (watching)
        return;
    watching = true;
    for (int stopSignal : {SIGINT, SIGTERM, SIGHUP})
        g_unix_signal_add(stopSignal, onSignal, nullptr);
}

void onStopSignal(std::function<void()> action)
{
    stopAction = std::move(action);
    watchStopSignals();
}

int runLoop(GDBusConnection *served, const CommandLine &command, const std::string &address, GPid busPid,
            const std::function<void()> &started)
{
    // Watched before COMMAND starts: a stop signal it sends at once is kep-sim's to handle.
    onStopSignal(onStop);
    if (!command.empty()) {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        g_autoptr(GError) error = nullptr;
        g_auto(GStrv) environment
            = g_environ_setenv(g_get_environ(), "DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
        const auto flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_CHILD_INHERITS_STDIN;
        const bool spawned
            = g_spawn_async(nullptr, const_cast<char **>(command.data()), environment, GSpawnFlags(flags),
                            endWithKepSim, nullptr, &run.commandPid, &error);
        if (!spawned) {
            onStopSignal(nullptr);
            return fail(error->message, CannotRunStatus);
        }
        g_child_watch_add(run.commandPid, onCommandEnd, nullptr);
    }
    if (started)
        started();
    run.loop = g_main_loop_new(nullptr, FALSE);
    run.busPid = busPid;
    run.servedAddress = address;
    const gulong closedHandler = g_signal_connect(served, "closed", G_CALLBACK(onBusClosed), nullptr);
    g_main_loop_run(run.loop);
    if (run.killTimer)
        g_source_remove(run.killTimer);
    g_signal_handler_disconnect(served, closedHandler);
    onStopSignal(nullptr);
    g_main_loop_unref(run.loop);
    if (!command.empty())
        endLeftovers();
    if (run.busGone)
        return BusFailureStatus;
    if (run.interrupted)
        return InterruptedStatus;
    return run.commandStatus;
}
