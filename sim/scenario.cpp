#include "sim/scenario.h"

#include "service/endpoint.h"
#include "sim/interface.h"
#include "sim/message.h"

#include <algorithm>
#include <cstring>

namespace {

// What the simulator plays unless a scenario file says otherwise.
const char BuiltIn[] = R"({'Connected': <true>, 'LogLevel': <2>, 'Mode': <'automatic'>,
  'SoftApModeSettings': <@a{sv} {}>, 'WiredIpSettings': <@a{sv} {}>, 'WirelessIpSettings': <@a{sv} {}>,
  'WirelessNetworks': <{'Workshop': <{'wpa_psk': <'correct horse battery'>}>}>,
  'scan': <{'delay-ms': <1500>, 'results': <{
    'Workshop': <{'Bssid': <'02:11:22:33:44:01'>, 'SignalStrength': <-48>,
      'Frequency': <uint32 2437>, 'Security': <'wpa_psk'>}>,
    'Warehouse-5G': <{'Bssid': <'02:11:22:33:44:02'>, 'SignalStrength': <-67>,
      'Frequency': <uint32 5180>, 'Security': <'wpa_psk'>}>,
    'Guest': <{'Bssid': <'02:11:22:33:44:03'>, 'SignalStrength': <-71>,
      'Frequency': <uint32 2462>, 'Security': <'unsecured'>}>}>}>,
  'wps': <{'scan-passes': <2>, 'step-ms': <1000>, 'error': <''>,
    'credentials': <{'Ssid': <'Workshop'>, 'Security': <'wpa_psk'>, 'Key': <'correct horse battery'>}>}>})";

const char BuiltInName[] = "built-in scenario";
const char DialogKey[] = "dialog";

// Where a key's value is read into: a value of its own, a dictionary of further keys, or a dialog's steps.
enum class Form { Value, Dictionary, Steps };

// The simulator's own keys, at the top of a scenario (within "") or inside another of its keys. Property
// names, from the interface file, are the other keys at the top.
struct ScenarioKey {
    const char *within;
    const char *name;
    const char *type;
    Form form;
    void (*set)(DeviceState &device, Variant value); // Form::Value only
};

guint32 numberIn(const Variant &value)
{
    return g_variant_get_uint32(value.get());
}

std::string stringIn(const Variant &value)
{
    return g_variant_get_string(value.get(), nullptr);
}

const ScenarioKey ScenarioKeys[] = {
    {"", "silent", "b", Form::Value,
     [](DeviceState &device, Variant value) { device.silent = g_variant_get_boolean(value.get()); }},
    {"", "scan", "a{sv}", Form::Dictionary, nullptr},
    {"", "wps", "a{sv}", Form::Dictionary, nullptr},
    {"", DialogKey, "aa{sv}", Form::Steps, nullptr},
    {"scan", "delay-ms", "u", Form::Value,
     [](DeviceState &device, Variant value) { device.scanDelayMs = numberIn(value); }},
    {"scan", "results", "a{sv}", Form::Value,
     [](DeviceState &device, Variant value) { device.scanResults = std::move(value); }},
    {"wps", "scan-passes", "u", Form::Value,
     [](DeviceState &device, Variant value) { device.wpsScanPasses = numberIn(value); }},
    {"wps", "step-ms", "u", Form::Value,
     [](DeviceState &device, Variant value) { device.wpsStepMs = numberIn(value); }},
    {"wps", "credentials", "a{sv}", Form::Value,
     [](DeviceState &device, Variant value) { device.wpsCredentials = std::move(value); }},
    {"wps", "error", "s", Form::Value,
     [](DeviceState &device, Variant value) { device.wpsError = stringIn(value); }},
};

// When the writer writes a step's key.
enum class Written { Always, ForCall, ForSignal, WhenSet, WhenAnswered, WithError };

// The field of a step that a key sets: a number, a text or a tuple.
struct StepField {
    guint Step::*number;
    std::string Step::*string;
    Variant Step::*tuple;
};

