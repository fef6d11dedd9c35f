#ifndef KEP_SIM_DBUSTEXT_H
#define KEP_SIM_DBUSTEXT_H

#include <QString>
#include <QVariant>

// Exact, typed text of D-Bus values as they arrived on the bus, for the
// simulator's trace and for tests that check what went over the wire.
//
//   typedText:  the value's D-Bus signature, a blank, then its contents:
//               s "text"   i -1   u 7   b true   o "/path"   g "a{sv}"
//               a{sv} {"key": <s "x">, "n": <i 2>}   ai [1, 2]   (si) ("a", 3)
//   Inside containers only variants repeat a signature: <sig value>.
QString dbusSignatureOf(const QVariant &value);
QString typedText(const QVariant &value);

#endif
