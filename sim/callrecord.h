#ifndef KEP_SIM_CALLRECORD_H
#define KEP_SIM_CALLRECORD_H

#include <QDBusMessage>
#include <QString>
#include <QStringList>

#include "sim/dbustext.h"

// One method call as it reached the service: who sent it, which member of
// which interface, with what D-Bus signature and arguments.
struct CallRecord
{
    QString sender;
    QString interface;
    QString member;
    QString signature;
    QVariantList arguments;

    static CallRecord fromMessage(const QDBusMessage &message)
    {
        return {message.service(), message.interface(), message.member(),
                message.signature(), message.arguments()};
    }

    // Member(typed argument, ...), e.g. StartSoftAp(s "uap0", a{sv} {})
    QString text() const
    {
        QStringList parts;
        for (const QVariant &argument : arguments)
            parts << typedText(argument);
        return member + QLatin1Char('(') + parts.join(QLatin1String(", ")) + QLatin1Char(')');
    }
};

#endif
