// kep-sim's scenario reader against hostile text: the named rows of a table first, then, for a bounded
// time, random mutations of real scenarios, captures and recordings, and rewritings of them that GLib's
// GVariant text parser reads as the same value. What it accepts also has its secrets taken out, as record
// and capture do with what a service sends.
//   scenario_fuzz --seed N --seconds S --rows FILE --findings DIR [--cases FILE]... [CORPUS]...
// A finding is written to DIR and named; the input being read is always in DIR/last-input.gv, so that
// after a crash that file is the one that caused it.
#include "sim/format/message.h"
#include "sim/format/playable.h"
#include "sim/format/scenario.h"
#include "sim/format/secrets.h"

#include <gio/gio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char InputName[] = "input.gv"; // the name refusals give the text
constexpr size_t MaxRefusalLength = 400;
constexpr int MaxMutationsPerInput = 4;
constexpr size_t MaxDeletedBytes = 16;
const char GlibBlanks[] = " \t\n\r\f"; // g_ascii_isspace(), which the parser goes by

// Pieces that mean something to the parser, put in at random.
const char *const Tokens[] = {"<",
                              ">",
                              "{",
                              "}",
                              "[",
                              "]",
                              "(",
                              ")",
                              "'",
                              "\"",
                              ",",
                              ":",
                              "@",
                              "@a{sv}",
                              "@aa{sv}",
                              "\\",
                              "\\u00e9",
                              "\\x",
                              "\f",
                              "\v",
                              "\xe9",
                              "\xc3",
                              "just ",
                              "nothing",
                              "uint32 ",
                              "byte 0x",
                              "objectpath '/a'",
                              "-",
                              "0x",
                              "1e9",
                              "true",
                              "%",
                              "\x7f",
                              "''",
                              "<<<<<<<<",
                              ">>>>>>>>",
                              "{'a': <",
                              "'dialog': <[",
                              "{'call': <'X'>}"};

std::string lastInputPath;
std::vector<std::string> glibMessages; // warnings and criticals GLib said while reading

GLogWriterOutput keepGlibMessage(GLogLevelFlags level, const GLogField *fields, gsize count, gpointer)
{
    if (level & (G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_ERROR)) {
        std::string text = "GLib said:";
        for (gsize index = 0; index < count; ++index) {
            if (std::strcmp(fields[index].key, "MESSAGE") == 0)
                text += std::string(" ") + static_cast<const char *>(fields[index].value);
        }
        glibMessages.push_back(text);
    }
    return G_LOG_WRITER_HANDLED;
}

