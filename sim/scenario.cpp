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

// The simulator's own keys, at the top of a scenario ("") or inside another key; a step is an element of
// 'dialog'. Type "r" is any tuple.
struct Key {
    const char *within, *name, *type;
};
const Key Keys[] = {{"", "silent", "b"},         {"", "scan", "a{sv}"},      {"", "wps", "a{sv}"},
                    {"", "dialog", "aa{sv}"},    {"scan", "delay-ms", "u"},  {"scan", "results", "a{sv}"},
                    {"wps", "scan-passes", "u"}, {"wps", "step-ms", "u"},    {"wps", "credentials", "a{sv}"},
                    {"wps", "error", "s"},       {"step", "after-ms", "u"},  {"step", "call", "s"},
                    {"step", "signal", "s"},     {"step", "interface", "s"}, {"step", "args", "r"},
                    {"step", "reply-ms", "u"},   {"step", "reply", "r"},     {"step", "error", "s"},
                    {"step", "message", "s"}};

const char Blanks[] = " \t\r\n";

// The type that key `name` takes (null: none), and the keys known there.
const char *typeOf(const std::string &within, const std::string &name, std::string &known)
{
    const char *type = nullptr;
    const auto add = [&](const char *key, const char *keyType) {
        if (!known.empty())
            known += ", ";
        known += key;
        if (name == key)
            type = keyType;
    };
    for (GDBusPropertyInfo **p = kepInterface()->properties; within.empty() && *p; ++p)
        add((*p)->name, (*p)->signature);
    for (const Key &key : Keys) {
        if (within == key.within)
            add(key.name, key.type);
    }
    return type;
}

std::string stringIn(const Variant &value)
{
    return g_variant_get_string(value.get(), nullptr);
}

// Reads a scenario's dictionaries, {'key': <value>, ...}, each value against the type its key takes.
struct Reader {
    const std::string path, &text;
    Scenario &s;
    std::string &message;

