#include "sim/scenario.h"

#include "service/endpoint.h"
#include "sim/interface.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// What the simulator plays unless a scenario file says otherwise.
const char BuiltIn[] = R"({'Connected': <true>, 'LogLevel': <2>, 'Mode': <'automatic'>,
  'SoftApModeSettings': <@a{sv} {}>, 'WiredIpSettings': <@a{sv} {}>, 'WirelessIpSettings': <@a{sv} {}>,
  'WirelessNetworks': <{'Workshop': <{'wpa_psk': <'correct horse battery'>}>}>,
  'scan': <{'delay-ms': <1500>, 'results': <{
    'Workshop': <{'Bssid': <'02:11:22:33:44:01'>, 'SignalStrength': <-48>, 'Frequency': <uint32 2437>, 'Security': <'wpa_psk'>}>,
    'Warehouse-5G': <{'Bssid': <'02:11:22:33:44:02'>, 'SignalStrength': <-67>, 'Frequency': <uint32 5180>, 'Security': <'wpa_psk'>}>,
    'Guest': <{'Bssid': <'02:11:22:33:44:03'>, 'SignalStrength': <-71>, 'Frequency': <uint32 2462>, 'Security': <'unsecured'>}>}>}>,
  'wps': <{'scan-passes': <2>, 'step-ms': <1000>, 'error': <''>,
    'credentials': <{'Ssid': <'Workshop'>, 'Security': <'wpa_psk'>, 'Key': <'correct horse battery'>}>}>})";

// The simulator's own keys, at the top of a scenario ("") or inside another key.
struct Key { const char *within, *name, *type; };
const Key Keys[] = {{"", "silent", "b"}, {"", "scan", "a{sv}"}, {"", "wps", "a{sv}"},
                    {"scan", "delay-ms", "u"}, {"scan", "results", "a{sv}"}, {"wps", "scan-passes", "u"},
                    {"wps", "step-ms", "u"}, {"wps", "credentials", "a{sv}"}, {"wps", "error", "s"}};

// The type that key `name` takes (null: none), and the keys known there.
const char *typeOf(const std::string &within, const std::string &name, std::string &known) {
    const char *type = nullptr;
    const auto add = [&](const char *key, const char *keyType) {
        known += (known.empty() ? "" : ", ") + std::string(key);
        type = name == key ? keyType : type;
    };
    for (GDBusPropertyInfo **p = kepInterface()->properties; within.empty() && *p; ++p)
        add((*p)->name, (*p)->signature);
    for (const Key &key : Keys)
        if (within == key.within) add(key.name, key.type);
    return type;
}

// Reads a scenario's dictionaries, {'key': <value>, ...}, each value against the type its key takes.
struct Reader {
    const std::string path, &text;
    Scenario &s;
    std::string &message;