void writeFile(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string readFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

// A row's text: \n \t \r \f \v \\ and \xNN escapes, and «N×TEXT» for TEXT N times.
std::string unescaped(const std::string &written)
{
    std::string out;
    for (size_t at = 0; at < written.size(); ++at) {
        const char character = written[at];
        if (written.compare(at, std::strlen("«"), "«") == 0) {
            const size_t times = written.find("×", at);
            const size_t close = written.find("»", at);
            const size_t count = std::stoul(written.substr(at + 2, times - at - 2));
            const std::string repeated = unescaped(written.substr(times + 2, close - times - 2));
            for (size_t copy = 0; copy < count; ++copy)
                out += repeated;
            at = close + 1;
            continue;
        }
        if (character != '\\' || at + 1 == written.size()) {
            out += character;
            continue;
        }
        at += 1;
        const char escaped = written[at];
        const std::string plain = "ntrfv\\";
        const std::string meant = "\n\t\r\f\v\\";
        if (escaped == 'x') {
            out += char(std::stoi(written.substr(at + 1, 2), nullptr, 16));
            at += 2;
        } else if (plain.find(escaped) != std::string::npos) {
            out += meant[plain.find(escaped)];
        } else {
            out += '\\';
            out += escaped;
        }
    }
    return out;
}

struct Outcome {
    bool accepted = false;
    std::string refusal;
    std::string values; // what was read, as text, when accepted
};

std::string valuesText(const Scenario &scenario)
{
    std::string out;
    for (const auto &property : scenario.device.properties)
        out += property.first + "=" + text(property.second.get()) + "\n";
    const std::vector<Entry> none;
    return out + scenarioText(none, scenario.dialog);
}

Outcome readText(const std::string &input)
{
    writeFile(lastInputPath, input);
    Outcome outcome;
    Scenario scenario;
    outcome.accepted = readScenario(InputName, input, scenario, outcome.refusal);
    if (outcome.accepted)
        outcome.values = valuesText(scenario);
    return outcome;
}

// What is wrong with a refusal: one line, not too long, naming a place inside the input.
std::string refusalProblem(const std::string &input, const std::string &refusal)
{
    static const std::regex form(R"(^input\.gv:(\d+):(\d+): [^\n]+$)");
    std::smatch place;
    if (!std::regex_match(refusal, place, form))
        return "a refusal not of the form FILE:LINE:COLUMN: problem, in one line";
    if (refusal.size() > MaxRefusalLength)
        return "a refusal longer than " + std::to_string(MaxRefusalLength) + " bytes";
    const size_t line = std::stoul(place[1]);
    const size_t column = std::stoul(place[2]);
    size_t lineStart = 0;
    for (size_t number = 1; number < line; ++number) {
        lineStart = input.find('\n', lineStart);
        if (lineStart == std::string::npos)
            return "a refusal at a line past the end of the input";
        lineStart += 1;
    }
    size_t lineEnd = input.find('\n', lineStart);
    if (lineEnd == std::string::npos)
        lineEnd = input.size();
    if (column > lineEnd - lineStart + 1)
        return "a refusal at a column past the end of its line";
    return "";
}

// What GDBus makes of every value and step of an accepted scenario: all must go into a message whole.
std::string sendingProblem(const std::string &input)
{
    Scenario scenario;
    std::string refusal;
    readScenario(InputName, input, scenario, refusal);
    std::vector<Variant> values;
    for (const auto &property : scenario.device.properties)
        values.push_back(own(g_variant_new("(v)", property.second.get())));
    for (const Step &step : scenario.dialog) {
        if (step.args)
            values.push_back(Variant(g_variant_ref(step.args.get())));
        if (step.reply)
            values.push_back(Variant(g_variant_ref(step.reply.get())));
        g_autoptr(GDBusMessage) call = g_dbus_message_new_method_call(
            "com.calyra.kep", "/com/calyra/kep", step.interfaceName().c_str(), step.member.c_str());
        g_dbus_message_set_serial(call, 1);
        if (!step.error.empty()) {
            g_autoptr(GDBusMessage) error
                = g_dbus_message_new_method_error_literal(call, step.error.c_str(), step.message.c_str());
        }
    }
    for (const Variant &body : values) {
        g_autoptr(GDBusMessage) message = g_dbus_message_new_signal("/a", "a.b", "C");
        g_dbus_message_set_body(message, body.get());
        gsize size = 0;
        g_autoptr(GError) error = nullptr;
        g_autofree guchar *blob
            = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, &error);
        if (!blob)
            return std::string("GDBus cannot send an accepted value: ") + error->message;
        g_autoptr(GDBusMessage) back
            = g_dbus_message_new_from_blob(blob, size, G_DBUS_CAPABILITY_FLAGS_NONE, &error);
        if (!back)
            return std::string("GDBus cannot read back an accepted value: ") + error->message;
    }
    return "";
}

bool sameType(GVariant *one, GVariant *other)
{
    return g_variant_type_equal(g_variant_get_type(one), g_variant_get_type(other));
}

// What taking the secrets out makes of an accepted scenario: every value keeps its type, and a replay takes
// each call of the dialog for its recording with placeholders.
std::string secretsProblem(const std::string &input)
{
    Scenario scenario;
    std::string refusal;
    readScenario(InputName, input, scenario, refusal);
    SecretRemover remover;
    for (const auto &property : scenario.device.properties) {
        const Variant removed = remover.removedFrom(property.first, property.second.get());
        if (!sameType(removed.get(), property.second.get()))
            return "without its secrets, a value of " + property.first + " has another type";
    }
    for (const Step &step : scenario.dialog) {
        const Step removed = remover.removedFrom(step);
        const Variant args = orEmptyTuple(step.args.get());
        const Variant removedArgs = orEmptyTuple(removed.args.get());
        if (!sameType(removedArgs.get(), args.get()))
            return "without their secrets, the arguments of " + step.member + " have another type";
        if (step.reply && !sameType(removed.reply.get(), step.reply.get()))
            return "without its secrets, the reply to " + step.member + " has another type";
        if (step.isCall && !sameCallArguments(removed, args.get()))
            return "a replay does not take " + step.member + " for its recording without secrets";
    }
    return "";
}