// The keys of a dialog's step, in the order the writer writes them. Type "r" is any tuple.
struct StepKey {
    const char *name;
    const char *type;
    StepField field;
    Written written;
};

const StepKey StepKeys[] = {
    {"after-ms", "u", {&Step::afterMs, nullptr, nullptr}, Written::Always},
    {"call", "s", {nullptr, &Step::member, nullptr}, Written::ForCall},
    {"signal", "s", {nullptr, &Step::member, nullptr}, Written::ForSignal},
    {"interface", "s", {nullptr, &Step::interface, nullptr}, Written::WhenSet},
    {"args", "r", {nullptr, nullptr, &Step::args}, Written::Always},
    {"reply-ms", "u", {&Step::replyMs, nullptr, nullptr}, Written::WhenAnswered},
    {"reply", "r", {nullptr, nullptr, &Step::reply}, Written::WhenSet},
    {"error", "s", {nullptr, &Step::error, nullptr}, Written::WhenSet},
    {"message", "s", {nullptr, &Step::message, nullptr}, Written::WithError},
};

// Sets the step's field that `key` names; false when a call or signal step is named as the other.
bool setStepKey(Step &step, const StepKey &key, Variant value)
{
    const bool namesMember = key.written == Written::ForCall || key.written == Written::ForSignal;
    if (namesMember && !step.member.empty())
        return false;
    if (namesMember)
        step.isCall = key.written == Written::ForCall;
    if (key.field.number)
        step.*key.field.number = numberIn(value);
    else if (key.field.string)
        step.*key.field.string = stringIn(value);
    else
        step.*key.field.tuple = std::move(value);
    return true;
}

// The value of `key` in the step as GVariant text; empty when the writer leaves the key out.
std::string stepValueText(const Step &step, const StepKey &key)
{
    bool written = true;
    switch (key.written) {
    case Written::Always:
        break;
    case Written::ForCall:
        written = step.isCall;
        break;
    case Written::ForSignal:
        written = !step.isCall;
        break;
    case Written::WhenSet:
        written = (key.field.string && !(step.*key.field.string).empty())
            || (key.field.tuple && step.*key.field.tuple);
        break;
    case Written::WhenAnswered:
        written = step.answered();
        break;
    case Written::WithError:
        written = !step.error.empty();
        break;
    }
    if (!written)
        return "";
    if (key.field.number)
        return std::to_string(step.*key.field.number);
    if (key.field.string)
        return quoted(step.*key.field.string);
    return text(orEmptyTuple((step.*key.field.tuple).get()).get());
}

const char StepWithin[] = "step";
const char Blanks[] = " \t\r\n";

// What a key names where it stands: its type, and the row that says what to do with its value. A
// property has a type and neither row; an unknown key has no type.
struct KeyMeaning {
    const char *type = nullptr;
    const ScenarioKey *scenarioKey = nullptr;
    const StepKey *stepKey = nullptr;
};

// Reads a scenario's dictionaries, {'key': <value>, ...}, each value against the type its key takes.
class Reader
{
public:
    Reader(std::string path, const std::string &text, Scenario &scenario, std::string &message)
        : m_path(std::move(path))
        , m_text(text)
        , m_scenario(scenario)
        , m_message(message)
    { }

    bool read()
    {
        g_autoptr(GError) error = nullptr;
        const GVariantType *dictionaryType = G_VARIANT_TYPE_VARDICT;
        g_autoptr(GVariant) whole = g_variant_parse(dictionaryType, m_text.c_str(), nullptr, nullptr, &error);
        if (!whole)
            return refuseParse(0, error, " (a scenario is one dictionary, type 'a{sv}')");
        size_t at = 0;
        return dictionary(at, "");
    }

private:
    bool refuse(size_t at, const std::string &problem)
    {
        const size_t line = 1 + std::count(m_text.begin(), m_text.begin() + at, '\n');
        size_t lineStart = 0;
        if (at > 0)
            lineStart = m_text.rfind('\n', at - 1) + 1; // npos + 1 is 0
        const long column = 1 + g_utf8_strlen(m_text.c_str() + lineStart, at - lineStart);
        m_message = m_path + ':' + std::to_string(line) + ':' + std::to_string(column) + ": " + problem;
        return false;
    }

