// The report that ends "scan": every network, its properties one tab in.
#include "client/kepclient.h"

#include "client/reports/valueprinter.h"

#include <QDebug>

void KepClient::on_kep_ScanResults(const QVariantMap &results)
{
    if (!endRun())
        return;
    const QStringList networks = results.keys();
    for (const QString &network : networks) {
        qDebug() << "Network: " << network << " -> ";
        const QVariant value = results.value(network);
        if (kindOf(value) != ValueKind::Wrapped)
            continue;
        const QDBusArgument argument = value.value<QDBusArgument>();
        QVariantMap properties;
        if (!readDictionary(argument, properties)) {
            printDBusMap(argument, 1); // not a dictionary: one line of its elements
            continue;
        }
        // One level only: a nested container is shown as the variant it is.
        const QStringList names = properties.keys();
        for (const QString &name : names) {
            const QVariant property = properties.value(name);
            if (kindOf(property) == ValueKind::Text)
                qDebug() << "\t" << name << "=" << textOf(property);
            else
                qDebug() << "\t" << name << "=" << property;
        }
    }
}
