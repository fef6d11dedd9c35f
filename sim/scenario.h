#ifndef KEP_SIM_SCENARIO_H
#define KEP_SIM_SCENARIO_H

#include <QHash>
#include <QString>
#include <QVariantMap>

#include <optional>

#include "sim/busobject.h"
#include "sim/kepservice.h"

// What a scenario file sets: initial property values, a fixed Details map,
// what scans and WPS runs answer, and property reads answered otherwise
// (an error, a value of another type, no answer at all).
struct Scenario
{
    std::optional<QVariantMap> details;
    std::optional<int> logLevel;
    std::optional<QString> mode;
    std::optional<QVariantMap> wirelessNetworks;
    std::optional<QVariantMap> wiredIpSettings;
    std::optional<QVariantMap> wirelessIpSettings;
    KepService::Outcomes outcomes;
    QHash<QString, KepBusObject::PropertyAnswer> propertyAnswers;
};

// Reads a scenario file. Keys not given keep the built-in defaults. On a
// malformed file returns nothing and sets *error to "FILE:LINE:COLUMN: problem"
// or "FILE: place: problem".
std::optional<Scenario> loadScenario(const QString &path, QString *error);

// The scenario the simulator plays when no file is given.
Scenario defaultScenario();

void applyScenario(const Scenario &scenario, KepBusObject *object);

#endif
