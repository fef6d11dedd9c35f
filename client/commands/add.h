#ifndef KEP_COMMANDS_ADD_H
#define KEP_COMMANDS_ADD_H

#include <QStringList>
#include <QVariantMap>

#include <optional>

// The wireless network map written by "add": SSID -> { type word -> key },
// an empty inner map for "unsecured". The words come in triples
// (ssid, type, key); any other count gives no map.
std::optional<QVariantMap> wirelessNetworkMap(const QStringList &words);

#endif
