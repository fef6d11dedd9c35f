// "wiredip" and "wirelessip": static IPv4 settings, or DHCP with no words.
#include "client/commands/ipsettings.h"

#include "client/commands/ipv4address.h"
#include "client/kepclient.h"

#include "kep_interface.h"

std::pair<bool, QVariantMap> ipSettingsMap(const QStringList &words)
{
    // "Gatewap" is the service's spelling of the key.
    static const char *const keys[] = {"Ip", "Netmask", "Gatewap"};
    QVariantMap settings;
    QString dns; // every word from the fourth on, joined by blanks
    for (int i = 0; i < words.size(); ++i) {
        const QString &word = words.at(i);
        if (!isIpv4Address(word))
            return {false, QVariantMap()};
        if (i < 3) {
            settings.insert(QLatin1String(keys[i]), word);
        } else {
            if (i > 3)
                dns += QLatin1Char(' ');
            dns += word;
        }
    }
    if (words.size() > 3)
        settings.insert(QStringLiteral("Dns"), dns);
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
