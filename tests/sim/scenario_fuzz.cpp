// kep-sim's scenario reader against hostile text, as a libFuzzer target. Whatever the text, the reader
// neither crashes nor makes GLib warn, and a refusal is one line naming a place inside the text. What it
// accepts goes into a D-Bus message whole, and keeps every value's type once its secrets are taken out, a
// replay taking each call of the dialog for its recording. A fault aborts with what was wrong, so that the
// input is kept as a file that reproduces it:
//   clang build: scenario_fuzz -dict=tests/sim/gvariant.dict -artifact_prefix=DIR/ CORPUS...
//   any build:   scenario_replay FILE...   (and the table of hostile texts in scenario_replay.cpp)
#include "sim/format/message.h"
#include "sim/format/playable.h"
#include "sim/format/scenario.h"
#include "sim/format/secrets.h"

#include <gio/gio.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

namespace {

const char InputName[] = "input.gv"; // the name refusals give the text
constexpr size_t MaxRefusalLength = 400;

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

[[noreturn]] void fault(const std::string &what)
{
    std::fprintf(stderr, "scenario_fuzz: %s\n", what.c_str());
    std::abort();
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
            if (!error)
                return "GDBus cannot answer with the error " + step.error;
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

// Every check for one input; a fault ends the process.
void check(const std::string &input)
{
    glibMessages.clear();
    Scenario scenario;
    std::string refusal;
    const bool accepted = readScenario(InputName, input, scenario, refusal);
    std::string problem;
    if (!accepted)
        problem = refusalProblem(input, refusal);
    if (accepted)
        problem = sendingProblem(input);
    if (accepted && problem.empty())
        problem = secretsProblem(input);
    if (!problem.empty())
        fault(problem + ": " + refusal.substr(0, MaxRefusalLength));
    for (const std::string &message : glibMessages)
        fault(message);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_log_set_writer_func(keepGlibMessage, nullptr, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size)
{
    check(std::string(reinterpret_cast<const char *>(data), size));
    return 0;
}
