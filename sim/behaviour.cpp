// What the simulated connection manager does: modes and their signals, scans and WPS runs answered
// after their delays, Details made from the state, written IP settings showing up there.
#include "sim/service.h"

namespace {

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

std::string textIn(GVariant *map, const char *key)
{
    g_autoptr(GVariant) value = g_variant_lookup_value(map, key, G_VARIANT_TYPE_STRING);
    return value ? g_variant_get_string(value, nullptr) : "";
}

// How an interface is addressed: by the settings written to the service, if any, else by DHCP on the bench.
struct Addressing {
    std::string method, address, netmask, gateway, dns;
};
Addressing addressing(const Variant &settings, const char *dhcpAddress, bool up)
{
    GVariant *s = settings.get();
    if (g_variant_is_of_type(s, G_VARIANT_TYPE_VARDICT) && g_variant_n_children(s) > 0)
        return {"static", textIn(s, "Ip"), textIn(s, "Netmask"), textIn(s, "Gatewap"), textIn(s, "Dns")};
    if (!up)
        return {"dhcp", "", "", "", ""};
    return {"dhcp", dhcpAddress, "255.255.255.0", "192.168.10.1", "192.168.10.1 9.9.9.9"};
}

} // namespace

void later(guint ms, std::function<void()> action)
{
    g_timeout_add_full(G_PRIORITY_DEFAULT, ms, runAction, new Action(std::move(action)), deleteAction);
}

void Service::method(std::string_view method, GVariant *args, GDBusMethodInvocation *call)
{
    const char *word = ""; // the methods that take arguments take a string first
    if (g_variant_n_children(args) > 0)
        g_variant_get_child(args, 0, "&s", &word);
    if (method == "InterfaceDetails") { // the map in Details that names that interface
        Variant all = property("Details"), found = own(g_variant_new("a{sv}", nullptr));
        GVariantIter it;
        GVariant *inner = nullptr;
        g_variant_iter_init(
            &it, g_variant_is_of_type(all.get(), G_VARIANT_TYPE_VARDICT) ? all.get() : found.get());
        while (g_variant_iter_next(&it, "{&sv}", nullptr, &inner)) {
            Variant each = own(inner);
            if (g_variant_is_of_type(inner, G_VARIANT_TYPE_VARDICT) && textIn(inner, "Interface") == word)
                found.swap(each);
        }
        return g_dbus_method_invocation_return_value(call, g_variant_new("(@a{sv})", found.get()));
    }
    const std::string mode = word;
    const bool normal = mode == "automatic" || mode == "wired" || mode == "wireless" || mode == "hybrid";
    const auto results = [this] { say("ScanResults", g_variant_new("(@a{sv})", m_state.scanResults.get())); };
    if (method == "Scan") {
        later(m_state.scanDelayMs, results);
    } else if (method == "SetNormalMode" && normal) {
        switchMode(mode);
    } else if (method == "SetNormalMode") {
        say("Error", g_variant_new("(s)", ("Unknown mode: " + mode).c_str()));
    } else if (method == "SetOffMode"
               || (method == "StopSoftAp" && mode == m_softApInterface && this->mode() == "softap")) {
        switchMode("off");
    } else if (method == "StartSoftAp") {
        g_autoptr(GVariant) settings = g_variant_get_child_value(args, 1);
        g_autoptr(GVariantDict) ap = g_variant_dict_new(settings);
        g_variant_dict_insert(ap, "Interface", "s", word);
        m_softApInterface = word;
        m_state.properties["SoftApModeSettings"] = own(g_variant_dict_end(ap));
        switchMode("softap");
        say("Started", g_variant_new("()"));
    } else if ((method == "WpsPbc" || method == "WpsPin") && !m_wpsRunning) {
        const guint step = m_state.wpsStepMs, passes = m_state.wpsScanPasses;
        m_wpsRunning = true;
        for (guint pass = 1; pass <= passes; ++pass)
            later(step * pass, results);
        later(step * (passes + 1), [this] {
            m_wpsRunning = false;
            if (m_state.wpsError.empty())
                say("WpsCredentials", g_variant_new("(@a{sv})", m_state.wpsCredentials.get()));
            else
                say("WpsError", g_variant_new("(s)", m_state.wpsError.c_str()));
        });
    }
    g_dbus_method_invocation_return_value(call, nullptr);
}

