#ifndef KEP_SIM_TYPEDJSON_H
#define KEP_SIM_TYPEDJSON_H

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <optional>

// Typed JSON: how scenario files write D-Bus values (see TYPED-JSON.md).
//
// Plain JSON takes the obvious type: "x" is s, 5 is i (x beyond int32),
// 1.5 is d, true is b, an object is a{sv}, an array of strings is as and
// any other array av. An object with a single member "@<signature>" gives
// the value that signature:  {"@u": 5}  {"@o": "/a"}  {"@a(si)": [["a", 1]]}.
//
// Containers come back the way QtDBus marshals them: as, ay, av and a{sv}
// as QStringList, QByteArray, QVariantList and QVariantMap; every other
// array, dictionary and structure as a marshalled QDBusArgument.

// Turns JSON into the QVariant that QtDBus sends as the D-Bus value it denotes.
// `where` names the place for error messages (e.g. "Details.Wired"); on error
// returns an invalid QVariant and sets *error to "<where>: <problem>".
QVariant typedJsonValue(const QJsonValue &json, const QString &where, QString *error);

// A JSON object as an a{sv} dictionary (QVariantMap), each value by typedJsonValue.
// {"@a{sv}": {...}} is taken as well; any other explicit type is an error.
std::optional<QVariantMap> typedJsonMap(const QJsonObject &json, const QString &where, QString *error);

#endif
