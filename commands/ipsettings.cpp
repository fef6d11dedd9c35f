// "wiredip" and "wirelessip": static IPv4 settings, or DHCP with no words.
#include "commands/ipsettings.h"

#include "client/kepclient.h"

#include "kep_interface.h"

#include <QHostAddress>

std::pair<bool, QVariantMap> ipSettingsMap(const QStringList &words)
{
    // "Gatewap" is the service's spelling of the key.
    static const char *const keys[] = {"Ip", "Netmask", "Gatewap", "Dns"};
    QVariantMap settings;
    for (int i = 0; i < words.size(); ++i) {
        const QString &word = words.at(i);
        if (QHostAddress(word).protocol() != QAbstractSocket::IPv4Protocol)
            return {false, QVariantMap()};
        if (i < 4) {
            settings.insert(QLatin1String(keys[i]), word);
        } else {
            const QString dns = settings.value(QStringLiteral("Dns")).toString();
            settings.insert(QStringLiteral("Dns"), QString(dns + QLatin1Char(' ') + word));
        }
    }
    return {true, settings};
}

int KepClient::writeIpSettings(const char *property, const QStringList &arguments)
{
    const auto [ok, settings] = ipSettingsMap(arguments);
    if (!ok)
        return BadArguments;
    m_kep->setProperty(property, QVariant(settings));
    return Done;
}

int KepClient::wiredIp(const QStringList &arguments)
{
    return writeIpSettings("WiredIpSettings", arguments);
}

int KepClient::wirelessIp(const QStringList &arguments)
{
    return writeIpSettings("WirelessIpSettings", arguments);
}
