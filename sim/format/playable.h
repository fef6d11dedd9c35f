#ifndef KEP_SIM_PLAYABLE_H
#define KEP_SIM_PLAYABLE_H

// What D-Bus can carry and what a replay can play as written: the checks a scenario's values and a
// dialog's steps pass before the service serves them. Each gives what is wrong, empty when nothing is.
#include "sim/format/step.h"

#include <string>

// A value to be sent in a message: no maybe types, no empty tuples, no file descriptors, containers no
// deeper than D-Bus allows.
std::string carryProblem(GVariant *value);

// The arguments of a message, a tuple: each one a value D-Bus can carry.
std::string bodyProblem(GVariant *args);

// A step of a dialog: names the bus accepts, an answer only for a call and of one kind, and the types the
// interface file gives to the replies of its methods and to its signals.
std::string stepProblem(const Step &step);

#endif