    // GLib's parse errors begin with the offsets of the fault: "4-7:...".
    bool refuseParse(size_t at, const GError *error, const std::string &note)
    {
        char *rest = nullptr;
        const unsigned long offset = std::strtoul(error->message, &rest, 10);
        const char *colon = std::strchr(rest, ':');
        if (rest == error->message || !colon)
            return refuse(at, error->message + note);
        return refuse(at + offset, colon + 1 + note);
    }

    // What key `name` means within `within`, and the keys known there.
    KeyMeaning meaningOf(const std::string &within, const std::string &name, std::string &known) const
    {
        KeyMeaning meaning;
        const auto consider = [&](const char *key, const char *type) {
            if (!known.empty())
                known += ", ";
            known += key;
            const bool matches = name == key;
            if (matches)
                meaning.type = type;
            return matches;
        };
        if (within.empty()) {
            for (GDBusPropertyInfo **property = kepInterface()->properties; *property; ++property)
                consider((*property)->name, (*property)->signature);
        }
        for (const ScenarioKey &key : ScenarioKeys) {
            if (within == key.within && consider(key.name, key.type))
                meaning.scenarioKey = &key;
        }
        if (within == StepWithin) {
            for (const StepKey &key : StepKeys) {
                if (consider(key.name, key.type))
                    meaning.stepKey = &key;
            }
        }
        return meaning;
    }

