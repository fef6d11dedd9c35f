#ifndef KEP_SIM_CAPTURE_H
#define KEP_SIM_CAPTURE_H

// Reading a running service's state, for `capture` and at the end of `record`.
#include "sim/format/scenario.h"

#include <string>
#include <vector>

// How reading the properties ended.
enum class Captured {
    Whole,
    LeftOut,     // some answered with an error, or not within the time allowed
    Interrupted, // SIGINT, SIGTERM or SIGHUP ended the wait
};

// Every readable property of the service on `bus`, in the interface file's order. All are asked for at
// once, and each may take a few seconds at most; SIGINT, SIGTERM or SIGHUP end the wait. Those it could
// not read are left out, with a line each in `leftOut`.
Captured captureProperties(GDBusConnection *bus, std::vector<Entry> &properties, std::string &leftOut);

#endif
