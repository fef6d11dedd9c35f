#ifndef KEP_TESTS_GOLDEN_H
#define KEP_TESTS_GOLDEN_H

#include <QByteArray>

// The usage text after its heading line, as it must stand on stderr.
inline const QByteArray UsageBody =
    "\thelp\n"
    "\tstatus (default command)\n"
    "\toff\n"
    "\tnormal (automatic|wired|wireless|hybrid)\n"
    "\tsoftap (start|stop) [interface]\n"
    "\tscan\n"
    "\twps\n"
    "\tadd [ssid1] [type1] [key1] [ssid2] [type2] [key2]...\n"
    "\t\tSpecify each network with three arguments:\n"
    "\t\t<ssid> unsecured none\n"
    "\t\t<ssid> wep_key <key>\n"
    "\t\t<ssid> wpa_psk <psk>\n"
    "\t\tNo networks clears database.\n"
    "\twiredip <ip> <netmask> <gateway> <dns1>...\n"
    "\t\tSpecify nothing for dhcp.\n"
    "\twirelessip <ip> <netmask> <gateway> <dns1>...\n"
    "\t\tSpecify nothing for dhcp.\n"
    "\tloglevel [integer]\n";

inline const QByteArray TimeoutLine = "kepclient: Timeout reached, exiting...\n";

#endif
