#include "sim/capture.h"

#include "service/endpoint.h"
#include "sim/bus.h"
#include "sim/format/interface.h"

#include <memory>

namespace {

// How long a property may take to answer.
constexpr int ReadLimitMs = 3000;

// The readings under way: one a property, each a value or a problem once it has ended.
struct Readings {
    std::vector<const char *> names;
    std::vector<Variant> values;
    std::vector<std::string> problems;
    size_t waiting = 0;
    GMainLoop *loop = nullptr;
};

// One reading, and the readings it belongs to, which outlive the wait if the wait is cut short.
struct Reading {
    std::shared_ptr<Readings> readings;
    size_t index;
};

void onRead(GObject *bus, GAsyncResult *result, gpointer data)
{
    std::unique_ptr<Reading> reading(static_cast<Reading *>(data));
    Readings &readings = *reading->readings;
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error);
    if (reply) {
        GVariant *value = nullptr;
        g_variant_get(reply, "(v)", &value);
        readings.values[reading->index] = own(value);
    } else {
        // an error of the service's as "NAME: message"
        g_autofree char *errorName = g_dbus_error_get_remote_error(error);
        g_dbus_error_strip_remote_error(error);
        std::string problem = error->message;
        if (errorName)
            problem = std::string(errorName) + ": " + problem;
        readings.problems[reading->index] = problem;
    }
    readings.waiting -= 1;
    if (readings.waiting == 0 && readings.loop)
        g_main_loop_quit(readings.loop);
}

} // namespace

Captured captureProperties(GDBusConnection *bus, std::vector<Entry> &properties, std::string &leftOut)
{
    auto readings = std::make_shared<Readings>();
    for (GDBusPropertyInfo **property = kepInterface()->properties; *property; ++property) {
        if ((*property)->flags & G_DBUS_PROPERTY_INFO_FLAGS_READABLE)
            readings->names.push_back((*property)->name);
    }
    const size_t count = readings->names.size();
    readings->values.resize(count);
    readings->problems.assign(count, "");
    readings->waiting = count;
    for (size_t index = 0; index < count; ++index) {
        g_dbus_connection_call(bus, kep::ServiceName, kep::ObjectPath, "org.freedesktop.DBus.Properties",
                               "Get", g_variant_new("(ss)", kep::InterfaceName, readings->names[index]),
                               G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE, ReadLimitMs, nullptr, onRead,
                               new Reading {readings, index});
    }
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    readings->loop = loop;
    bool interrupted = false;
    onStopSignal([loop, &interrupted] {
        interrupted = true;
        g_main_loop_quit(loop);
    });
    if (readings->waiting > 0)
        g_main_loop_run(loop);
    onStopSignal(nullptr);
    readings->loop = nullptr;
    g_main_loop_unref(loop);
    for (size_t index = 0; index < count; ++index) {
        const char *name = readings->names[index];
        if (readings->values[index]) {
            properties.emplace_back(name, std::move(readings->values[index]));
            continue;
        }
        std::string problem = readings->problems[index];
        if (problem.empty())
            problem = "interrupted";
        leftOut += std::string("kep-sim: ") + name + " left out: " + problem + "\n";
    }
    if (interrupted)
        return Captured::Interrupted;
    if (!leftOut.empty())
        return Captured::LeftOut;
    return Captured::Whole;
}
