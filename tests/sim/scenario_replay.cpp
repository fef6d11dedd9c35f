// The scenario fuzz target's checks without libFuzzer, for the builds that have none: the rows of a table
// of hostile texts, each with the refusal it must get (or "accepted"), and every file named (the fuzz
// corpus, or a finding to reproduce).
//   scenario_replay [--rows FILE] [FILE]...
// A fault the target finds ends the run with what was wrong, as under libFuzzer.
#include "sim/format/scenario.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, size_t size);

namespace {

const char InputName[] = "input.gv"; // the name refusals give the text, as in the target

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

// The table's rows: "# name", "< input" lines (joined by line ends), "| the refusal" or "| accepted". Gives
// the number of rows that read otherwise; each is named.
int runRows(const std::string &path, int &rows)
{
    std::ifstream table(path);
    std::string line;
    std::string name;
    std::string input;
    bool inputStarted = false;
    int failures = 0;
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
            Scenario scenario;
            std::string seen;
            if (readScenario(InputName, input, scenario, seen))
                seen = "accepted";
            const std::string expected = line.substr(2);
            if (seen != expected) {
                failures += 1;
                std::printf("FAIL row '%s': %s\n  expected: %s\n", name.c_str(), seen.c_str(),
                            expected.c_str());
            }
            testOne(input);
        }
    }
    return failures;
}

} // namespace

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    std::string rowsPath;
    std::vector<std::string> inputs;
    for (int index = 1; index < argc; ++index) {
        const std::string arg = argv[index];
        const bool valueFollows = index + 1 < argc;
        if (arg == "--rows" && valueFollows) {
            index += 1;
            rowsPath = argv[index];
        } else {
            inputs.push_back(readFile(arg));
        }
    }
    int rows = 0;
    int failures = 0;
    if (!rowsPath.empty())
        failures = runRows(rowsPath, rows);
    for (const std::string &input : inputs)
        testOne(input);
    const int passed = rows - failures + int(inputs.size());
    std::printf("%d passed, %d failed\n", passed, failures);
    if (failures > 0)
        return 1;
    return 0;
}
