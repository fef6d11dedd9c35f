#include "sim/scenario.h"

#include "sim/typedjson.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

// Line and column of a byte offset, for messages about the file.
QString position(const QByteArray &text, int offset)
{
    offset = qMax(offset - 1, 0); // QJsonParseError points just past the fault
    const QByteArray before = text.left(offset);
    const int line = before.count('\n') + 1;
    const int column = offset - (before.lastIndexOf('\n') + 1) + 1;
    return QStringLiteral("%1:%2").arg(line).arg(column);
}

class Reader
{
public:
    explicit Reader(QString *error) : m_error(error) {}

    bool fail(const QString &where, const QString &problem)
    {
        *m_error = where + QStringLiteral(": ") + problem;
        return false;
    }

    bool onlyKeys(const QJsonObject &object, const QString &where, const QStringList &known)
    {
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (!known.contains(it.key()))
                return fail(where.isEmpty() ? it.key() : where + QLatin1Char('.') + it.key(),
                            QStringLiteral("unknown key (known here: %1)").arg(known.join(QLatin1String(", "))));
        }
        return true;
    }

    bool object(const QJsonValue &value, const QString &where, QJsonObject *out)
    {
        if (!value.isObject())
            return fail(where, QStringLiteral("expected an object"));
        *out = value.toObject();
        return true;
    }

    bool integer(const QJsonValue &value, const QString &where, int min, int max, int *out)
    {
        const double d = value.toDouble(-1.5);
        if (!value.isDouble() || d != double(qint64(d)) || d < min || d > max)
            return fail(where, QStringLiteral("expected a whole number from %1 to %2").arg(min).arg(max));
        *out = int(d);
        return true;
    }

    bool text(const QJsonValue &value, const QString &where, QString *out)
    {
        if (!value.isString())
            return fail(where, QStringLiteral("expected a string"));
        *out = value.toString();
        return true;
    }

    bool map(const QJsonValue &value, const QString &where, QVariantMap *out)
    {
        QJsonObject json;
        if (!object(value, where, &json))
            return false;
        const std::optional<QVariantMap> map = typedJsonMap(json, where, m_error);
        if (map)
            *out = *map;
        return map.has_value();
    }

    bool optionalMap(const QJsonObject &parent, const QString &key, const QString &where,
                     std::optional<QVariantMap> *out)
    {
        if (!parent.contains(key))
            return true;
        QVariantMap map;
        if (!this->map(parent.value(key), where, &map))
            return false;
        *out = map;
        return true;
    }

    bool scan(const QJsonValue &value, KepService::Outcomes *outcomes)
    {
        QJsonObject json;
        if (!object(value, QStringLiteral("scan"), &json)
            || !onlyKeys(json, QStringLiteral("scan"), {QStringLiteral("results"), QStringLiteral("delay_ms")}))
            return false;
        if (json.contains(QLatin1String("results"))
            && !map(json.value(QLatin1String("results")), QStringLiteral("scan.results"), &outcomes->scanResults))
            return false;
        if (json.contains(QLatin1String("delay_ms"))
            && !integer(json.value(QLatin1String("delay_ms")), QStringLiteral("scan.delay_ms"), 0, 3600000,
                        &outcomes->scanDelayMs))
            return false;
        return true;
    }

    bool wps(const QJsonValue &value, KepService::Outcomes *outcomes)
    {
        QJsonObject json;
        if (!object(value, QStringLiteral("wps"), &json)
            || !onlyKeys(json, QStringLiteral("wps"),
                         {QStringLiteral("scan_passes"), QStringLiteral("step_ms"), QStringLiteral("credentials"),
                          QStringLiteral("error")}))
            return false;
        if (json.contains(QLatin1String("credentials")) && json.contains(QLatin1String("error")))
            return fail(QStringLiteral("wps"), QStringLiteral("give either credentials or error, not both"));
        if (json.contains(QLatin1String("scan_passes"))
            && !integer(json.value(QLatin1String("scan_passes")), QStringLiteral("wps.scan_passes"), 0, 1000,
                        &outcomes->wpsScanPasses))
            return false;
        if (json.contains(QLatin1String("step_ms"))
            && !integer(json.value(QLatin1String("step_ms")), QStringLiteral("wps.step_ms"), 0, 3600000,
                        &outcomes->wpsStepMs))
            return false;
        if (json.contains(QLatin1String("credentials"))) {
            outcomes->wpsError.clear();
            if (!map(json.value(QLatin1String("credentials")), QStringLiteral("wps.credentials"),
                     &outcomes->wpsCredentials))
                return false;
        }
        if (json.contains(QLatin1String("error"))) {
            if (!text(json.value(QLatin1String("error")), QStringLiteral("wps.error"), &outcomes->wpsError))
                return false;
            if (outcomes->wpsError.isEmpty())
                return fail(QStringLiteral("wps.error"), QStringLiteral("the error text must not be empty"));
        }
        return true;
    }

    bool answers(const QJsonValue &value, QHash<QString, KepBusObject::PropertyAnswer> *out)
    {
        QJsonObject json;
        if (!object(value, QStringLiteral("property_reads"), &json))
            return false;
        for (auto it = json.begin(); it != json.end(); ++it) {
            const QString where = QStringLiteral("property_reads.") + it.key();
            QJsonObject entry;
            if (!object(it.value(), where, &entry)
                || !onlyKeys(entry, where, {QStringLiteral("value"), QStringLiteral("error"), QStringLiteral("message"),
                                           QStringLiteral("no_reply")}))
                return false;
            KepBusObject::PropertyAnswer answer;
            if (entry.value(QLatin1String("no_reply")).toBool()) {
                answer.kind = KepBusObject::PropertyAnswer::NoReply;
            } else if (entry.contains(QLatin1String("error"))) {
                answer.kind = KepBusObject::PropertyAnswer::ErrorReply;
                if (!text(entry.value(QLatin1String("error")), where + QStringLiteral(".error"), &answer.errorName))
                    return false;
                answer.errorMessage = entry.value(QLatin1String("message")).toString();
            } else if (entry.contains(QLatin1String("value"))) {
                answer.value = typedJsonValue(entry.value(QLatin1String("value")), where + QStringLiteral(".value"), m_error);
                if (!answer.value.isValid())
                    return false;
            } else {
                return fail(where, QStringLiteral("give value, error or no_reply"));
            }
            out->insert(it.key(), answer);
        }
        return true;
    }

