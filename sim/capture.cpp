#include "sim/capture.h"

#include "service/endpoint.h"
#include "sim/interface.h"

bool captureProperties(GDBusConnection *bus, std::vector<Entry> &properties, std::string &leftOut)
{
    for (GDBusPropertyInfo **property = kepInterface()->properties; *property; ++property) {
        if (!((*property)->flags & G_DBUS_PROPERTY_INFO_FLAGS_READABLE))
            continue;
        const char *name = (*property)->name;
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            bus, kep::ServiceName, kep::ObjectPath, "org.freedesktop.DBus.Properties", "Get",
            g_variant_new("(ss)", kep::InterfaceName, name), G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE,
            -1, nullptr, &error);
        if (!reply) {
            leftOut += std::string("kep-sim: ") + name + " left out: " + error->message + "\n";
            continue;
        }
        GVariant *value = nullptr;
        g_variant_get(reply, "(v)", &value);
        properties.emplace_back(name, own(value));
    }
    return leftOut.empty();
}
