#ifndef KEP_SIM_INTERFACE_H
#define KEP_SIM_INTERFACE_H

#include <gio/gio.h>

// The service's interface, from the interface file built into the program,
// and the simulator's own control interface on the same object.
GDBusInterfaceInfo *kepInterface();
GDBusInterfaceInfo *simInterface();
inline constexpr char SimInterfaceName[] = "com.calyra.kep.Sim";

inline GDBusPropertyInfo *kepProperty(const char *name)
{
    return g_dbus_interface_info_lookup_property(kepInterface(), name);
}

#endif