    bool read()
    {
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) whole
            = g_variant_parse(G_VARIANT_TYPE_VARDICT, text.c_str(), nullptr, nullptr, &error);
        if (!whole)
            return fail(0, error, " (a scenario is one dictionary, type 'a{sv}')");
        size_t at = 0;
        return dictionary(at, "");
    }

    bool fail(size_t at, const std::string &problem)
    {
        const size_t line = 1 + std::count(text.begin(), text.begin() + at, '\n');
        size_t start = 0;
        if (at > 0)
            start = text.rfind('\n', at - 1) + 1; // npos + 1 is 0
        const long column = 1 + g_utf8_strlen(text.c_str() + start, at - start);
        message = path + ':' + std::to_string(line) + ':' + std::to_string(column) + ": " + problem;
        return false;
    }

    // GLib's parse errors begin with the offsets of the fault: "4-7:...".
    bool fail(size_t at, const GError *error, const std::string &note)
    {
        char *rest = nullptr;
        const unsigned long offset = std::strtoul(error->message, &rest, 10);
        const char *colon = std::strchr(rest, ':');
        if (rest == error->message || !colon)
            return fail(at, error->message + note);
        return fail(at + offset, colon + 1 + note);
    }

    // The dictionary that begins at `at`, which moves past its closing brace.
    bool dictionary(size_t &at, const std::string &within)
    {
        const char *base = text.c_str(), *p = base + at, *end = nullptr;
        const auto skip = [&p](char past) { // blanks, and one `past` with the blanks after it
            p += std::strspn(p, Blanks);
            if (*p == past)
                p += 1 + std::strspn(p + 1, Blanks);
        };
        skip(' ');
        if (*p != '{')
            return fail(p - base, "expected a dictionary {'key': <value>, ...}");
        for (skip('{'); *p != '}'; skip(',')) {
            g_autoptr(GError) error = nullptr;
            const size_t keyAt = p - base;
            g_autoptr(GVariant) key = g_variant_parse(G_VARIANT_TYPE_STRING, p, nullptr, &end, &error);
            if (!key)
                return fail(keyAt, error, "");
            std::string name = g_variant_get_string(key, nullptr), known;
            const char *type = typeOf(within, name, known);
            if (!type)
                return fail(keyAt, "unknown key '" + name + "' (known here: " + known + ")");
            p = end;
            skip(':');
            if (*p != '<')
                return fail(p - base, "expected a value in angle brackets, <...>");
            g_autoptr(GVariant) any = g_variant_parse(nullptr, p, nullptr, &end, nullptr); // where it ends
            p += 1;
            const size_t valueAt = p - base;
            Variant value;
            if (!valueOf(type, p, end - 1, "'" + name + "' takes type '" + type + "'", value))
                return false;
            if (!take(within, name, std::move(value), valueAt))
                return false;
            p = end;
        }
        at = p + 1 - base;
        return true;
    }

    // The value between `p` and `end`, of the type given: as written, unless only that type tells what it
    // is (an empty array, a bare number). Any tuple ("r") is as written.
    bool valueOf(const char *type, const char *p, const char *end, const std::string &expected,
                 Variant &value)
    {
        const size_t at = p - text.c_str();
        const bool definite = g_variant_type_is_definite(G_VARIANT_TYPE(type));
        value = own(g_variant_parse(nullptr, p, end, nullptr, nullptr));
        const bool bareNumber = value && g_variant_is_of_type(value.get(), G_VARIANT_TYPE_INT32);
        if (definite && (!value || (bareNumber && std::strchr("ynqiuxt", *type)))) {
            g_autoptr(GError) error = nullptr;
            value = own(g_variant_parse(G_VARIANT_TYPE(type), p, end, nullptr, &error));
            if (!value)
                return fail(at, error, " (" + expected + ")");
        }
        if (!value)
            return fail(at, expected);
        if (!g_variant_is_of_type(value.get(), G_VARIANT_TYPE(type)))
            return fail(at, expected + ", not '" + g_variant_get_type_string(value.get()) + "'");
        return true;
    }

    // The steps of a dialog, [{...}, ...], beginning at `at`.
    bool steps(size_t at)
    {
        const char *base = text.c_str(), *p = base + at;
        if (*p == '@')
            p += std::strcspn(p, Blanks); // a type annotation
        p += std::strspn(p, Blanks) + 1;  // and the opening bracket
        p += std::strspn(p, Blanks);
        while (*p != ']') {
            size_t stepAt = p - base;
            s.dialog.emplace_back();
            if (!dictionary(stepAt, "step"))
                return false;
            const Step &step = s.dialog.back();
            if (step.member.empty())
                return fail(p - base, "a step names a 'call' or a 'signal'");
            p = base + stepAt;
            p += std::strspn(p, Blanks);
            if (*p == ',')
                p += 1 + std::strspn(p + 1, Blanks);
        }
        return true;
    }

    bool take(const std::string &within, const std::string &key, Variant value, size_t at)
    {
        if (within == "step")
            return takeStep(key, std::move(value), at);
        if (key == "scan" || key == "wps")
            return dictionary(at, key);
        if (key == "dialog")
            return steps(at);
        GVariant *v = value.get();
        if (key == "silent")
            s.silent = g_variant_get_boolean(v);
        else if (key == "delay-ms")
            s.scanDelayMs = g_variant_get_uint32(v);
        else if (key == "step-ms")
            s.wpsStepMs = g_variant_get_uint32(v);
        else if (key == "scan-passes")
            s.wpsScanPasses = g_variant_get_uint32(v);
        else if (key == "error")
            s.wpsError = g_variant_get_string(v, nullptr);
        else if (key == "results")
            s.scanResults = std::move(value);
        else if (key == "credentials")
            s.wpsCredentials = std::move(value);
        else
            s.properties[key] = std::move(value);
        return true;
    }

    bool takeStep(const std::string &key, Variant value, size_t at)
    {
        Step &step = s.dialog.back();
        if (key == "call" || key == "signal") {
            if (!step.member.empty())
                return fail(at, "a step is either a call or a signal");
            step.isCall = key == "call";
            step.member = stringIn(value);
        } else if (key == "after-ms")
            step.afterMs = g_variant_get_uint32(value.get());
        else if (key == "reply-ms")
            step.replyMs = g_variant_get_uint32(value.get());
        else if (key == "interface")
            step.interface = stringIn(value);
        else if (key == "error")
            step.error = stringIn(value);
        else if (key == "message")
            step.message = stringIn(value);
        else if (key == "args")
            step.args = std::move(value);
        else
            step.reply = std::move(value);
        return true;
    }
};

} // namespace

bool loadScenario(const std::string &path, Scenario &scenario, std::string &message)
{
    g_autofree char *contents = nullptr;
    gsize length = 0;
    g_autoptr(GError) error = nullptr;
    if (!Reader {"built-in scenario", BuiltIn, scenario, message}.read())
        return false;
    if (path.empty())
        return true;
    if (!g_file_get_contents(path.c_str(), &contents, &length, &error)) {
        message = "kep-sim: " + std::string(error->message);
        return false;
    }
    return Reader {path, std::string(contents, length), scenario, message}.read();
}

bool captureProperties(GDBusConnection *bus, std::string &entries, std::string &leftOut)
{
    for (GDBusPropertyInfo **p = kepInterface()->properties; *p; ++p) {
        if (!((*p)->flags & G_DBUS_PROPERTY_INFO_FLAGS_READABLE))
            continue;
        g_autoptr(GError) error = nullptr;
        g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
            bus, kep::ServiceName, kep::ObjectPath, "org.freedesktop.DBus.Properties", "Get",
            g_variant_new("(ss)", kep::InterfaceName, (*p)->name), G_VARIANT_TYPE("(v)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
        if (!reply) {
            leftOut += std::string("kep-sim: ") + (*p)->name + " left out: " + error->message + "\n";
            continue;
        }
        g_autoptr(GVariant) value = g_variant_get_child_value(reply, 0); // in GVariant text: <...>
        if (!entries.empty())
            entries += ",\n";
        entries += std::string("  '") + (*p)->name + "': " + text(value);
    }
    return leftOut.empty();
}
