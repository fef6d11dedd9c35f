#include "sim/device.h"

namespace {

// What DHCP gives the bench's interfaces, and what else the made Details show.
const char WiredDhcpAddress[] = "192.168.10.23";
const char WirelessDhcpAddress[] = "192.168.10.57";
const char DhcpNetmask[] = "255.255.255.0";
const char DhcpGateway[] = "192.168.10.1";
const char DhcpDns[] = "192.168.10.1 9.9.9.9";
const char SoftApAddress[] = "10.42.0.1";
constexpr gint32 ConnectedSignalStrength = -52;

// InterfaceStatusChanged's status for an interface that has come up.
constexpr gint32 InterfaceUp = 1;

// The modes the service knows besides "off" and "softap".
bool isNormalMode(const std::string &mode)
{
    return mode == "automatic" || mode == "wired" || mode == "wireless" || mode == "hybrid";
}

const char *upOrDown(bool up)
{
    if (up)
        return "up";
    return "down";
}

std::string textIn(GVariant *map, const char *key)
{
    g_autoptr(GVariant) value = g_variant_lookup_value(map, key, G_VARIANT_TYPE_STRING);
    if (!value)
        return "";
    return g_variant_get_string(value, nullptr);
}

// How an interface is addressed: by the settings written to the service, if any, else by DHCP on the
// bench once the interface is up.
struct Addressing {
    std::string method;
    std::string address;
    std::string netmask;
    std::string gateway;
    std::string dns;
};

Addressing addressing(GVariant *written, const char *dhcpAddress, bool up)
{
    if (g_variant_is_of_type(written, G_VARIANT_TYPE_VARDICT) && g_variant_n_children(written) > 0) {
        // "Gatewap" is the service's spelling of the key.
        return {"static", textIn(written, "Ip"), textIn(written, "Netmask"), textIn(written, "Gatewap"),
                textIn(written, "Dns")};
    }
    if (!up)
        return {"dhcp", "", "", "", ""};
    return {"dhcp", dhcpAddress, DhcpNetmask, DhcpGateway, DhcpDns};
}

// The first of the known networks by name.
std::string firstNetwork(GVariant *networks, gint32 &count)
{
    std::string first;
    count = 0;
    if (!g_variant_is_of_type(networks, G_VARIANT_TYPE_VARDICT))
        return first;
    GVariantIter networkIter;
    const char *network = nullptr;
    g_variant_iter_init(&networkIter, networks);
    while (g_variant_iter_next(&networkIter, "{&sv}", &network, nullptr)) {
        if (count == 0 || network < first)
            first = network;
        count += 1;
    }
    return first;
}

} // namespace

Device::Device(DeviceState state, Emit emit)
    : m_initialState(std::move(state))
    , m_state(m_initialState)
    , m_emit(std::move(emit))
{ }

void Device::reset()
{
    m_timers.cancelAll();
    m_state = m_initialState;
}

Variant Device::call(std::string_view member, GVariant *args)
{
    const char *word = ""; // the methods that take arguments take a string first
    if (g_variant_n_children(args) > 0)
        g_variant_get_child(args, 0, "&s", &word);
    const std::string firstArgument = word;
    if (member == "InterfaceDetails") {
        Variant details = interfaceDetails(firstArgument);
        return own(g_variant_new("(@a{sv})", details.get()));
    }
    if (member == "Scan") {
        m_timers.after(m_state.scanDelayMs, [this] { sayScanResults(); });
    } else if (member == "SetNormalMode" && isNormalMode(firstArgument)) {
        switchMode(firstArgument);
    } else if (member == "SetNormalMode") {
        say("Error", g_variant_new("(s)", ("Unknown mode: " + firstArgument).c_str()));
    } else if (member == "SetOffMode") {
        switchMode("off");
    } else if (member == "StopSoftAp") {
        if (firstArgument == m_state.softApInterface && currentMode() == "softap")
            switchMode("off");
    } else if (member == "StartSoftAp") {
        g_autoptr(GVariant) settings = g_variant_get_child_value(args, 1);
        g_autoptr(GVariantDict) apSettings = g_variant_dict_new(settings);
        g_variant_dict_insert(apSettings, "Interface", "s", word);
        m_state.softApInterface = firstArgument;
        m_state.properties["SoftApModeSettings"] = own(g_variant_dict_end(apSettings));
        switchMode("softap");
        say("Started", g_variant_new("()"));
    } else if (member == "WpsPbc" || member == "WpsPin") {
        startWps();
    }
    return own(g_variant_new("()"));
}

// One run at a time: a second request during a run changes nothing.
void Device::startWps()
{
    if (m_state.wpsRunning)
        return;
    m_state.wpsRunning = true;
    const guint step = m_state.wpsStepMs;
    const guint passes = m_state.wpsScanPasses;
    for (guint pass = 1; pass <= passes; ++pass) {
        m_timers.after(step * pass, [this] { sayScanResults(); });
    }
    m_timers.after(step * (passes + 1), [this] {
        m_state.wpsRunning = false;
        if (m_state.wpsError.empty())
            say("WpsCredentials", g_variant_new("(@a{sv})", m_state.wpsCredentials.get()));
        else
            say("WpsError", g_variant_new("(s)", m_state.wpsError.c_str()));
    });
}

