// "wps": push-button WPS, then wait for credentials, an error or the timeout.
#include "client/kepclient.h"

#include "kep_interface.h"

#include <QDebug>
#include <QTimer>

namespace {
constexpr int WpsTimeoutMs = 180000;
}

int KepClient::wps(const QStringList &)
{
    callService(QStringLiteral("WpsPbc"));
    connect(m_kep, SIGNAL(WpsCredentials(QVariantMap)), this, SLOT(on_kep_WpsCredentials(QVariantMap)));
    connect(m_kep, SIGNAL(WpsError(QString)), this, SLOT(on_kep_WpsError(QString)));
    connect(m_kep, SIGNAL(ScanResults(QVariantMap)), this, SLOT(on_kep_WpsProgress(QVariantMap)));
    QTimer::singleShot(WpsTimeoutMs, this, SLOT(on_kepclient_timeout()));
    return Waiting;
}

void KepClient::on_kep_WpsCredentials(const QVariantMap &credentials)
{
    if (!endRun())
        return;
    qDebug() << "Wps Credentials:" << credentials;
}

void KepClient::on_kep_WpsError(const QString &message)
{
    if (!endRun())
        return;
    qDebug() << "Wps Error:" << message;
}

// During WPS a ScanResults only says that one scan pass is over.
void KepClient::on_kep_WpsProgress(const QVariantMap &)
{
    if (m_runEnded)
        return;
    qDebug() << "Wps scan completed, still waiting...";
}
