#ifndef KEP_REPORTS_VALUEPRINTER_H
#define KEP_REPORTS_VALUEPRINTER_H

#include <QByteArray>
#include <QDBusArgument>
#include <QString>
#include <QVariant>
#include <QVariantMap>

// How a value of a service map is printed. A container that QtDBus leaves
// encoded (a nested dictionary, an array, a struct) is "wrapped"; a value
// that converts to a string is "text"; anything else is "other" and is
// shown in the debug stream's rendering of a QVariant.
enum class ValueKind { Wrapped, Text, Other };
ValueKind kindOf(const QVariant &value);

// The text of a text value: the string it holds, or its conversion to one.
QString textOf(const QVariant &value);

// Reads a wrapped dictionary of any key and value types into a map, keys as
// text, values unwrapped from their variants; a key that comes twice is kept
// twice. Returns false, reading nothing, when the argument is no dictionary.
bool readDictionary(const QDBusArgument &argument, QVariantMap &entries);

// One line for any value, containers written out in full:
// arrays [a, b], structs (a, b), dictionaries {key: value}, variants <value>.
QString inlineText(const QVariant &value);

// Prints a wrapped dictionary, one line per entry in ascending key order,
// each line indented by `depth` tabs; a nested container follows its key
// line one tab deeper. A wrapped value that is no dictionary prints as one
// line of inlineText.
void printDBusMap(const QDBusArgument &map, int depth);

#endif
