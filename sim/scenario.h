#ifndef KEP_SIM_SCENARIO_H
#define KEP_SIM_SCENARIO_H

#include "sim/dialog.h"
#include "sim/glibptr.h"

#include <map>
#include <string>
#include <utility>

// What the simulated service holds and how it answers.
struct Scenario {
    std::map<std::string, Variant> properties; // Details only when given: otherwise made from the state
    bool silent = false;                       // no signal of the service's own
    guint scanDelayMs = 0;
    guint wpsScanPasses = 0, wpsStepMs = 0; // WPS: ScanResults signals, then the outcome, a step apart
    Variant scanResults, wpsCredentials;
    std::string wpsError; // not empty: the run ends with WpsError
    std::map<std::string, std::pair<std::string, std::string>>
        readFaults; // property: error name, message (empty: no answer)
    Dialog dialog;  // a recorded dialog, played before the service answers for itself
};

// The built-in scenario, then the file at `path` (if any) over it. On a
// fault returns false with `message` set to "FILE:LINE:COLUMN: problem".
bool loadScenario(const std::string &path, Scenario &scenario, std::string &message);

// Every readable property of the service on `bus` as scenario entries, one a line ("  'Name': <value>",
// joined by ",\n"); those it could not read are left out, with a line each in `leftOut`, and it gives false.
bool captureProperties(GDBusConnection *bus, std::string &entries, std::string &leftOut);

#endif