std::string Service::mode() const
{
    GVariant *mode = m_state.properties.at("Mode").get();
    return g_variant_is_of_type(mode, G_VARIANT_TYPE_STRING) ? g_variant_get_string(mode, nullptr) : "";
}

Variant Service::property(const std::string &name) const
{
    const auto value = m_state.properties.find(name);
    if (value != m_state.properties.end())
        return Variant(g_variant_ref(value->second.get()));
    const std::string mode = this->mode();
    const bool softAp = mode == "softap";
    const bool wiredUp = mode == "automatic" || mode == "wired" || mode == "hybrid";
    const bool wirelessUp = mode == "automatic" || mode == "wireless" || mode == "hybrid";
    const Addressing wired = addressing(m_state.properties.at("WiredIpSettings"), "192.168.10.23", wiredUp);
    const Addressing wireless
        = addressing(m_state.properties.at("WirelessIpSettings"), "192.168.10.57", wirelessUp);
    GVariant *networks = m_state.properties.at("WirelessNetworks").get();
    std::string ssid; // the first known network by name
    gint32 known = 0;
    GVariantIter it;
    const char *network = nullptr;
    if (g_variant_is_of_type(networks, G_VARIANT_TYPE_VARDICT))
        for (g_variant_iter_init(&it, networks); g_variant_iter_next(&it, "{&sv}", &network, nullptr);
             ++known)
            ssid = known == 0 || network < ssid ? network : ssid;
    return own(g_variant_new_parsed(
        "{'State': <%s>, 'Mode': <%s>, 'LogLevel': %v,"
        " 'Wired': <{'Interface': <'eth0'>, 'Mac': <'02:4b:45:50:00:01'>, 'CablePluggedIn': <true>, 'State': "
        "<%s>,"
        "   'Method': <%s>, 'Address': <%s>, 'Netmask': <%s>, 'Gateway': <%s>, 'Dns': <%s>}>,"
        " 'Wireless': <{'Interface': <'mlan0'>, 'Mac': <'02:4b:45:50:00:02'>, 'State': <%s>,"
        "   'Method': <%s>, 'Address': <%s>, 'Netmask': <%s>, 'Gateway': <%s>, 'Dns': <%s>,"
        "   'Ssid': <%s>, 'SignalStrength': <%i>, 'KnownNetworks': <%i>}>,"
        " 'SoftAp': <{'Interface': <%s>, 'Active': <%b>, 'Ssid': <'kep-setup'>, 'Address': <%s>}>}",
        softAp                      ? "softap"
            : wiredUp || wirelessUp ? "connected"
                                    : "disconnected",
        mode.c_str(), m_state.properties.at("LogLevel").get(), wiredUp ? "up" : "down", wired.method.c_str(),
        wired.address.c_str(), wired.netmask.c_str(), wired.gateway.c_str(), wired.dns.c_str(),
        wirelessUp ? "up" : "down", wireless.method.c_str(), wireless.address.c_str(),
        wireless.netmask.c_str(), wireless.gateway.c_str(), wireless.dns.c_str(),
        wirelessUp ? ssid.c_str() : "", wirelessUp ? -52 : 0, known, m_softApInterface.c_str(),
        gboolean(softAp), softAp ? "10.42.0.1" : ""));
}

void Service::switchMode(const std::string &mode)
{
    const std::string previous = this->mode();
    const bool connected = mode != "off" && mode != "softap";
    m_state.properties["Mode"] = own(g_variant_new_string(mode.c_str()));
    m_state.properties["Connected"] = own(g_variant_new_boolean(connected));
    if (previous == mode)
        return;
    for (const char *signal : {"Disconnecting", "Disconnected"})
        if (previous != "off")
            say(signal, g_variant_new("(s)", previous.c_str()));
    if (connected) {
        say("InterfaceStatusChanged", g_variant_new("(si)", mode.c_str(), 1)); // 1: up
        say("Connected", g_variant_new("(s)", mode.c_str()));
    }
    say("AddressesChanged", g_variant_new("()"));
}

void Service::say(const char *signal, GVariant *args)
{
    if (m_state.silent)
        g_variant_unref(g_variant_ref_sink(args));
    else
        emit(signal, args);
}
