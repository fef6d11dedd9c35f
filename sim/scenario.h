#ifndef KEP_SIM_SCENARIO_H
#define KEP_SIM_SCENARIO_H

#include "sim/glibptr.h"

#include <map>
#include <string>
#include <utility>

// What the simulated service holds and how it answers.
struct Scenario {
    std::map<std::string, Variant> properties; // Details only when given: otherwise made from the state
    bool silent = false;                        // no signal of the service's own
    guint scanDelayMs = 0, wpsScanPasses = 0, wpsStepMs = 0; // WPS: ScanResults signals, then the outcome, a step apart
    Variant scanResults, wpsCredentials;
    std::string wpsError; // not empty: the run ends with WpsError
    std::map<std::string, std::pair<std::string, std::string>> readFaults; // property: error name, message (empty: no answer)
};

// The built-in scenario, then the file at `path` (if any) over it. On a
// fault returns false with `message` set to "FILE:LINE:COLUMN: problem".
bool loadScenario(const std::string &path, Scenario &scenario, std::string &message);

// A scenario of every readable property of the service on `bus`; false when one could not be read.
bool captureScenario(GDBusConnection *bus, std::string &out);

#endif
