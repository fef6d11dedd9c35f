// "loglevel": show the service's log level, or set it.
#include "client/commands/loglevel.h"

#include "client/kepclient.h"

#include "kep_interface.h"

#include <QDebug>

std::optional<int> parseLogLevel(const QString &word)
{
    bool ok = false;
    const uint value = word.toUInt(&ok, 10);
    if (!ok)
        return std::nullopt;
    return static_cast<int>(value);
}

int KepClient::logLevel(const QStringList &arguments)
{
    if (arguments.isEmpty()) {
        // A failed read gives an invalid variant, shown as 0.
        qDebug() << "Current log level: " << m_kep->property("LogLevel").toInt();
        return Done;
    }
    if (arguments.size() > 1)
        return BadArguments;
    const std::optional<int> level = parseLogLevel(arguments.at(0));
    if (!level)
        return BadArguments;
    m_kep->setProperty("LogLevel", QVariant(*level));
    return Done;
}
