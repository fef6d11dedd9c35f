#include "sim/bus.h"

#include "service/endpoint.h"
#include "sim/message.h"

#include <glib-unix.h>
#include <glib/gstdio.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <sys/wait.h>

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

// What kep-sim's signals exit with, as a shell reports SIGINT.
constexpr int InterruptedStatus = 130;

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
    int commandStatus = 0;
    bool interrupted = false;
};

Run run;

gboolean killCommand(gpointer)
{
    kill(run.commandPid, SIGKILL);
    return G_SOURCE_REMOVE;
}

gboolean onStopSignal(gpointer)
{
    run.interrupted = true;
    if (!run.commandPid) {
        g_main_loop_quit(run.loop);
        return G_SOURCE_CONTINUE;
    }
    // The command's end quits the loop.
    if (kill(run.commandPid, SIGTERM) == 0)
        g_timeout_add_seconds(StopGraceSeconds, killCommand, nullptr);
    return G_SOURCE_CONTINUE;
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

using Action = std::function<void()>;

gboolean runAction(gpointer action)
{
    (*static_cast<Action *>(action))();
    return G_SOURCE_REMOVE;
}

void deleteAction(gpointer action)
{
    delete static_cast<Action *>(action);
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

int runLoop(GDBusConnection *served, const CommandLine &command, const std::string &address)
{
    run.loop = g_main_loop_new(nullptr, FALSE);
    for (int stopSignal : {SIGINT, SIGTERM, SIGHUP})
        g_unix_signal_add(stopSignal, onStopSignal, nullptr);
    g_signal_connect_swapped(served, "closed", G_CALLBACK(g_main_loop_quit), run.loop);
    if (!command.empty()) {
        g_autoptr(GError) error = nullptr;
        g_auto(GStrv) environment
            = g_environ_setenv(g_get_environ(), "DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
        const auto flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_CHILD_INHERITS_STDIN;
        const bool spawned = g_spawn_async(nullptr, const_cast<char **>(command.data()), environment,
                                           GSpawnFlags(flags), nullptr, nullptr, &run.commandPid, &error);
        if (!spawned)
            return fail(error->message, CannotRunStatus);
        g_child_watch_add(run.commandPid, onCommandEnd, nullptr);
    }
    g_main_loop_run(run.loop);
    g_main_loop_unref(run.loop);
    if (run.interrupted)
        return InterruptedStatus;
    return run.commandStatus;
}

void later(guint ms, std::function<void()> action)
{
    g_timeout_add_full(G_PRIORITY_DEFAULT, ms, runAction, new Action(std::move(action)), deleteAction);
}
