// kep-sim's scenario reader against hostile text, for the builds without libFuzzer: each text of the table
// below gets its one-line refusal, or is accepted, and goes through the fuzz target's checks; so does every
// file named (the fuzz corpus, or a finding to reproduce). A fault the target finds ends the run with what
// was wrong, as under libFuzzer.
//   scenario_replay [FILE]...
#include "sim/format/scenario.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size);

namespace {

using namespace std::string_literals;

const char InputName[] = "input.gv"; // the name refusals give the text, as in the target
const char Accepted[] = "accepted";

std::string repeated(size_t times, const std::string &text)
{
    std::string out;
    for (size_t copy = 0; copy < times; ++copy)
        out += text;
    return out;
}

struct Row {
    std::string text;
    std::string expected; // the refusal, or Accepted
};

// A refusal that says what is wrong needs no comment.
const std::vector<Row> Rows = {
    {"{'Mode': <'caf\xe9'>}", "input.gv:1:15: not UTF-8 text: a scenario is GVariant text"},
    {"{'LogLevel': <3>}\0"s, "input.gv:1:18: a NUL byte: a scenario is GVariant text"},
    {"{'Details': <" + std::string(150, '<') + "1" + std::string(150, '>') + ">}",
     "input.gv:1:14: variant nested too deeply ('Details' takes type 'a{sv}')"},
    {"{'Details': <" + repeated(64, "{'a': <") + "1" + repeated(64, ">}") + ">}",
     "input.gv:1:14: variant nested too deeply ('Details' takes type 'a{sv}')"},
    // variants nested deeper than D-Bus carries, though GLib reads them: 64 containers in all, as GetAll
    // answers the property, in a dictionary of variants
    {"{'Details': <{'a': <" + std::string(58, '<') + "1" + std::string(58, '>') + ">}>}", Accepted},
    {"{'Details': <{'a': <" + std::string(59, '<') + "1" + std::string(59, '>') + ">}>}",
     "input.gv:1:14: D-Bus cannot carry containers nested this deep (in 'Details')"},
    // a form feed between a type annotation and its list
    {"{'dialog': <@aa{sv}\f[]>}", Accepted},
    // a form feed and a carriage return are blanks, as GLib reads them
    {"{'LogLevel': <3>\f,\t'Mode':\r<'wired'>\f}", Accepted},
    // a vertical tab is not, for GLib either
    {"{'LogLevel': <3>,\v'Mode': <'wired'>}", "input.gv:1:18: expected value (a key is a string in quotes)"},
    // a dictionary written as a list of entries, as GLib reads it too, and annotated ones
    {"@a{sv} [{'LogLevel', <3>}, {'scan', <{'delay-ms': <5>}>}, {'wps', <@a{sv} {'step-ms': <5>}>},\n  "
     "{'dialog', <@aa{sv} []>}]",
     Accepted},
    // a ten-megabyte unknown key, cut in the refusal
    {"{'" + std::string(10000000, 'x') + "': <1>}",
     "input.gv:1:2: unknown key '" + std::string(60, 'x')
         + "…' (known here: "
           "Connected, Details, LogLevel, Mode, SoftApModeSettings, WiredIpSettings, WirelessIpSettings, "
           "WirelessNetworks, silent, scan, wps, dialog)"},
    {"{'a\nb': <1>}",
     "input.gv:1:2: unknown key 'a\\u000ab' (known here: Connected, Details, LogLevel, Mode, "
     "SoftApModeSettings, WiredIpSettings, WirelessIpSettings, WirelessNetworks, silent, scan, wps, dialog)"},
    {"", "input.gv:1:1: expected a dictionary {'key': <value>, ...}"},
    // a comma after the last entry, which GLib refuses too
    {"{'LogLevel': <3>,}", "input.gv:1:18: expected value (a key is a string in quotes)"},
    {"{'LogLevel': <3>} x", "input.gv:1:19: expected the end of the scenario after its dictionary"},
    {"{'dialog': <[{'call': <'Scan'>, 'error': <'not an error'>}]>}",
     "input.gv:1:14: 'not an error' is not a D-Bus error name"},
    {"{'dialog': <[{'signal': <'" + std::string(256, 'S') + "'>}]>}",
     "input.gv:1:14: '" + std::string(256, 'S') + "' is not a D-Bus member name"},
    {"{'dialog': <[{'signal': <'Scan Results'>}]>}",
     "input.gv:1:14: 'Scan Results' is not a D-Bus member name"},
    {"{'dialog': <[{'call': <'Get'>, 'interface': <'org.freedesktop.DBus.Properties'>,\n  'args': "
     "<('com.calyra.kep', 'LogLevel')>, 'reply': <('x',)>}]>}",
     "input.gv:1:14: the reply to Get has type '(v)', not '(s)'"},
    {"{'dialog': <[{'call': <'Scan'>, 'reply': <()>, 'error': <'a.B'>, 'message': <'m'>}]>}",
     "input.gv:1:14: a call is answered by a 'reply' or an 'error', not both"},
    {"{'dialog': <[{'call': <'Scan'>, 'reply-ms': <3>}]>}",
     "input.gv:1:14: 'reply-ms' goes with a 'reply' or an 'error'"},
    {"{'dialog': <[{'signal': <'Started'>, 'reply': <()>}]>}",
     "input.gv:1:14: a signal has no answer: no 'reply', 'error', 'message' or 'reply-ms'"},
    {"{'dialog': <[{'signal': <'WpsError'>, 'args': <(3,)>}]>}",
     "input.gv:1:14: the signal WpsError has arguments of type '(s)', not '(i)'"},
    {"{'Details': <{'a': <just 3>}>}",
     "input.gv:1:14: D-Bus cannot carry a maybe value ('m' type) (in 'Details')"},
    {"{'Details': <{'a': <@ami []>}>}",
     "input.gv:1:14: D-Bus cannot carry a maybe value ('m' type) (in 'Details')"},
    {"{'dialog': <[{'call': <'Scan'>, 'reply': <((),)>}]>}",
     "input.gv:1:43: D-Bus cannot carry an empty tuple, () (in 'reply')"},
    {"{'LogLevel' <3>}", "input.gv:1:13: expected ':' after the key"},
    {"{'LogLevel': <3> 'Mode': <'x'>}", "input.gv:1:18: expected ',' or '}' after a dictionary entry"},
    {"{'LogLevel': <3 4>}", "input.gv:1:17: expected '>' after the value of 'LogLevel'"},
    {"{'LogLevel': 3}", "input.gv:1:14: expected a value in angle brackets, <...>"},
    {"{'dialog': <{'call': <'Scan'>}>}", "input.gv:1:13: expected a list of steps, [{...}, ...]"},
    {"{'dialog': <[{'signal': <'Started'>} {'signal': <'Started'>}]>}",
     "input.gv:1:38: expected ',' or ']' after a step"},
    // a comma after the last step, as a recording has once that step's line is cut out; none before the first
    {"{'dialog': <[\n  {'signal': <'Started'>},\n  ]>}", Accepted},
    {"{'dialog': <[, {'signal': <'Started'>}]>}",
     "input.gv:1:14: expected a dictionary {'key': <value>, ...}"},
    {"{'dialog': <[{'signal': <'Started'>},,]>}",
     "input.gv:1:38: expected a dictionary {'key': <value>, ...}"},
    {"{'LogLevel': <3>, 'scan': <@ {}>}", "input.gv:1:29: expected a type after '@'"},
    {"{'scan': <@a{ss} {}>}", "input.gv:1:12: expected type 'a{sv}' here"},
    {"{'dialog': <[{'signal': <'Started'>, 'call': <'Scan'>}]>}",
     "input.gv:1:47: a step is either a call or a signal"},
    {"{'dialog': <[{'signal': <'Started'>, 'Mode': <'x'>}]>}",
     "input.gv:1:38: unknown key 'Mode' (known here: after-ms, call, signal, interface, args, reply-ms, "
     "reply, error, message, unplayable)"},
    {"[{'LogLevel' <3>}]", "input.gv:1:14: expected ',' after the key"},
    {"[{'LogLevel', <3>]", "input.gv:1:18: expected '}' after a dictionary entry"},
    {"{'Mode': <3>}", "input.gv:1:11: 'Mode' takes type 's', not 'i'"},
    {"{'dialog': <[{'call': <'Frobnicate'>, 'reply': <()>}]>}",
     "input.gv:1:14: com.calyra.kep has no method Frobnicate: only an error answers it"},
    {"{'dialog': <[{'signal': <'Frobnicated'>}]>}",
     "input.gv:1:14: com.calyra.kep has no signal Frobnicated"},
    {"{'dialog': <[{'signal': <'Started'>, 'interface': <'x y'>}]>}",
     "input.gv:1:14: 'x y' is not a D-Bus interface name"},
    {"{'dialog': <[{'call': <'Scan'>, 'message': <'m'>}]>}",
     "input.gv:1:14: a 'message' goes with an 'error'"},
    // an error to an unknown method, a Get answered with a variant and another interface's signal are played
    {"{'dialog': <[{'call': <'Frobnicate'>, 'error': <'org.freedesktop.DBus.Error.UnknownMethod'>},\n  "
     "{'call': <'Get'>, 'interface': <'org.freedesktop.DBus.Properties'>,\n   'args': <('com.calyra.kep', "
     "'Mode')>, 'reply': <(<'wired'>,)>},\n  {'call': <'GetAll'>, 'interface': "
     "<'org.freedesktop.DBus.Properties'>, 'reply': <(@a{sv} {},)>},\n  {'signal': <'Foo'>, 'interface': "
     "<'org.example.Other'>, 'args': <(1,)>}]>}",
     Accepted},
    {"{'dialog': <[{'call': <'Set'>, 'interface': <'org.freedesktop.DBus.Properties'>, 'reply': <(1,)>}]>}",
     "input.gv:1:14: the reply to Set has type '()', not '(i)'"},
    {"{'dialog': <[{'signal': <'Foo'>, 'interface': <'org.example.Other'>, 'args': <(@() (),)>}]>}",
     "input.gv:1:79: D-Bus cannot carry an empty tuple, () (in 'args')"},
    {"{'wps': <{'credentials': <{'Key': <@mi nothing>}>}>}",
     "input.gv:1:27: D-Bus cannot carry a maybe value ('m' type) (in 'credentials')"},
    {"{'Details': <{'a': <@ah []>}>}",
     "input.gv:1:14: a file descriptor cannot be replayed ('h' type) (in 'Details')"},
    {"{'Details': <{'a': <" + std::string(40, '[') + "1" + std::string(40, ']') + ">}>}",
     "input.gv:1:14: D-Bus cannot carry containers nested this deep (in 'Details')"},
    {"{'Details': <{'a': <" + std::string(40, '(') + "1" + repeated(40, ",)") + ">}>}",
     "input.gv:1:14: D-Bus cannot carry containers nested this deep (in 'Details')"},
    // a recording cut short after a whole step reads up to that step
    {"{\n  'dialog': <@aa{sv} [\n    {'after-ms': <5>, 'call': <'Scan'>, 'args': <()>, 'reply-ms': <0>, "
     "'reply': <()>},",
     Accepted},
    // a recording cut short inside a step: the step is left out
    {"{\n  'dialog': <@aa{sv} [\n    {'after-ms': <5>, 'call': <'Scan'>, 'args': <()>},\n    {'after-ms': "
     "<5>, 'signal': <'WpsError'>, 'args': <('PBC ov",
     Accepted},
    // a name of 300 control characters: its refusal is cut where the escapes shown reach the limit
    {"{'dialog': <[{'call': <'Set'>, 'interface': <'a." + repeated(300, "\x13") + "'>}]>}",
     "input.gv:1:14: "
     "'a."
     "\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u00"
     "13\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u"
     "0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013"
     "\\u0013\\u0013\\u0013\\u0013\\u0013\\u0013…"},
    // a recording cut short inside a character of several bytes
    {"{\n  'dialog': <@aa{sv} [\n    {'after-ms': <5>, 'call': <'Scan'>, 'args': <()>},\n    {'after-ms': "
     "<5>, 'signal': <'WpsError'>, 'args': <('caf\xc3",
     Accepted},
    // a recording cut short inside an escape
    {"{\n  'dialog': <@aa{sv} [\n    {'after-ms': <5>, 'call': <'Scan'>, 'args': <()>},\n    {'after-ms': "
     "<5>, 'signal': <'WpsError'>, 'args': <('caf\\u00",
     Accepted},
    // a recording cut short inside a number
    {"{\n  'dialog': <@aa{sv} [\n    {'after-ms': <5>, 'call': <'Scan'>, 'args': <()>},\n    {'after-ms': "
     "<12",
     Accepted},
    // a character cut short before the end is not UTF-8
    {"{'dialog': <[{'call': <'Sc\xc3"
     "an'>}",
     "input.gv:1:27: not UTF-8 text: a scenario is GVariant text"},
    // a recording cut short right after its list of steps begins
    {"{'dialog': <[", Accepted},
    // a step that is whole but wrong, at the end of a recording cut short, is refused
    {"{'dialog': <[{'call': <'Scan'>, 'bogus': <1>}",
     "input.gv:1:33: unknown key 'bogus' (known here: after-ms, call, signal, interface, args, reply-ms, "
     "reply, error, message, unplayable)"},
    // a scenario that ends outside a dialog is refused: only a dialog can be cut short
    {"{'dialog': <[{'call': <'Scan'>}]>, 'LogLevel': <3>",
     "input.gv:1:51: expected ',' or '}' after a dictionary entry"},
    // empty dictionaries of the simulator's own keys, in either form
    {"{'scan': <{}>, 'wps': <[]>, 'dialog': <[]>}", Accepted},
    {"{'dialog': <[{'call': <'Scan'>},\n  {'after-ms': <5>}]>}",
     "input.gv:2:3: a step names a 'call' or a 'signal'"},
    {"{'dialog': <[{'signal': <'Started'>, 'after-ms': <-5>}]>}",
     "input.gv:1:51: number out of range for type 'u' ('after-ms' takes type 'u')"},
};

void testOne(const std::string &input)
{
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(input.data()), input.size());
}

std::string readFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

} // namespace

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    int failures = 0;
    for (size_t index = 0; index < Rows.size(); ++index) {
        const Row &row = Rows[index];
        Scenario scenario;
        std::string seen;
        if (readScenario(InputName, row.text, scenario, seen))
            seen = Accepted;
        if (seen != row.expected) {
            failures += 1;
            std::printf("FAIL row %zu: %s\n  expected: %s\n", index + 1, seen.c_str(), row.expected.c_str());
        }
        testOne(row.text);
    }
    for (int index = 1; index < argc; ++index)
        testOne(readFile(argv[index]));
    const int passed = int(Rows.size()) - failures + argc - 1;
    std::printf("%d passed, %d failed\n", passed, failures);
    if (failures > 0)
        return 1;
    return 0;
}
