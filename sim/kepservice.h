#ifndef KEP_SIM_KEPSERVICE_H
#define KEP_SIM_KEPSERVICE_H

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <functional>

// The connection manager's state and behaviour, as the simulator plays it.
// The generated adaptor forwards the interface's methods and properties
// here; the Qt signals below go out as the interface's D-Bus signals.
//
// With behaviour switched off (as the tests use it) the service only keeps
// what is written and answers what is read: every signal is the test's to
// emit. Switched on, the methods act as a device would: modes change,
// scans and WPS runs answer with their signals after their delays.
class KepService : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool Connected READ isConnected)
    Q_PROPERTY(QVariantMap Details READ details)
    Q_PROPERTY(int LogLevel READ logLevel WRITE setLogLevel)
    Q_PROPERTY(QString Mode READ mode)
    Q_PROPERTY(QVariantMap SoftApModeSettings READ softApModeSettings)
    Q_PROPERTY(QVariantMap WiredIpSettings READ wiredIpSettings WRITE setWiredIpSettings)
    Q_PROPERTY(QVariantMap WirelessIpSettings READ wirelessIpSettings WRITE setWirelessIpSettings)
    Q_PROPERTY(QVariantMap WirelessNetworks READ wirelessNetworks WRITE setWirelessNetworks)

public:
    // What a scan and a WPS run answer, and after how long.
    struct Outcomes
    {
        QVariantMap scanResults;
        int scanDelayMs = 1500;
        int wpsScanPasses = 2;          // ScanResults signals before the outcome
        int wpsStepMs = 1000;           // delay before each of them and the outcome
        QVariantMap wpsCredentials;     // sent when wpsError is empty
        QString wpsError;
        bool silent = false;            // never emit anything: shows the client's timeouts
    };

    explicit KepService(QObject *parent = nullptr);

    void setBehaviour(bool on) { m_behaviour = on; }
    void setOutcomes(const Outcomes &outcomes) { m_outcomes = outcomes; }
    const Outcomes &outcomes() const { return m_outcomes; }

    // Details as served. With an explicit map set, that map is served as it
    // is; otherwise it is made from the current state.
    void setDetails(const QVariantMap &details) { m_details = details; m_fixedDetails = true; }
    void clearDetails() { m_fixedDetails = false; }

    bool isConnected() const { return m_connected; }
    QVariantMap details() const;
    int logLevel() const { return m_logLevel; }
    void setLogLevel(int level) { m_logLevel = level; }
    QString mode() const { return m_mode; }
    void setMode(const QString &mode) { m_mode = mode; m_connected = mode != QLatin1String("off") && mode != QLatin1String("softap"); }
    QVariantMap softApModeSettings() const { return m_softAp; }
    QVariantMap wiredIpSettings() const { return m_wiredIp; }
    void setWiredIpSettings(const QVariantMap &settings) { m_wiredIp = settings; }
    QVariantMap wirelessIpSettings() const { return m_wirelessIp; }
    void setWirelessIpSettings(const QVariantMap &settings) { m_wirelessIp = settings; }
    QVariantMap wirelessNetworks() const { return m_networks; }
    void setWirelessNetworks(const QVariantMap &networks) { m_networks = networks; }

    // Methods of the interface (called by the adaptor).
    QVariantMap InterfaceDetails(const QString &interface);
    void Scan();
    void SetNormalMode(const QString &mode);
    void SetOffMode();
    void StartSoftAp(const QString &interface, const QVariantMap &settings);
    void StopSoftAp(const QString &interface);
    void WpsPbc();
    void WpsPin(const QString &pin);

signals:
    void AddressesChanged();
    void AuthError(const QString &description);
    void CableStatus(bool pluggedIn);
    void Connected(const QString &type);
    void Disconnected(const QString &type);
    void Disconnecting(const QString &type);
    void Error(const QString &description);
    void InterfaceStatusChanged(const QString &type, int status);
    void ScanResults(const QVariantMap &results);
    void Started();
    void WpsCredentials(const QVariantMap &credentials);
    void WpsError(const QString &message);

private:
    void later(int ms, std::function<void()> action);
    void switchMode(const QString &mode);
    void runWps();

    bool m_behaviour = false;
    Outcomes m_outcomes;
    bool m_fixedDetails = false;
    QVariantMap m_details;
    bool m_connected = true;
    int m_logLevel = 2;
    QString m_mode = QStringLiteral("automatic");
    QString m_softApInterface = QStringLiteral("uap0");
    QVariantMap m_softAp;
    QVariantMap m_wiredIp;
    QVariantMap m_wirelessIp;
    QVariantMap m_networks;
    bool m_wpsRunning = false;
};

#endif
