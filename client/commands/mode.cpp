// Mode commands: "off", "normal", "softap".
#include "client/kepclient.h"

#include <QDebug>

namespace {
const QString DefaultSoftApInterface = QStringLiteral("uap0");
}

// off: any words after it are ignored.
int KepClient::setOffMode(const QStringList &)
{
    return callServiceAndFinish(QStringLiteral("SetOffMode"));
}

// normal <mode>: the word goes to the service as typed, unchecked.
int KepClient::setNormalMode(const QStringList &arguments)
{
    if (arguments.size() != 1) {
        qDebug() << "Normal mode requires one argument!";
        return BadArguments;
    }
    return callServiceAndFinish(QStringLiteral("SetNormalMode"), {arguments.at(0)});
}

// softap (start|stop) [interface]: the interface is taken only when it is the
// second of exactly two words; otherwise the default one is used.
int KepClient::softAp(const QStringList &arguments)
{
    if (!arguments.isEmpty()) {
        const QString interface = arguments.size() == 2 ? arguments.at(1) : DefaultSoftApInterface;
        if (arguments.at(0) == QLatin1String("start"))
            return callServiceAndFinish(QStringLiteral("StartSoftAp"), {interface, QVariantMap()});
        if (arguments.at(0) == QLatin1String("stop"))
            return callServiceAndFinish(QStringLiteral("StopSoftAp"), {interface});
    }
    qDebug() << "SoftAp mode requires at least one argument!";
    return BadArguments;
}
