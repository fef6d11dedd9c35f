#ifndef KEP_ENDPOINT_H
#define KEP_ENDPOINT_H

// Where the connection manager lives. Constants of the client: nothing on
// the command line or in the environment changes them (the bus address
// itself is libdbus's business: DBUS_SYSTEM_BUS_ADDRESS).
namespace kep {
inline constexpr char ServiceName[] = "com.calyra.kep";
inline constexpr char ObjectPath[] = "/com/calyra/kep";
inline constexpr char InterfaceName[] = "com.calyra.kep";
} // namespace kep

#endif