// The map in Details that names that interface; an empty one when none does.
Variant Device::interfaceDetails(const std::string &interface) const
{
    Variant details = property("Details");
    if (!g_variant_is_of_type(details.get(), G_VARIANT_TYPE_VARDICT))
        return own(g_variant_new("a{sv}", nullptr));
    Variant found;
    GVariantIter entries;
    GVariant *entry = nullptr;
    g_variant_iter_init(&entries, details.get());
    while (g_variant_iter_next(&entries, "{&sv}", nullptr, &entry)) {
        Variant owned = own(entry);
        const bool isMap = g_variant_is_of_type(entry, G_VARIANT_TYPE_VARDICT);
        if (isMap && textIn(entry, "Interface") == interface)
            found = std::move(owned);
    }
    if (!found)
        return own(g_variant_new("a{sv}", nullptr));
    return found;
}

std::string Device::currentMode() const
{
    GVariant *mode = m_state.properties.at("Mode").get();
    if (!g_variant_is_of_type(mode, G_VARIANT_TYPE_STRING))
        return "";
    return g_variant_get_string(mode, nullptr);
}

Variant Device::property(const std::string &name) const
{
    const auto given = m_state.properties.find(name);
    if (given != m_state.properties.end())
        return Variant(g_variant_ref(given->second.get()));
    return madeDetails(); // the one property that is not always given
}

void Device::setProperty(const std::string &name, SharedVariant value)
{
    m_state.properties[name] = std::move(value);
}

Variant Device::madeDetails() const
{
    const std::string mode = currentMode();
    const bool softAp = mode == "softap";
    const bool wiredUp = mode == "automatic" || mode == "wired" || mode == "hybrid";
    const bool wirelessUp = mode == "automatic" || mode == "wireless" || mode == "hybrid";
    const auto &properties = m_state.properties;
    const Addressing wired = addressing(properties.at("WiredIpSettings").get(), WiredDhcpAddress, wiredUp);
    const Addressing wireless
        = addressing(properties.at("WirelessIpSettings").get(), WirelessDhcpAddress, wirelessUp);
    gint32 knownNetworks = 0;
    std::string ssid = firstNetwork(properties.at("WirelessNetworks").get(), knownNetworks);
    std::string state = "disconnected";
    if (softAp)
        state = "softap";
    else if (wiredUp || wirelessUp)
        state = "connected";
    gint32 signalStrength = 0;
    if (wirelessUp)
        signalStrength = ConnectedSignalStrength;
    else
        ssid.clear();
    std::string apAddress;
    if (softAp)
        apAddress = SoftApAddress;
    return own(g_variant_new_parsed(
        "{'State': <%s>, 'Mode': <%s>, 'LogLevel': %v,"
        " 'Wired': <{'Interface': <'eth0'>, 'Mac': <'02:4b:45:50:00:01'>, 'CablePluggedIn': <true>,"
        "   'State': <%s>, 'Method': <%s>, 'Address': <%s>, 'Netmask': <%s>, 'Gateway': <%s>, 'Dns': <%s>}>,"
        " 'Wireless': <{'Interface': <'mlan0'>, 'Mac': <'02:4b:45:50:00:02'>, 'State': <%s>,"
        "   'Method': <%s>, 'Address': <%s>, 'Netmask': <%s>, 'Gateway': <%s>, 'Dns': <%s>,"
        "   'Ssid': <%s>, 'SignalStrength': <%i>, 'KnownNetworks': <%i>}>,"
        " 'SoftAp': <{'Interface': <%s>, 'Active': <%b>, 'Ssid': <'kep-setup'>, 'Address': <%s>}>}",
        state.c_str(), mode.c_str(), properties.at("LogLevel").get(), upOrDown(wiredUp), wired.method.c_str(),
        wired.address.c_str(), wired.netmask.c_str(), wired.gateway.c_str(), wired.dns.c_str(),
        upOrDown(wirelessUp), wireless.method.c_str(), wireless.address.c_str(), wireless.netmask.c_str(),
        wireless.gateway.c_str(), wireless.dns.c_str(), ssid.c_str(), signalStrength, knownNetworks,
        m_state.softApInterface.c_str(), gboolean(softAp), apAddress.c_str()));
}

void Device::switchMode(const std::string &mode)
{
    const std::string previous = currentMode();
    const bool connected = mode != "off" && mode != "softap";
    m_state.properties["Mode"] = own(g_variant_new_string(mode.c_str()));
    m_state.properties["Connected"] = own(g_variant_new_boolean(connected));
    if (previous == mode)
        return;
    if (previous != "off") {
        say("Disconnecting", g_variant_new("(s)", previous.c_str()));
        say("Disconnected", g_variant_new("(s)", previous.c_str()));
    }
    if (connected) {
        say("InterfaceStatusChanged", g_variant_new("(si)", mode.c_str(), InterfaceUp));
        say("Connected", g_variant_new("(s)", mode.c_str()));
    }
    say("AddressesChanged", g_variant_new("()"));
}

void Device::sayScanResults()
{
    say("ScanResults", g_variant_new("(@a{sv})", m_state.scanResults.get()));
}

void Device::say(const char *signal, GVariant *args)
{
    if (m_state.silent) {
        g_variant_unref(g_variant_ref_sink(args));
        return;
    }
    m_emit(signal, args);
}
