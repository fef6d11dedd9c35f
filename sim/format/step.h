#ifndef KEP_SIM_STEP_H
#define KEP_SIM_STEP_H

// One step of a program's dialog with the service: a call the program made and the service's answer to
// it, or a signal the service sent.
#include "service/endpoint.h"
#include "sim/format/glibptr.h"

#include <string>
#include <vector>

struct Step {
    bool isCall = false;
    std::string member;
    std::string interface; // empty: the service's own interface
    Variant args;          // a tuple; none read: no arguments
    guint afterMs = 0;     // since the step before; the first step: since the program started

    // A call's answer: a reply, an error, or neither when none came before the caller stopped waiting.
    Variant reply; // a tuple
    std::string error;
    std::string message;
    guint replyMs = 0;       // from the call to its answer
    bool hasReplyMs = false; // whether a reply-ms was given

    // Why a replay cannot play the step as it came, its arguments or answer left out; empty: it can.
    std::string unplayable;

    bool answered() const { return reply || !error.empty(); }

    // The interface named, or the service's own.
    std::string interfaceName() const
    {
        if (interface.empty())
            return kep::InterfaceName;
        return interface;
    }
};

using Dialog = std::vector<Step>;

#endif
