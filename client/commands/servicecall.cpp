#include "client/kepclient.h"

#include "kep_interface.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingReply>

// Sends one method call to the service without waiting for its reply, which
// is dropped unread: a refused or failed call is never reported.
void KepClient::callService(const QString &method, const QVariantList &arguments)
{
    QDBusPendingReply<> reply = m_kep->asyncCallWithArgumentList(method, arguments);
    Q_UNUSED(reply)
}

// For the commands that end the run right after their call. The bus
// connection writes in the background, so the call could still be queued
// when the process ends. A blocking Ping to the bus daemon on the same
// connection comes back only after the daemon has read everything sent
// before it: by then the call is the daemon's to deliver.
int KepClient::callServiceAndFinish(const QString &method, const QVariantList &arguments)
{
    callService(method, arguments);
    const QDBusConnection bus = m_kep->connection();
    if (bus.isConnected()) {
        bus.call(QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
            QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping")));
    }
    return Done;
}
