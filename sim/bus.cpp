#include "sim/bus.h"

#include "service/endpoint.h"

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

GMainLoop *loop = nullptr;
GPid command = 0;
int commandStatus = 0;
bool interrupted = false;

gboolean killCommand(gpointer)
{
    kill(command, SIGKILL);
    return G_SOURCE_REMOVE;
}

gboolean onStop(gpointer)
{
    interrupted = true;
    if (!command)
        g_main_loop_quit(loop);
    else if (kill(command, SIGTERM) == 0)
        g_timeout_add_seconds(3, killCommand, nullptr); // its end quits the loop
    return G_SOURCE_CONTINUE;
}

void onCommandEnd(GPid pid, int status, gpointer)
{
    if (WIFEXITED(status))
        commandStatus = WEXITSTATUS(status);
    else
        commandStatus = 128 + WTERMSIG(status);
    g_spawn_close_pid(pid);
    g_main_loop_quit(loop);
}

} // namespace

int fail(const std::string &message, int status)
{
    std::fprintf(stderr, "kep-sim: %s\n", message.c_str());
    return status;
}

PrivateBus::~PrivateBus()
{
    if (m_pid && kill(m_pid, SIGTERM) == 0)
        waitpid(m_pid, nullptr, 0);
}

bool PrivateBus::start()
{
    g_autoptr(GError) e = nullptr;
    g_autofree char *config = nullptr;
    const int fd = g_file_open_tmp("kep-sim-XXXXXX.conf", &config, &e);
    if (fd < 0 || !g_close(fd, &e) || !g_file_set_contents(config, BusConfiguration, -1, &e))
        return fail(e->message, false);
    g_autofree char *configArgument = g_strconcat("--config-file=", config, nullptr);
    // setpriv has the kernel end the daemon if kep-sim dies first.
    const char *argv[] = {"setpriv",      "--pdeathsig",       "KILL", "dbus-daemon", "--nofork",
                          configArgument, "--print-address=1", nullptr};
    const auto flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDERR_TO_DEV_NULL;
    int out = -1;
    if (g_spawn_async_with_pipes(nullptr, const_cast<char **>(argv), nullptr, GSpawnFlags(flags), nullptr,
                                 nullptr, &m_pid, nullptr, &out, nullptr, &e))
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
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", kep::ServiceName, 4u /* do not queue */), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    guint32 result = 0;
    if (reply)
        g_variant_get(reply, "(u)", &result);
    if (result == 1)
        return true; // the primary owner
    std::string why = "another program owns it";
    if (error) {
        g_dbus_error_strip_remote_error(error);
        why = error->message;
    }
    fail(std::string("cannot own ") + kep::ServiceName + ": " + why);
    if (system && error)
        std::fprintf(stderr,
                     "kep-sim: this enables its system bus policy:\n"
                     "  install -m 644 %s/kep-sim.conf /etc/dbus-1/system.d/kep-sim.conf\n",
                     KEP_SIM_DATADIR);
    return false;
}

int runLoop(GDBusConnection *served, const std::vector<char *> &commandLine, const std::string &address)
{
    loop = g_main_loop_new(nullptr, FALSE);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        g_unix_signal_add(signal, onStop, nullptr);
    g_signal_connect_swapped(served, "closed", G_CALLBACK(g_main_loop_quit), loop);
    if (!commandLine.empty()) {
        g_autoptr(GError) e = nullptr;
        g_auto(GStrv) environment
            = g_environ_setenv(g_get_environ(), "DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), TRUE);
        const auto flags = G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_CHILD_INHERITS_STDIN;
        if (!g_spawn_async(nullptr, const_cast<char **>(commandLine.data()), environment, GSpawnFlags(flags),
                           nullptr, nullptr, &command, &e))
            return fail(e->message, 127);
        g_child_watch_add(command, onCommandEnd, nullptr);
    }
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    if (interrupted)
        return 130;
    return commandStatus;
}
