#ifndef KEP_SIM_DIALOG_H
#define KEP_SIM_DIALOG_H

#include "sim/glibptr.h"

#include <string>
#include <vector>

// One step of a program's dialog with the service: a call the program made
// and the service's answer to it, or a signal the service sent.
struct Step {
    bool isCall = false;
    std::string member;
    std::string interface; // the service's own interface unless given
    Variant args;          // a tuple
    guint afterMs = 0;     // since the step before; the first step: since the program started

    // A call's answer: a reply, an error, or neither when none came before the caller stopped waiting.
    Variant reply; // a tuple
    std::string error, message;
    guint replyMs = 0; // from the call to its answer

    bool answered() const { return reply || !error.empty(); }
};

using Dialog = std::vector<Step>;

// The dialog as the value of a scenario's 'dialog' key, one step a line.
std::string dialogText(const Dialog &dialog);

#endif
