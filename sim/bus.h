#ifndef KEP_SIM_BUS_H
#define KEP_SIM_BUS_H

// The buses kep-sim works on and the main loop it runs: a dbus-daemon of its own, connections, the
// service's name, and COMMAND under the loop.
#include "sim/format/glibptr.h"

#include <functional>
#include <string>
#include <vector>

// What kep-sim exits with when a bus fails it.
constexpr int BusFailureStatus = 1;

// What kep-sim exits with when SIGINT, SIGTERM or SIGHUP end its run, as a shell reports SIGINT.
constexpr int InterruptedStatus = 130;

// A dbus-daemon of kep-sim's own that anyone may use, for as long as the object lives.
class PrivateBus
{
public:
    ~PrivateBus();
    bool start(); // false, with the problem said, when it could not
    const std::string &address() const { return m_address; }
    GPid pid() const { return m_daemonPid; }

private:
    GPid m_daemonPid = 0;
    std::string m_address;
};

// A connection to the bus at `address`; null, with the problem said, when there is none.
GDBusConnection *connectTo(const std::string &address);

// The address of the system bus, as libdbus and GDBus find it.
std::string systemBusAddress();

// Takes the service's name on `bus`; false, with the problem said, when it cannot. On the system bus a
// refusal also names the policy that would allow it.
bool ownName(GDBusConnection *bus, bool system);

// A program to run under the main loop: its argument vector, null-terminated; empty for none.
using CommandLine = std::vector<char *>;

// Runs the main loop until SIGINT, SIGTERM or SIGHUP or until the connection `served` closes, or with a
// command until that command ends, the system bus for it being the one at `address`. The signals, and the
// end of `served`, end the command and every process it started; so does the command's end, for those
// still running. Gives back the command's exit status, 130 if it was stopped by a signal to kep-sim, 1 if
// `served` closed, and 0 without a command. `busPid`, kep-sim's own bus, is spared. `started`, if given,
// runs once the command has started, before the loop.
int runLoop(GDBusConnection *served, const CommandLine &command, const std::string &address, GPid busPid,
            const std::function<void()> &started = {});

// What SIGINT, SIGTERM and SIGHUP do from now on, once the main loop runs; nothing, with no action.
void onStopSignal(std::function<void()> action);

// Holds SIGINT, SIGTERM and SIGHUP from now on, so that one sent before the main loop runs is handled there
// rather than ending kep-sim.
void watchStopSignals();

#endif
