#ifndef KEP_SIM_MESSAGE_H
#define KEP_SIM_MESSAGE_H

// Helpers for D-Bus messages and what kep-sim says about them, used by the service, the replay and the
// recorder alike.
#include "sim/glibptr.h"

#include <string>

// Says "kep-sim: MESSAGE" on standard error and gives back `status`.
int fail(const std::string &message, int status = 1);

// Arguments as a tuple: `arguments` itself, or () when there are none.
Variant orEmptyTuple(GVariant *arguments);

// A message's arguments as a tuple, () when it has none.
Variant bodyOf(GDBusMessage *message);

// The interface as a step names it: empty for the service's own.
std::string stepInterface(const char *interface);

#endif
