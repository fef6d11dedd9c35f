#ifndef KEP_COMMANDS_IPSETTINGS_H
#define KEP_COMMANDS_IPSETTINGS_H

#include <QStringList>
#include <QVariantMap>

#include <utility>

// The IP settings map written by "wiredip" and "wirelessip": the words in
// order become "Ip", "Netmask", "Gatewap" and "Dns", further words are added
// to "Dns" after a blank. Every word must be an IPv4 address as QHostAddress
// reads one (isIpv4Address), and is kept as typed; the first one that is not
// fails the whole map. No words: an empty map (DHCP).
std::pair<bool, QVariantMap> ipSettingsMap(const QStringList &words);

#endif