    bool read() {
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) whole = g_variant_parse(G_VARIANT_TYPE_VARDICT, text.c_str(), nullptr, nullptr, &error);
        return whole ? dictionary(0, "") : fail(0, error, " (a scenario is one dictionary, type 'a{sv}')");
    }

    bool fail(size_t at, const std::string &problem) {
        const size_t line = 1 + std::count(text.begin(), text.begin() + at, '\n');
        const size_t start = at ? text.rfind('\n', at - 1) + 1 : 0; // npos + 1 is 0
        const long column = 1 + g_utf8_strlen(text.c_str() + start, at - start);
        message = path + ':' + std::to_string(line) + ':' + std::to_string(column) + ": " + problem;
        return false;
    }

    // GLib's parse errors begin with the offsets of the fault: "4-7:...".
    bool fail(size_t at, const GError *error, const std::string &note) {
        char *rest = nullptr;
        const unsigned long offset = std::strtoul(error->message, &rest, 10);
        const char *colon = std::strchr(rest, ':');
        return rest == error->message || !colon ? fail(at, error->message + note) : fail(at + offset, colon + 1 + note);
    }

    bool dictionary(size_t at, const std::string &within) {
        const char *base = text.c_str(), *p = base + at, *end = nullptr;
        const auto skip = [&p](char past) { // blanks, and one `past` with the blanks after it
            p += std::strspn(p, " \t\r\n");
            if (*p == past) p += 1 + std::strspn(p + 1, " \t\r\n");
        };
        skip(' ');
        if (*p != '{') return fail(p - base, "expected a dictionary {'key': <value>, ...}");
        for (skip('{'); *p != '}'; skip(',')) {
            g_autoptr(GError) error = nullptr;
            const size_t keyAt = p - base;
            g_autoptr(GVariant) key = g_variant_parse(G_VARIANT_TYPE_STRING, p, nullptr, &end, &error);
            if (!key) return fail(keyAt, error, "");
            std::string name = g_variant_get_string(key, nullptr), known;
            const char *type = typeOf(within, name, known);
            if (!type) return fail(keyAt, "unknown key '" + name + "' (known here: " + known + ")");
            p = end;
            skip(':');
            if (*p != '<') return fail(p - base, "expected a value in angle brackets, <...>");
            g_autoptr(GVariant) any = g_variant_parse(nullptr, p, nullptr, &end, nullptr); // where it ends
            const size_t valueAt = ++p - base;
            const std::string expected = "'" + name + "' takes type '" + type + "'";
            // As written, unless only the expected type tells what it is: an empty array, a bare number.
            Variant value = own(g_variant_parse(nullptr, p, end - 1, nullptr, nullptr));
            if (!value || (g_variant_is_of_type(value.get(), G_VARIANT_TYPE_INT32) && std::strchr("ynqiuxt", *type)))
                value = own(g_variant_parse(G_VARIANT_TYPE(type), p, end - 1, nullptr, &error));
            if (!value) return fail(valueAt, error, " (" + expected + ")");
            if (!g_variant_is_of_type(value.get(), G_VARIANT_TYPE(type)))
                return fail(valueAt, expected + ", not '" + g_variant_get_type_string(value.get()) + "'");
            if (!take(name, std::move(value), valueAt)) return false;
            p = end;
        }
        return true;
    }

    bool take(const std::string &key, Variant value, size_t at) {
        GVariant *v = value.get();
        if (key == "scan" || key == "wps") return dictionary(at, key);
        if (key == "silent") s.silent = g_variant_get_boolean(v);
        else if (key == "delay-ms" || key == "scan-passes" || key == "step-ms")
            (key == "delay-ms" ? s.scanDelayMs : key == "step-ms" ? s.wpsStepMs : s.wpsScanPasses) = g_variant_get_uint32(v);
        else if (key == "error") s.wpsError = g_variant_get_string(v, nullptr);
        else if (key == "results" || key == "credentials")
            (key == "results" ? s.scanResults : s.wpsCredentials) = std::move(value);
        else s.properties[key] = std::move(value);
        return true;
    }
};

} // namespace

bool loadScenario(const std::string &path, Scenario &scenario, std::string &message) {
    g_autofree char *contents = nullptr;
    gsize length = 0;
    g_autoptr(GError) error = nullptr;
    if (!Reader{"built-in scenario", BuiltIn, scenario, message}.read()) return false;
    if (path.empty()) return true;
    if (!g_file_get_contents(path.c_str(), &contents, &length, &error)) {
        message = "kep-sim: " + std::string(error->message);
        return false;
    }
    return Reader{path, std::string(contents, length), scenario, message}.read();
}

bool captureScenario(GDBusConnection *bus, std::string &out) {
    bool complete = true;
    for (GDBusPropertyInfo **p = kepInterface()->properties; *p; ++p) {
        if (!((*p)->flags & G_DBUS_PROPERTY_INFO_FLAGS_READABLE)) continue;
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            bus, kep::ServiceName, kep::ObjectPath, "org.freedesktop.DBus.Properties", "Get",
            g_variant_new("(ss)", kep::InterfaceName, (*p)->name), G_VARIANT_TYPE("(v)"), G_DBUS_CALL_FLAGS_NONE, -1,
            nullptr, &error);
        g_autoptr(GVariant) value = reply ? g_variant_get_child_value(reply, 0) : nullptr; // in GVariant text: <...>
        if (value) out += std::string(out.empty() ? "{" : ",") + "\n  '" + (*p)->name + "': " + text(value);
        else std::fprintf(stderr, "kep-sim: %s left out: %s\n", (*p)->name, error->message);
        complete = complete && value;
    }
    out += out.empty() ? "{}\n" : "\n}\n";
    return complete;
}
