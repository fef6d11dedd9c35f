// "add": replace the service's list of wireless networks.
#include "client/commands/add.h"

#include "client/kepclient.h"

#include "kep_interface.h"

#include <QDebug>

std::optional<QVariantMap> wirelessNetworkMap(const QStringList &words)
{
    if (words.size() % 3 != 0)
        return std::nullopt;

    QVariantMap networks;
    for (int i = 0; i < words.size(); i += 3) {
        const QString &ssid = words.at(i);
        const QString &type = words.at(i + 1);
        QVariantMap network;
        if (type != QLatin1String("unsecured"))
            network.insert(type, words.at(i + 2));
        networks.insert(ssid, network); // a repeated SSID keeps its last triple
    }
    return networks;
}

int KepClient::addNetworks(const QStringList &arguments)
{
    const std::optional<QVariantMap> networks = wirelessNetworkMap(arguments);
    if (!networks) {
        qDebug() << "kepclient: Expected networks in correct format!";
        return BadArguments;
    }
    m_kep->setProperty("WirelessNetworks", QVariant(*networks));
    return Done;
}
