#include "client/kepclient.h"

#include "kep_interface.h"
#include "service/endpoint.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDebug>
#include <QTimer>

KepClient::KepClient(QStringList arguments)
    : QObject(nullptr)
    , m_arguments(std::move(arguments))
    , m_kep(new com_calyra_kep(QString::fromLatin1(kep::ServiceName), QString::fromLatin1(kep::ObjectPath),
                               QDBusConnection::systemBus(), this))
{
    // No command work before the event loop runs.
    QTimer::singleShot(0, this, SLOT(on_program_ready()));
}

bool KepClient::endRun()
{
    if (m_runEnded)
        return false;
    m_runEnded = true;
    QCoreApplication::quit();
    return true;
}

void KepClient::on_kepclient_timeout()
{
    if (!endRun())
        return;
    qDebug() << "kepclient: Timeout reached, exiting...";
}
