#include "client/kepclient.h"

#include <QDebug>

// "help", and the answer to every wrong invocation. The program path is shown
// as invoked; a process started without one is called kepclient.
int KepClient::printUsage(const QStringList &)
{
    qDebug() << m_arguments.value(0, QStringLiteral("kepclient")) << ": Usage:";
    qDebug() << "\thelp";
    qDebug() << "\tstatus (default command)";
    qDebug() << "\toff";
    qDebug() << "\tnormal (automatic|wired|wireless|hybrid)";
    qDebug() << "\tsoftap (start|stop) [interface]";
    qDebug() << "\tscan";
    qDebug() << "\twps";
    qDebug() << "\tadd [ssid1] [type1] [key1] [ssid2] [type2] [key2]...";
    qDebug() << "\t\tSpecify each network with three arguments:";
    qDebug() << "\t\t<ssid> unsecured none";
    qDebug() << "\t\t<ssid> wep_key <key>";
    qDebug() << "\t\t<ssid> wpa_psk <psk>";
    qDebug() << "\t\tNo networks clears database.";
    qDebug() << "\twiredip <ip> <netmask> <gateway> <dns1>...";
    qDebug() << "\t\tSpecify nothing for dhcp.";
    qDebug() << "\twirelessip <ip> <netmask> <gateway> <dns1>...";
    qDebug() << "\t\tSpecify nothing for dhcp.";
    qDebug() << "\tloglevel [integer]";
    return Done;
}
