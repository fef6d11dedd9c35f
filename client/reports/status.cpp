// "status", also run when no command word is given: the service's Details.
#include "client/kepclient.h"

#include "client/reports/valueprinter.h"
#include "kep_interface.h"

#include <QDebug>

int KepClient::showStatus(const QStringList &)
{
    // A failed read gives an invalid variant: an empty map, no lines.
    const QVariantMap details = m_kep->property("Details").toMap();
    const QStringList keys = details.keys();
    for (const QString &key : keys) {
        const QVariant value = details.value(key);
        switch (kindOf(value)) {
        case ValueKind::Text:
            qDebug() << "Property: " << key << " -> " << textOf(value);
            break;
        case ValueKind::Wrapped:
            qDebug() << "Property: " << key << " -> ";
            printDBusMap(value.value<QDBusArgument>(), 1);
            break;
        case ValueKind::Other:
            qDebug() << "Entry: " << key << " -> " << value;
            break;
        }
    }
    return Done;
}