    // The dictionary that begins at `at`, which moves past its closing brace.
    bool dictionary(size_t &at, const std::string &within)
    {
        const char *base = m_text.c_str();
        const char *p = base + at;
        const char *end = nullptr;
        const auto skip = [&p](char past) { // blanks, and one `past` with the blanks after it
            p += std::strspn(p, Blanks);
            if (*p == past)
                p += 1 + std::strspn(p + 1, Blanks);
        };
        skip(' ');
        if (*p != '{')
            return refuse(p - base, "expected a dictionary {'key': <value>, ...}");
        for (skip('{'); *p != '}'; skip(',')) {
            g_autoptr(GError) error = nullptr;
            const size_t keyAt = p - base;
            g_autoptr(GVariant) key = g_variant_parse(G_VARIANT_TYPE_STRING, p, nullptr, &end, &error);
            if (!key)
                return refuseParse(keyAt, error, "");
            const std::string name = g_variant_get_string(key, nullptr);
            std::string known;
            const KeyMeaning meaning = meaningOf(within, name, known);
            if (!meaning.type)
                return refuse(keyAt, "unknown key '" + name + "' (known here: " + known + ")");
            p = end;
            skip(':');
            if (*p != '<')
                return refuse(p - base, "expected a value in angle brackets, <...>");
            g_autoptr(GVariant) any = g_variant_parse(nullptr, p, nullptr, &end, nullptr); // where it ends
            p += 1;
            const size_t valueAt = p - base;
            const std::string expected = "'" + name + "' takes type '" + meaning.type + "'";
            Variant value;
            if (!valueOf(meaning.type, p, end - 1, expected, value))
                return false;
            if (!take(name, meaning, std::move(value), valueAt))
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
        const size_t at = p - m_text.c_str();
        const bool definite = g_variant_type_is_definite(G_VARIANT_TYPE(type));
        value = own(g_variant_parse(nullptr, p, end, nullptr, nullptr));
        const bool bareNumber = value && g_variant_is_of_type(value.get(), G_VARIANT_TYPE_INT32);
        const bool numberType = std::strchr("ynqiuxt", *type) != nullptr;
        if (definite && (!value || (bareNumber && numberType))) {
            g_autoptr(GError) error = nullptr;
            value = own(g_variant_parse(G_VARIANT_TYPE(type), p, end, nullptr, &error));
            if (!value)
                return refuseParse(at, error, " (" + expected + ")");
        }
        if (!value)
            return refuse(at, expected);
        if (!g_variant_is_of_type(value.get(), G_VARIANT_TYPE(type)))
            return refuse(at, expected + ", not '" + g_variant_get_type_string(value.get()) + "'");
        return true;
    }

    // The steps of a dialog, [{...}, ...], beginning at `at`.
    bool steps(size_t at)
    {
        const char *base = m_text.c_str();
        const char *p = base + at;
        if (*p == '@')
            p += std::strcspn(p, Blanks); // a type annotation
        p += std::strspn(p, Blanks) + 1;  // and the opening bracket
        p += std::strspn(p, Blanks);
        while (*p != ']') {
            size_t stepAt = p - base;
            m_scenario.dialog.emplace_back();
            if (!dictionary(stepAt, StepWithin))
                return false;
            if (m_scenario.dialog.back().member.empty())
                return refuse(p - base, "a step names a 'call' or a 'signal'");
            p = base + stepAt;
            p += std::strspn(p, Blanks);
            if (*p == ',')
                p += 1 + std::strspn(p + 1, Blanks);
        }
        return true;
    }

    bool take(const std::string &name, const KeyMeaning &meaning, Variant value, size_t at)
    {
        if (meaning.stepKey) {
            if (!setStepKey(m_scenario.dialog.back(), *meaning.stepKey, std::move(value)))
                return refuse(at, "a step is either a call or a signal");
            return true;
        }
        if (!meaning.scenarioKey) {
            m_scenario.device.properties[name] = std::move(value);
            return true;
        }
        switch (meaning.scenarioKey->form) {
        case Form::Dictionary:
            return dictionary(at, name);
        case Form::Steps:
            return steps(at);
        case Form::Value:
            break;
        }
        meaning.scenarioKey->set(m_scenario.device, std::move(value));
        return true;
    }

    const std::string m_path;
    const std::string &m_text;
    Scenario &m_scenario;
    std::string &m_message;
};

std::string stepText(const Step &step)
{
    std::string line;
    for (const StepKey &key : StepKeys) {
        const std::string value = stepValueText(step, key);
        if (value.empty())
            continue;
        if (!line.empty())
            line += ", ";
        line += "'" + std::string(key.name) + "': <" + value + ">";
    }
    return "{" + line + "}";
}

std::string dialogText(const Dialog &dialog)
{
    if (dialog.empty())
        return "@aa{sv} []";
    std::string out = "[";
    for (size_t index = 0; index < dialog.size(); ++index) {
        if (index > 0)
            out += ",";
        out += "\n    " + stepText(dialog[index]);
    }
    return out + "\n  ]";
}

// The properties, "  'Name': <value>" a line, joined by ",\n".
std::string propertyLines(const std::vector<Entry> &properties)
{
    std::string lines;
    for (const Entry &property : properties) {
        if (!lines.empty())
            lines += ",\n";
        lines += "  " + quoted(property.first) + ": <" + text(property.second.get()) + ">";
    }
    return lines;
}

} // namespace

std::string Step::interfaceName() const
{
    if (interface.empty())
        return kep::InterfaceName;
    return interface;
}

bool loadScenario(const std::string &path, Scenario &scenario, std::string &message)
{
    if (!Reader(BuiltInName, BuiltIn, scenario, message).read())
        return false;
    if (path.empty())
        return true;
    g_autofree char *contents = nullptr;
    gsize length = 0;
    g_autoptr(GError) error = nullptr;
    if (!g_file_get_contents(path.c_str(), &contents, &length, &error)) {
        message = "kep-sim: " + std::string(error->message);
        return false;
    }
    const std::string fileText(contents, length);
    return Reader(path, fileText, scenario, message).read();
}

std::string scenarioText(const std::vector<Entry> &properties)
{
    if (properties.empty())
        return "{}\n";
    return "{\n" + propertyLines(properties) + "\n}\n";
}

std::string scenarioText(const std::vector<Entry> &properties, const Dialog &dialog)
{
    std::string lines = propertyLines(properties);
    if (!lines.empty())
        lines += ",\n";
    return "{\n" + lines + "  " + quoted(DialogKey) + ": <" + dialogText(dialog) + ">\n}\n";
}
