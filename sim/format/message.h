#ifndef KEP_SIM_MESSAGE_H
#define KEP_SIM_MESSAGE_H

// Helpers for D-Bus messages and what kep-sim says about them, used by the service, the replay and the
// recorder alike.
#include "sim/format/glibptr.h"

#include <string>
#include <string_view>

// Says "kep-sim: MESSAGE" on standard error and gives back `status`.
int fail(const std::string &message, int status = 1);

// Text from outside as one line of a message: control characters escaped, and cut with an ellipsis
// past `limit` characters as shown (an escape counts as the characters it takes).
std::string shown(std::string_view text, size_t limit = 80);

// The longest text kept or said of a call's or a signal's arguments.
constexpr size_t MaxArgumentsText = 4096;

// `value` in GVariant text, as text() writes it, cut past MaxArgumentsText with a mark that says so. A
// large value costs no more than a small one: only what is shown is printed.
std::string argumentsText(GVariant *value);

// Arguments as a tuple: `arguments` itself, or () when there are none.
Variant orEmptyTuple(GVariant *arguments);

// A message's arguments as a tuple, () when it has none.
Variant bodyOf(GDBusMessage *message);

// The interface as a step names it: empty for the service's own.
std::string stepInterface(const char *interface);

#endif