class Fuzzer
{
public:
    Fuzzer(unsigned long long seed, std::string findings)
        : m_random(seed)
        , m_findings(std::move(findings))
    { }

    int findings() const { return m_findingCount; }

    void finding(const std::string &what, const std::string &input)
    {
        m_findingCount += 1;
        const std::string path = m_findings + "/finding-" + std::to_string(m_findingCount) + ".gv";
        writeFile(path, input);
        std::printf("FINDING %s: the input is %s\n", what.c_str(), path.c_str());
    }

    // Reads `input`, with every check that holds for any text; gives what was read.
    Outcome check(const std::string &input)
    {
        glibMessages.clear();
        const Outcome outcome = readText(input);
        std::string problem;
        if (!outcome.accepted)
            problem = refusalProblem(input, outcome.refusal);
        else
            problem = sendingProblem(input);
        if (outcome.accepted && problem.empty())
            problem = secretsProblem(input);
        if (!problem.empty())
            finding(problem + ": " + outcome.refusal.substr(0, MaxRefusalLength), input);
        for (const std::string &message : glibMessages)
            finding(message, input);
        return outcome;
    }

    size_t below(size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(m_random); }

    std::string mutated(const std::vector<std::string> &seeds)
    {
        std::string input = seeds[below(seeds.size())];
        const int mutations = 1 + int(below(MaxMutationsPerInput));
        for (int count = 0; count < mutations; ++count)
            mutate(input, seeds);
        return input;
    }

    // `input` with its blanks and string characters written otherwise, as GLib reads them the same.
    std::string rewritten(const std::string &input)
    {
        std::string out;
        char quote = 0;
        bool escaped = false; // past an escape in this string: the rest of it stays as it is
        for (size_t at = 0; at < input.size(); ++at) {
            const char character = input[at];
            const bool plainLetter = g_ascii_isalpha(character);
            if (quote && character == '\\') {
                out += input.substr(at, 2);
                at += 1;
                escaped = true;
            } else if (quote && character == quote) {
                quote = 0;
                escaped = false;
                out += character;
            } else if (quote && plainLetter && !escaped && below(2) == 0) {
                char escape[8];
                std::snprintf(escape, sizeof escape, "\\u%04x", unsigned(character));
                out += escape;
            } else if (!quote && (character == '\'' || character == '"')) {
                quote = character;
                out += character;
            } else if (!quote && std::strchr(GlibBlanks, character)) {
                out += GlibBlanks[below(std::strlen(GlibBlanks))];
                if (below(2) == 0)
                    out += GlibBlanks[below(std::strlen(GlibBlanks))];
            } else {
                out += character;
            }
        }
        return out;
    }

private:
    void mutate(std::string &input, const std::vector<std::string> &seeds)
    {
        const size_t at = below(input.size() + 1);
        const size_t kind = below(6);
        if (kind == 0 && at < input.size()) {
            input[at] = char(input[at] ^ (1 << below(8)));
        } else if (kind == 1) {
            input.insert(at, Tokens[below(std::size(Tokens))]);
        } else if (kind == 2 && at < input.size()) {
            input.erase(at, 1 + below(MaxDeletedBytes));
        } else if (kind == 3 && at < input.size()) {
            const std::string piece = input.substr(at, 1 + below(MaxDeletedBytes * 4));
            input.insert(below(input.size() + 1), piece);
        } else if (kind == 4) {
            const std::string &other = seeds[below(seeds.size())];
            const size_t from = below(other.size() + 1);
            input = input.substr(0, at) + other.substr(from);
        } else {
            input.resize(at);
        }
    }

    std::mt19937_64 m_random;
    const std::string m_findings;
    int m_findingCount = 0;
};

