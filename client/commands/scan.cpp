// "scan": ask for a scan and wait for the service's ScanResults signal.
#include "client/kepclient.h"

#include "kep_interface.h"

#include <QTimer>

namespace {
constexpr int ScanTimeoutMs = 10000;
}

int KepClient::scan(const QStringList &)
{
    // Listen before asking, so that a quick answer cannot be missed.
    connect(m_kep, SIGNAL(ScanResults(QVariantMap)), this, SLOT(on_kep_ScanResults(QVariantMap)));
    callService(QStringLiteral("Scan"));
    QTimer::singleShot(ScanTimeoutMs, this, SLOT(on_kepclient_timeout()));
    return Waiting;
}
