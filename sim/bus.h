#ifndef KEP_SIM_BUS_H
#define KEP_SIM_BUS_H

#include "sim/glibptr.h"

#include <string>
#include <vector>

// Says "kep-sim: MESSAGE" on standard error and gives back `status`.
int fail(const std::string &message, int status = 1);

// A dbus-daemon of kep-sim's own that anyone may use, for as long as the object lives.
class PrivateBus
{
public:
    ~PrivateBus();
    bool start(); // false, with the problem said, when it could not
    const std::string &address() const { return m_address; }

private:
    GPid m_pid = 0;
    std::string m_address;
};

// A connection to the bus at `address`; null, with the problem said, when there is none.
GDBusConnection *connectTo(const std::string &address);

// The address of the system bus, as libdbus and GDBus find it.
std::string systemBusAddress();

// Takes the service's name on `bus`; false, with the problem said, when it cannot.
bool ownName(GDBusConnection *bus, bool system);

// Runs the main loop until SIGINT, SIGTERM or SIGHUP or until the connection `served` closes, or with a
// command (a null-terminated argument vector) until that command ends, the system bus for it being the
// one at `address`. Gives back the command's exit status, 130 if it was stopped by a signal to kep-sim,
// and 0 without a command.
int runLoop(GDBusConnection *served, const std::vector<char *> &command, const std::string &address);

#endif