// The table's rows: "# name", "< input" lines (joined by line ends), "| the refusal" or "| accepted".
int runRows(Fuzzer &fuzzer, const std::string &path)
{
    std::ifstream table(path);
    std::string line;
    std::string name;
    std::string input;
    bool inputStarted = false;
    int rows = 0;
    while (std::getline(table, line)) {
        if (line.rfind("# ", 0) == 0) {
            name = line.substr(2);
            input.clear();
            inputStarted = false;
        } else if (line.rfind("< ", 0) == 0) {
            if (inputStarted)
                input += "\n";
            input += unescaped(line.substr(2));
            inputStarted = true;
        } else if (line.rfind("| ", 0) == 0) {
            rows += 1;
            const Outcome outcome = fuzzer.check(input);
            std::string seen = "accepted";
            if (!outcome.accepted)
                seen = outcome.refusal;
            const std::string expected = line.substr(2);
            if (seen != expected)
                fuzzer.finding("row '" + name + "': " + seen + "\n  expected: " + expected, input);
        }
    }
    return rows;
}

// The scenarios of the case tables: "& scenario TEXT", with \n for a line end.
void addCaseScenarios(const std::string &path, std::vector<std::string> &seeds)
{
    std::ifstream table(path);
    std::string line;
    const std::string tag = "& scenario ";
    while (std::getline(table, line)) {
        if (line.rfind(tag, 0) != 0)
            continue;
        std::string scenario = line.substr(tag.size());
        size_t at = 0;
        while ((at = scenario.find("\\n", at)) != std::string::npos)
            scenario.replace(at, 2, "\n");
        seeds.push_back(scenario);
    }
}

} // namespace

int main(int argc, char **argv)
{
    unsigned long long seed = 1;
    double seconds = 10;
    std::string rows;
    std::string findings = ".";
    std::vector<std::string> cases;
    std::vector<std::string> corpus;
    for (int index = 1; index < argc; ++index) {
        const std::string arg = argv[index];
        const bool valueFollows = index + 1 < argc;
        if (arg == "--seed" && valueFollows) {
            index += 1;
            seed = std::strtoull(argv[index], nullptr, 0);
        } else if (arg == "--seconds" && valueFollows) {
            index += 1;
            seconds = std::strtod(argv[index], nullptr);
        } else if (arg == "--rows" && valueFollows) {
            index += 1;
            rows = argv[index];
        } else if (arg == "--findings" && valueFollows) {
            index += 1;
            findings = argv[index];
        } else if (arg == "--cases" && valueFollows) {
            index += 1;
            cases.push_back(argv[index]);
        } else {
            corpus.push_back(arg);
        }
    }
    g_log_set_writer_func(keepGlibMessage, nullptr, nullptr);
    lastInputPath = findings + "/last-input.gv";
    // Said before anything is read, so that a crash's output names its cause too.
    std::printf("scenario_fuzz: the input being read is always in %s\n", lastInputPath.c_str());
    std::fflush(stdout);
    g_mkdir_with_parents(findings.c_str(), 0700);
    Fuzzer fuzzer(seed, findings);
    int rowCount = 0;
    if (!rows.empty())
        rowCount = runRows(fuzzer, rows);
    std::vector<std::string> seeds;
    for (const std::string &path : cases)
        addCaseScenarios(path, seeds);
    for (const std::string &path : corpus)
        seeds.push_back(readFile(path));
    size_t inputs = 0;
    size_t accepted = 0;
    size_t rewritings = 0;
    const gint64 deadline = g_get_monotonic_time() + gint64(seconds * G_USEC_PER_SEC);
    while (!seeds.empty() && g_get_monotonic_time() < deadline) {
        const std::string input = fuzzer.mutated(seeds);
        const Outcome outcome = fuzzer.check(input);
        inputs += 1;
        if (!outcome.accepted)
            continue;
        accepted += 1;
        const std::string rewriting = fuzzer.rewritten(input);
        const Outcome again = fuzzer.check(rewriting);
        rewritings += 1;
        if (!again.accepted || again.values != outcome.values)
            fuzzer.finding("written otherwise, the scenario reads otherwise: " + again.refusal, rewriting);
    }
    std::printf("scenario_fuzz: seed %llu, %d rows, %zu inputs (%zu accepted, %zu rewritten), %d findings\n",
                seed, rowCount, inputs, accepted, rewritings, fuzzer.findings());
    if (fuzzer.findings() > 0)
        return 1;
    return 0;
}
