#include "sim/kepservice.h"

#include <QStringList>
#include <QTimer>

namespace {

const QStringList NormalModes = {QStringLiteral("automatic"), QStringLiteral("wired"),
                                 QStringLiteral("wireless"), QStringLiteral("hybrid")};

// Interface status codes of InterfaceStatusChanged.
enum Status { Down = 0, Up = 1 };

// Addresses of an interface: the static settings written to the service
// when there are any, otherwise what a DHCP server on the bench hands out.
QVariantMap addressing(const QVariantMap &settings, const QString &dhcpAddress, bool up)
{
    QVariantMap out;
    if (!settings.isEmpty()) {
        out.insert(QStringLiteral("Method"), QStringLiteral("static"));
        out.insert(QStringLiteral("Address"), settings.value(QStringLiteral("Ip")).toString());
        out.insert(QStringLiteral("Netmask"), settings.value(QStringLiteral("Netmask")).toString());
        out.insert(QStringLiteral("Gateway"), settings.value(QStringLiteral("Gatewap")).toString());
        out.insert(QStringLiteral("Dns"), settings.value(QStringLiteral("Dns")).toString());
    } else {
        out.insert(QStringLiteral("Method"), QStringLiteral("dhcp"));
        out.insert(QStringLiteral("Address"), up ? dhcpAddress : QString());
        out.insert(QStringLiteral("Netmask"), up ? QStringLiteral("255.255.255.0") : QString());
        out.insert(QStringLiteral("Gateway"), up ? QStringLiteral("192.168.10.1") : QString());
        out.insert(QStringLiteral("Dns"), up ? QStringLiteral("192.168.10.1 9.9.9.9") : QString());
    }
    return out;
}

} // namespace

KepService::KepService(QObject *parent)
    : QObject(parent)
{
}

QVariantMap KepService::details() const
{
    if (m_fixedDetails)
        return m_details;

    const bool softAp = m_mode == QLatin1String("softap");
    const bool wiredUp = m_mode == QLatin1String("automatic") || m_mode == QLatin1String("wired")
                         || m_mode == QLatin1String("hybrid");
    const bool wirelessUp = m_mode == QLatin1String("automatic") || m_mode == QLatin1String("wireless")
                            || m_mode == QLatin1String("hybrid");

    QVariantMap wired = addressing(m_wiredIp, QStringLiteral("192.168.10.23"), wiredUp);
    wired.insert(QStringLiteral("Interface"), QStringLiteral("eth0"));
    wired.insert(QStringLiteral("Mac"), QStringLiteral("02:4b:45:50:00:01"));
    wired.insert(QStringLiteral("CablePluggedIn"), true);
    wired.insert(QStringLiteral("State"), wiredUp ? QStringLiteral("up") : QStringLiteral("down"));

    QVariantMap wireless = addressing(m_wirelessIp, QStringLiteral("192.168.10.57"), wirelessUp);
    wireless.insert(QStringLiteral("Interface"), QStringLiteral("mlan0"));
    wireless.insert(QStringLiteral("Mac"), QStringLiteral("02:4b:45:50:00:02"));
    wireless.insert(QStringLiteral("State"), wirelessUp ? QStringLiteral("up") : QStringLiteral("down"));
    wireless.insert(QStringLiteral("Ssid"), wirelessUp && !m_networks.isEmpty() ? m_networks.firstKey() : QString());
    wireless.insert(QStringLiteral("SignalStrength"), wirelessUp ? -52 : 0);
    wireless.insert(QStringLiteral("KnownNetworks"), m_networks.size());

    QVariantMap ap;
    ap.insert(QStringLiteral("Interface"), m_softApInterface);
    ap.insert(QStringLiteral("Active"), softAp);
    ap.insert(QStringLiteral("Ssid"), QStringLiteral("kep-setup"));
    ap.insert(QStringLiteral("Address"), softAp ? QStringLiteral("10.42.0.1") : QString());

    QVariantMap details;
    details.insert(QStringLiteral("State"), softAp ? QStringLiteral("softap")
                                           : (wiredUp || wirelessUp) ? QStringLiteral("connected")
                                                                     : QStringLiteral("disconnected"));
    details.insert(QStringLiteral("Mode"), m_mode);
    details.insert(QStringLiteral("LogLevel"), m_logLevel);
    details.insert(QStringLiteral("Wired"), wired);
    details.insert(QStringLiteral("Wireless"), wireless);
    details.insert(QStringLiteral("SoftAp"), ap);
    return details;
}

QVariantMap KepService::InterfaceDetails(const QString &interface)
{
    const QVariantMap all = details();
    for (auto it = all.cbegin(); it != all.cend(); ++it) {
        const QVariantMap inner = it.value().toMap();
        if (inner.value(QStringLiteral("Interface")).toString() == interface)
            return inner;
    }
    return {};
}

void KepService::later(int ms, std::function<void()> action)
{
    QTimer::singleShot(ms, this, std::move(action));
}

void KepService::switchMode(const QString &mode)
{
    const QString previous = m_mode;
    m_mode = mode;
    m_connected = mode != QLatin1String("off") && mode != QLatin1String("softap");
    if (!m_behaviour || previous == mode)
        return;
    if (previous != QLatin1String("off")) {
        emit Disconnecting(previous);
        emit Disconnected(previous);
    }
    if (m_connected) {
        emit InterfaceStatusChanged(mode, Up);
        emit Connected(mode);
    }
    emit AddressesChanged();
}

void KepService::Scan()
{
    if (!m_behaviour || m_outcomes.silent)
        return;
    later(m_outcomes.scanDelayMs, [this] { emit ScanResults(m_outcomes.scanResults); });
}

void KepService::SetNormalMode(const QString &mode)
{
    if (!NormalModes.contains(mode)) {
        if (m_behaviour)
            emit Error(QStringLiteral("Unknown mode: ") + mode);
        return;
    }
    switchMode(mode);
}

void KepService::SetOffMode()
{
    switchMode(QStringLiteral("off"));
}

void KepService::StartSoftAp(const QString &interface, const QVariantMap &settings)
{
    m_softApInterface = interface;
    m_softAp = settings;
    m_softAp.insert(QStringLiteral("Interface"), interface);
    switchMode(QStringLiteral("softap"));
    if (m_behaviour)
        emit Started();
}

void KepService::StopSoftAp(const QString &interface)
{
    if (interface == m_softApInterface && m_mode == QLatin1String("softap"))
        switchMode(QStringLiteral("off"));
}

void KepService::WpsPbc()
{
    runWps();
}

void KepService::WpsPin(const QString &)
{
    runWps();
}

void KepService::runWps()
{
    if (!m_behaviour || m_outcomes.silent || m_wpsRunning)
        return;
    m_wpsRunning = true;
    const int step = m_outcomes.wpsStepMs;
    for (int pass = 1; pass <= m_outcomes.wpsScanPasses; ++pass)
        later(step * pass, [this] { emit ScanResults(m_outcomes.scanResults); });
    later(step * (m_outcomes.wpsScanPasses + 1), [this] {
        m_wpsRunning = false;
        if (!m_outcomes.wpsError.isEmpty())
            emit WpsError(m_outcomes.wpsError);
        else
            emit WpsCredentials(m_outcomes.wpsCredentials);
    });
}
