#ifndef KEP_SIM_DEVICE_H
#define KEP_SIM_DEVICE_H

// The connection manager's device as the simulator plays it: its state, the modes and their signals,
// scans and WPS runs answered after their delays, and Details made from the state. It knows nothing of
// D-Bus: its signals go out through the callback it is given.
#include "sim/format/scenario.h"
#include "sim/timers.h"

#include <functional>
#include <string_view>

class Device
{
public:
    // Sends signal `name` of the service with `args`, a floating or owned tuple that it takes over.
    using Emit = std::function<void(const char *name, GVariant *args)>;

    Device(DeviceState state, Emit emit);

    // Carries out method `member` of the service and gives back the reply's arguments, a tuple.
    Variant call(std::string_view member, GVariant *args);

    Variant property(const std::string &name) const; // Details made from the state unless one was given
    void setProperty(const std::string &name, SharedVariant value); // a Variant given moves in

    // Back to the state it started with: a scan or WPS run under way is cancelled.
    void reset();

private:
    std::string currentMode() const;
    Variant madeDetails() const;
    Variant interfaceDetails(const std::string &interface) const;
    void switchMode(const std::string &mode);
    void startWps();
    void sayScanResults();
    void say(const char *signal, GVariant *args); // a signal of the device's own: none when silent

    const DeviceState m_initialState;
    DeviceState m_state;
    const Emit m_emit;
    Timers m_timers; // last: its actions, which call the device, go before the rest of it
};

#endif
