#ifndef KEP_SIM_PRIVATEBUS_H
#define KEP_SIM_PRIVATEBUS_H

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <memory>

// A dbus-daemon of our own, for one simulator run or one test suite. It is
// started so that it dies with this process (even when this process is
// killed), and stopped when the object goes.
class PrivateBus
{
public:
    PrivateBus() = default;
    ~PrivateBus();
    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    // With no configuration file, one that lets every local client own,
    // call and listen is written to a temporary folder.
    bool start(QString *error, const QString &configFile = QString());
    void stop();
    QString address() const { return m_address; }

private:
    QProcess m_daemon;
    QString m_address;
    std::unique_ptr<QTemporaryDir> m_configDir;
};

#endif
