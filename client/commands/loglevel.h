#ifndef KEP_COMMANDS_LOGLEVEL_H
#define KEP_COMMANDS_LOGLEVEL_H

#include <QString>

#include <optional>

// A log level as typed: an unsigned 32-bit decimal number, handed on as the
// signed int with the same 32 bits (4294967295 is -1).
std::optional<int> parseLogLevel(const QString &word);

#endif
