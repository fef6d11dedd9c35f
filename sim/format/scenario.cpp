#include "sim/format/scenario.h"

#include "service/endpoint.h"
#include "sim/format/interface.h"
#include "sim/format/message.h"
#include "sim/format/playable.h"

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
    {"unplayable", "s", {nullptr, &Step::unplayable, nullptr}, Written::WhenSet},
};

// Sets the step's field that `key` names; false when a call or signal step is named as the other.
bool setStepKey(Step &step, const StepKey &key, Variant value)
{
    const bool namesMember = key.written == Written::ForCall || key.written == Written::ForSignal;
    if (namesMember && !step.member.empty())
        return false;
    if (namesMember)
        step.isCall = key.written == Written::ForCall;
    if (key.field.number == &Step::replyMs)
        step.hasReplyMs = true;
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
const char DictionaryType[] = "a{sv}"; // a scenario's, and each step's

// The longest refusal: a longer text in it is cut.
constexpr size_t MaxQuotedLength = 60;
constexpr size_t MaxProblemLength = 300;

// What g_utf8_get_char_validated() gives for a character the text ends inside.
constexpr gunichar PartialCharacter = gunichar(-2);

// Blanks as GLib's GVariant text parser takes them.
bool isBlank(char character)
{
    return g_ascii_isspace(character);
}

std::string notText(char invalid)
{
    if (invalid == '\0')
        return "a NUL byte: a scenario is GVariant text";
    return "not UTF-8 text: a scenario is GVariant text";
}

// What a key names where it stands: its type, and the row that says what to do with its value. A
// property has a type and neither row; an unknown key has no type.
struct KeyMeaning {
    const char *type = nullptr;
    const ScenarioKey *scenarioKey = nullptr;
    const StepKey *stepKey = nullptr;
};

// Reads a scenario, {'key': <value>, ...}: the dictionaries and the dialog's list of steps are walked here,
// each value is read by GLib's GVariant text parser against the type its key takes, and checked for what
// D-Bus can carry; each step is checked for what a replay can play. A refusal names its place.
class Reader
{
public:
    Reader(std::string path, std::string_view text, Scenario &scenario, std::string &message)
        : m_path(std::move(path))
        , m_text(text)
        , m_end(text.size())
        , m_scenario(scenario)
        , m_message(message)
    { }

    bool read()
    {
        const char *invalid = nullptr;
        if (!g_utf8_validate(m_text.data(), m_text.size(), &invalid)) {
            // A file cut short may end inside a character: it ends before that character.
            const size_t invalidAt = invalid - m_text.data();
            const std::string_view rest = m_text.substr(invalidAt);
            const gunichar character = g_utf8_get_char_validated(invalid, gssize(rest.size()));
            const bool cutCharacter = character == PartialCharacter && rest.find('\0') == rest.npos;
            if (!cutCharacter)
                return refuse(invalidAt, notText(*invalid));
            m_end = invalidAt;
        }
        size_t at = 0;
        if (!dictionary(at, "", DictionaryType))
            return false;
        if (m_scenario.cutShort)
            return true;
        skipBlanks(at);
        if (at != m_end)
            return refuse(at, "expected the end of the scenario after its dictionary");
        return true;
    }

private:
    bool refuse(size_t at, const std::string &problem)
    {
        const size_t place = std::min(at, m_end);
        const auto before = m_text.substr(0, place);
        const size_t line = 1 + std::count(before.begin(), before.end(), '\n');
        const size_t lastBreak = before.rfind('\n');
        size_t lineStart = 0;
        if (lastBreak != std::string_view::npos)
            lineStart = lastBreak + 1;
        const long column = 1 + g_utf8_strlen(m_text.data() + lineStart, place - lineStart);
        m_message = shown(m_path) + ':' + std::to_string(line) + ':' + std::to_string(column) + ": "
            + shown(problem, MaxProblemLength);
        return false;
    }

    // GLib's parse errors begin with the offsets of the fault from where it began to read, "4-7:...".
    // An offset outside what it read is not taken.
    bool refuseParse(size_t at, const GError *error, const std::string &note)
    {
        const char *text = error->message;
        char *rest = nullptr;
        const unsigned long long offset = g_ascii_strtoull(text, &rest, 10);
        const char *colon = std::strchr(rest, ':');
        if (rest == text || !colon)
            return refuse(at, text + note);
        size_t place = at;
        if (offset <= m_end - at)
            place = at + offset;
        return refuse(place, colon + 1 + note);
    }

    void skipBlanks(size_t &at) const
    {
        while (at < m_end && isBlank(m_text[at]))
            at += 1;
    }

    bool startsWith(size_t at, char character) const { return at < m_end && m_text[at] == character; }

    // Past `character` and the blanks after it, or refuses with `problem`.
    bool expect(size_t &at, char character, const std::string &problem)
    {
        skipBlanks(at);
        if (!startsWith(at, character))
            return refuse(at, problem);
        at += 1;
        skipBlanks(at);
        return true;
    }

    // Past a type annotation, "@TYPE", if one stands at `at`: it must be the type given.
    bool skipAnnotation(size_t &at, const char *type)
    {
        skipBlanks(at);
        if (!startsWith(at, '@'))
            return true;
        const size_t typeAt = at + 1;
        const char *typeEnd = nullptr;
        const char *begin = m_text.data() + typeAt;
        const char *limit = m_text.data() + m_end;
        if (!g_variant_type_string_scan(begin, limit, &typeEnd))
            return refuse(typeAt, "expected a type after '@'");
        const std::string_view written(begin, typeEnd - begin);
        if (written != type)
            return refuse(typeAt, "expected type '" + std::string(type) + "' here");
        at = typeEnd - m_text.data();
        skipBlanks(at);
        return true;
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

    // The dictionary that begins at `at`, which moves past its end: written {'key': <value>, ...}, or as
    // GLib also reads it, a list of entries [{'key', <value>}, ...]; a type annotation must be `type`.
    bool dictionary(size_t &at, const std::string &within, const char *type)
    {
        if (!skipAnnotation(at, type))
            return false;
        skipBlanks(at);
        const bool asList = startsWith(at, '[');
        char close = '}';
        if (asList)
            close = ']';
        if (!asList && !expect(at, '{', "expected a dictionary {'key': <value>, ...}"))
            return false;
        if (asList && !expect(at, '[', ""))
            return false;
        if (startsWith(at, close)) {
            at += 1;
            return true;
        }
        while (true) {
            if (asList && !expect(at, '{', "expected a dictionary entry {'key', <value>}"))
                return false;
            if (!entry(at, within, asList))
                return false;
            if (m_scenario.cutShort)
                return true;
            if (asList && !expect(at, '}', "expected '}' after a dictionary entry"))
                return false;
            skipBlanks(at);
            if (startsWith(at, close)) {
                at += 1;
                return true;
            }
            if (!expect(at, ',', std::string("expected ',' or '") + close + "' after a dictionary entry"))
                return false;
        }
    }

    // One entry of a dictionary, 'key': <value> (in a list of entries 'key', <value>), beginning at `at`,
    // which moves past it.
    bool entry(size_t &at, const std::string &within, bool inList)
    {
        g_autoptr(GError) error = nullptr;
        const char *begin = m_text.data() + at;
        const char *limit = m_text.data() + m_end;
        const char *keyEnd = nullptr;
        g_autoptr(GVariant) key = g_variant_parse(G_VARIANT_TYPE_STRING, begin, limit, &keyEnd, &error);
        if (!key)
            return refuseParse(at, error, " (a key is a string in quotes)");
        const std::string name = g_variant_get_string(key, nullptr);
        std::string known;
        const KeyMeaning meaning = meaningOf(within, name, known);
        if (!meaning.type)
            return refuse(at,
                          "unknown key '" + shown(name, MaxQuotedLength) + "' (known here: " + known + ")");
        at = keyEnd - m_text.data();
        char separator = ':';
        if (inList)
            separator = ',';
        if (!expect(at, separator, std::string("expected '") + separator + "' after the key"))
            return false;
        if (!startsWith(at, '<'))
            return refuse(at, "expected a value in angle brackets, <...>");
        at += 1;
        skipBlanks(at);
        const std::string expected = "'" + name + "' takes type '" + meaning.type + "'";
        if (!value(at, name, meaning, expected))
            return false;
        if (m_scenario.cutShort)
            return true;
        return expect(at, '>', "expected '>' after the value of '" + name + "'");
    }

    // The value of key `name` at `at`, which moves past it.
    bool value(size_t &at, const std::string &name, const KeyMeaning &meaning, const std::string &expected)
    {
        if (meaning.scenarioKey && meaning.scenarioKey->form == Form::Dictionary)
            return dictionary(at, name, meaning.type);
        if (meaning.scenarioKey && meaning.scenarioKey->form == Form::Steps)
            return steps(at, meaning.type);
        const size_t valueAt = at;
        Variant read;
        if (!parsed(at, meaning.type, expected, read))
            return false;
        std::string problem;
        const bool isProperty = !meaning.scenarioKey && !meaning.stepKey;
        if (std::string_view(meaning.type) == "r")
            problem = bodyProblem(read.get());
        else if (isProperty)
            problem = propertyProblem(name.c_str(), read.get());
        else
            problem = carryProblem(read.get());
        if (!problem.empty())
            return refuse(valueAt, problem + " (in '" + name + "')");
        return take(name, meaning, std::move(read), valueAt);
    }

    // The value at `at`, of the type given, read by GLib: as written, unless only that type tells what it
    // is (an empty array, a bare number). Any tuple ("r") is as written. `at` moves past the value.
    bool parsed(size_t &at, const char *type, const std::string &expected, Variant &read)
    {
        const char *begin = m_text.data() + at;
        const char *limit = m_text.data() + m_end;
        const char *valueEnd = nullptr;
        const bool definite = g_variant_type_is_definite(G_VARIANT_TYPE(type));
        g_autoptr(GError) error = nullptr;
        read = own(g_variant_parse(nullptr, begin, limit, &valueEnd, &error));
        const bool bareNumber = read && g_variant_is_of_type(read.get(), G_VARIANT_TYPE_INT32);
        const bool numberType = std::strchr("ynqiuxt", *type) != nullptr;
        if (definite && (!read || (bareNumber && numberType))) {
            g_clear_error(&error);
            read = own(g_variant_parse(G_VARIANT_TYPE(type), begin, limit, &valueEnd, &error));
        }
        if (!read)
            return refuseParse(at, error, " (" + expected + ")");
        const char *readType = g_variant_get_type_string(read.get());
        if (!g_variant_is_of_type(read.get(), G_VARIANT_TYPE(type)))
            return refuse(at, expected + ", not '" + readType + "'");
        g_variant_get_data(read.get()); // serialised: far smaller than the tree the parser built
        at = valueEnd - m_text.data();
        return true;
    }

    // The steps of a dialog, [{...}, ...], beginning at `at`, which moves past the closing bracket; a
    // type annotation must be `type`. A comma may follow the last step, so that any step's line can be cut
    // out of a recording, the last one too. A text that ends inside the list is a recording cut short:
    // the steps read whole are kept, and a step the end cuts through is left out.
    bool steps(size_t &at, const char *type)
    {
        if (!skipAnnotation(at, type))
            return false;
        if (!expect(at, '[', "expected a list of steps, [{...}, ...]"))
            return false;
        while (true) {
            skipBlanks(at);
            if (at == m_end)
                return cutShort();
            if (startsWith(at, ']')) {
                at += 1;
                return true;
            }
            const size_t stepAt = at;
            m_scenario.dialog.emplace_back();
            if (!dictionary(at, StepWithin, DictionaryType)) {
                if (closes(stepAt))
                    return false;
                m_scenario.dialog.pop_back();
                return cutShort();
            }
            const Step &step = m_scenario.dialog.back();
            if (step.member.empty())
                return refuse(stepAt, "a step names a 'call' or a 'signal'");
            const std::string problem = stepProblem(step);
            if (!problem.empty())
                return refuse(stepAt, problem);
            skipBlanks(at);
            if (at == m_end)
                return cutShort();
            const bool listEnds = startsWith(at, ']');
            if (!listEnds && !expect(at, ',', "expected ',' or ']' after a step"))
                return false;
        }
    }

    bool cutShort()
    {
        m_message.clear();
        m_scenario.cutShort = true;
        return true;
    }

    // Whether the brackets opened from `at` on close before the text ends, strings in quotes passed over.
    bool closes(size_t at) const
    {
        constexpr std::string_view Openings = "([{<";
        constexpr std::string_view Closings = ")]}>";
        int depth = 0;
        char quote = '\0';
        for (size_t here = at; here < m_end; ++here) {
            const char character = m_text[here];
            if (quote != '\0' && character == '\\') {
                here += 1; // an escaped character
            } else if (quote != '\0') {
                if (character == quote)
                    quote = '\0';
            } else if (character == '\'' || character == '"') {
                quote = character;
            } else if (Openings.find(character) != std::string_view::npos) {
                depth += 1;
            } else if (Closings.find(character) != std::string_view::npos) {
                depth -= 1;
                if (depth <= 0)
                    return true;
            }
        }
        return false;
    }

    bool take(const std::string &name, const KeyMeaning &meaning, Variant read, size_t at)
    {
        if (meaning.stepKey) {
            if (!setStepKey(m_scenario.dialog.back(), *meaning.stepKey, std::move(read)))
                return refuse(at, "a step is either a call or a signal");
            return true;
        }
        if (meaning.scenarioKey)
            meaning.scenarioKey->set(m_scenario.device, std::move(read));
        else
            m_scenario.device.properties[name] = std::move(read);
        return true;
    }

    const std::string m_path;
    const std::string_view m_text;
    size_t m_end;
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

// The properties, ",\n  'Name': <value>" each.
std::string propertyLines(const std::vector<Entry> &properties)
{
    std::string lines;
    for (const Entry &property : properties)
        lines += ",\n  " + quoted(property.first) + ": <" + text(property.second.get()) + ">";
    return lines;
}

} // namespace

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
    return readScenario(path, std::string_view(contents, length), scenario, message);
}

bool readScenario(const std::string &name, std::string_view text, Scenario &scenario, std::string &message)
{
    return Reader(name, text, scenario, message).read();
}

std::string scenarioText(const std::vector<Entry> &properties)
{
    if (properties.empty())
        return "{}\n";
    const size_t joinLength = 2; // ",\n" before the first property
    return "{\n" + propertyLines(properties).substr(joinLength) + "\n}\n";
}

std::string recordingHead()
{
    return "{\n  " + quoted(DialogKey) + ": <@aa{sv} [";
}

std::string recordingStep(const Step &step, bool first)
{
    std::string line = "\n    " + stepText(step);
    if (!first)
        line.insert(0, ",");
    return line;
}

std::string recordingTail(const std::vector<Entry> &properties)
{
    return "\n  ]>" + propertyLines(properties) + "\n}\n";
}

bool readRecordingStep(std::string_view text, Step &step, std::string &message)
{
    Scenario scenario;
    const std::string dialog = "{" + quoted(DialogKey) + ": <[" + std::string(text) + "]>}";
    if (!Reader("the recording", dialog, scenario, message).read())
        return false;
    if (scenario.dialog.size() != 1 || scenario.cutShort) {
        message = "not one whole step";
        return false;
    }
    step = std::move(scenario.dialog.front());
    return true;
}

std::string scenarioText(const std::vector<Entry> &properties, const Dialog &dialog)
{
    std::string out = recordingHead();
    for (size_t index = 0; index < dialog.size(); ++index)
        out += recordingStep(dialog[index], index == 0);
    return out + recordingTail(properties);
}
