#ifndef KEP_SIM_PLAYABLE_H
#define KEP_SIM_PLAYABLE_H

// What D-Bus can carry and what a replay can play as written: the checks a scenario's values and a
// dialog's steps pass before the service serves them. Each gives what is wrong, empty when nothing is.
#include "sim/format/step.h"

#include <string>

// The largest message kep-sim sends: the system bus and kep-sim's own bus take none larger, and throw off
// a connection that sends one.
constexpr gsize MaxMessageBytes = 32 * 1024 * 1024;

// A member name as the bus takes it: GDBus's check, and at most 255 characters.
bool isMemberName(const std::string &name);

// The arguments of a message kep-sim is to send, an owned tuple: what bodyProblem() finds, or a message
// over MaxMessageBytes.
std::string sendProblem(GVariant *args);

// A value to be sent in a message: no maybe types, no empty tuples, no file descriptors, containers no
// deeper than D-Bus allows.
std::string carryProblem(GVariant *value);

// The arguments of a message, a tuple: each one a value D-Bus can carry.
std::string bodyProblem(GVariant *args);

// The value of property `name`, as every read of it is answered: GetAll's reply wraps it the deepest.
std::string propertyProblem(const char *name, GVariant *value);

// A step of a dialog: names the bus accepts, an answer only for a call and of one kind, and the types the
// interface file gives to the replies of its methods and to its signals.
std::string stepProblem(const Step &step);

#endif