private:
    QString *m_error;
};

} // namespace

std::optional<Scenario> loadScenario(const QString &path, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = path + QStringLiteral(": ") + file.errorString();
        return std::nullopt;
    }
    const QByteArray text = file.readAll();
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = path + QLatin1Char(':') + position(text, parseError.offset) + QStringLiteral(": ")
                 + parseError.errorString();
        return std::nullopt;
    }
    if (!document.isObject()) {
        *error = path + QStringLiteral(": the scenario must be a JSON object");
        return std::nullopt;
    }

    Scenario scenario = defaultScenario();
    QString problem;
    Reader read(&problem);
    const QJsonObject json = document.object();
    bool ok = read.onlyKeys(json, QString(),
                            {QStringLiteral("details"), QStringLiteral("log_level"), QStringLiteral("mode"),
                             QStringLiteral("wireless_networks"), QStringLiteral("wired_ip"),
                             QStringLiteral("wireless_ip"), QStringLiteral("scan"), QStringLiteral("wps"),
                             QStringLiteral("silent"), QStringLiteral("property_reads")})
              && read.optionalMap(json, QStringLiteral("details"), QStringLiteral("details"), &scenario.details)
              && read.optionalMap(json, QStringLiteral("wireless_networks"), QStringLiteral("wireless_networks"),
                                  &scenario.wirelessNetworks)
              && read.optionalMap(json, QStringLiteral("wired_ip"), QStringLiteral("wired_ip"), &scenario.wiredIpSettings)
              && read.optionalMap(json, QStringLiteral("wireless_ip"), QStringLiteral("wireless_ip"),
                                  &scenario.wirelessIpSettings);
    if (ok && json.contains(QLatin1String("log_level"))) {
        int level = 0;
        ok = read.integer(json.value(QLatin1String("log_level")), QStringLiteral("log_level"), INT_MIN, INT_MAX, &level);
        scenario.logLevel = level;
    }
    if (ok && json.contains(QLatin1String("mode"))) {
        QString mode;
        ok = read.text(json.value(QLatin1String("mode")), QStringLiteral("mode"), &mode);
        scenario.mode = mode;
    }
    if (ok && json.contains(QLatin1String("scan")))
        ok = read.scan(json.value(QLatin1String("scan")), &scenario.outcomes);
    if (ok && json.contains(QLatin1String("wps")))
        ok = read.wps(json.value(QLatin1String("wps")), &scenario.outcomes);
    if (ok && json.contains(QLatin1String("silent"))) {
        if (!json.value(QLatin1String("silent")).isBool())
            ok = read.fail(QStringLiteral("silent"), QStringLiteral("expected true or false"));
        scenario.outcomes.silent = json.value(QLatin1String("silent")).toBool();
    }
    if (ok && json.contains(QLatin1String("property_reads")))
        ok = read.answers(json.value(QLatin1String("property_reads")), &scenario.propertyAnswers);
    if (!ok) {
        *error = path + QStringLiteral(": ") + problem;
        return std::nullopt;
    }
    return scenario;
}

