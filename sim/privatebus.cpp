#include "sim/privatebus.h"

#include <QDeadlineTimer>
#include <QFile>

namespace {

const char OpenConfiguration[] = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>kep-sim</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
  </policy>
</busconfig>
)";

} // namespace

PrivateBus::~PrivateBus()
{
    stop();
}

bool PrivateBus::start(QString *error, const QString &configFile)
{
    QString config = configFile;
    if (config.isEmpty()) {
        m_configDir = std::make_unique<QTemporaryDir>();
        config = m_configDir->filePath(QStringLiteral("bus.conf"));
        QFile file(config);
        if (!file.open(QIODevice::WriteOnly) || file.write(OpenConfiguration) < 0) {
            *error = QStringLiteral("cannot write ") + config;
            return false;
        }
    }

    // setpriv makes the kernel kill the daemon when this process ends.
    m_daemon.setProgram(QStringLiteral("setpriv"));
    m_daemon.setArguments({QStringLiteral("--pdeathsig"), QStringLiteral("KILL"), QStringLiteral("dbus-daemon"),
                           QStringLiteral("--nofork"), QStringLiteral("--config-file=") + config,
                           QStringLiteral("--print-address=1")});
    // Its complaints (as root: the file limit it may not raise) are dropped.
    m_daemon.setStandardErrorFile(QProcess::nullDevice());
    m_daemon.start();

    const QDeadlineTimer deadline(10000);
    while (!m_daemon.canReadLine() && !deadline.hasExpired()) {
        if (!m_daemon.waitForReadyRead(int(deadline.remainingTime())))
            break;
    }
    m_address = QString::fromLocal8Bit(m_daemon.readLine()).trimmed();
    if (m_address.isEmpty()) {
        *error = QStringLiteral("dbus-daemon did not start: ") + m_daemon.errorString();
        stop();
        return false;
    }
    return true;
}

void PrivateBus::stop()
{
    if (m_daemon.state() != QProcess::NotRunning) {
        m_daemon.terminate();
        if (!m_daemon.waitForFinished(5000)) {
            m_daemon.kill();
            m_daemon.waitForFinished(5000);
        }
    }
    m_address.clear();
}
