#ifndef KEP_SIM_SCENARIO_H
#define KEP_SIM_SCENARIO_H

// The scenario format: what the simulated service holds and plays, written as one GVariant dictionary
// (type a{sv}) that a person can read and edit. The reader and the writer are both here, driven by one
// table of the keys.
#include "sim/format/glibptr.h"
#include "sim/format/step.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The simulated device, all of it: its properties, how it answers scans and WPS runs, and what it is
// doing. A copy is a snapshot.
struct DeviceState {
    std::map<std::string, SharedVariant> properties; // Details only when given: otherwise made from the state
    bool silent = false;                             // no signal of the service's own
    guint scanDelayMs = 0;
    SharedVariant scanResults;
    guint wpsScanPasses = 0; // WPS: this many ScanResults signals, then the outcome, a step apart
    guint wpsStepMs = 0;
    SharedVariant wpsCredentials;
    std::string wpsError; // not empty: the run ends with WpsError
    // What the device is doing, which no scenario sets.
    std::string softApInterface = "uap0";
    bool wpsRunning = false;
};

struct Scenario {
    DeviceState device;
    Dialog dialog;         // a recorded dialog, played before the service answers for itself
    bool cutShort = false; // the text ends inside the dialog: a recording cut short
};

// The built-in scenario, then the file at `path` (if any) over it. On a fault returns false with
// `message` set to "FILE:LINE:COLUMN: problem".
bool loadScenario(const std::string &path, Scenario &scenario, std::string &message);

// The scenario in `text` over `scenario`, as loadScenario() reads a file called `name`.
bool readScenario(const std::string &name, std::string_view text, Scenario &scenario, std::string &message);

// A property's name and value, as a scenario holds it.
using Entry = std::pair<std::string, Variant>;

// A scenario of the properties given, one a line; "{}" when there are none.
std::string scenarioText(const std::vector<Entry> &properties);

// A recording: the dialog, one step a line, then the properties. It is written as it goes: the head, each
// step, then the tail with the properties. Cut short after any step, it still reads, up to that step.
std::string scenarioText(const std::vector<Entry> &properties, const Dialog &dialog);
std::string recordingHead();
std::string recordingStep(const Step &step, bool first);
std::string recordingTail(const std::vector<Entry> &properties);

// One step as recordingStep() writes it, without the blanks before it and the comma after it.
bool readRecordingStep(std::string_view text, Step &step, std::string &message);

#endif