Scenario defaultScenario()
{
    const auto network = [](const char *bssid, int signal, int frequency, const char *security) {
        return QVariantMap{{QStringLiteral("Bssid"), QLatin1String(bssid)},
                           {QStringLiteral("SignalStrength"), signal},
                           {QStringLiteral("Frequency"), uint(frequency)},
                           {QStringLiteral("Security"), QLatin1String(security)}};
    };
    Scenario scenario;
    scenario.wirelessNetworks = QVariantMap{
        {QStringLiteral("Workshop"), QVariantMap{{QStringLiteral("wpa_psk"), QStringLiteral("correct horse battery")}}}};
    scenario.outcomes.scanResults = {
        {QStringLiteral("Workshop"), network("02:11:22:33:44:01", -48, 2437, "wpa_psk")},
        {QStringLiteral("Warehouse-5G"), network("02:11:22:33:44:02", -67, 5180, "wpa_psk")},
        {QStringLiteral("Guest"), network("02:11:22:33:44:03", -71, 2462, "unsecured")},
    };
    scenario.outcomes.wpsCredentials = {{QStringLiteral("Ssid"), QStringLiteral("Workshop")},
                                        {QStringLiteral("Security"), QStringLiteral("wpa_psk")},
                                        {QStringLiteral("Key"), QStringLiteral("correct horse battery")}};
    return scenario;
}

void applyScenario(const Scenario &scenario, KepBusObject *object)
{
    KepService *service = object->service();
    service->setOutcomes(scenario.outcomes);
    if (scenario.details)
        service->setDetails(*scenario.details);
    if (scenario.logLevel)
        service->setLogLevel(*scenario.logLevel);
    if (scenario.mode)
        service->setMode(*scenario.mode);
    if (scenario.wirelessNetworks)
        service->setWirelessNetworks(*scenario.wirelessNetworks);
    if (scenario.wiredIpSettings)
        service->setWiredIpSettings(*scenario.wiredIpSettings);
    if (scenario.wirelessIpSettings)
        service->setWirelessIpSettings(*scenario.wirelessIpSettings);
    for (auto it = scenario.propertyAnswers.cbegin(); it != scenario.propertyAnswers.cend(); ++it)
        object->setPropertyAnswer(it.key(), it.value());
}
