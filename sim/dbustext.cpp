#include "sim/dbustext.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QDebug>
#include <QStringList>

namespace {

QString valueText(const QVariant &value);

QString quoted(const QString &text)
{
    QString out;
    QDebug(&out) << text;
    return out.trimmed();
}

QString elements(const QDBusArgument &argument)
{
    QStringList parts;
    while (!argument.atEnd())
        parts << valueText(argument.asVariant());
    return parts.join(QLatin1String(", "));
}

QString containerText(const QDBusArgument &argument)
{
    QString text;
    switch (argument.currentType()) {
    case QDBusArgument::MapType: {
        QStringList parts;
        argument.beginMap();
        while (!argument.atEnd()) {
            argument.beginMapEntry();
            const QString key = valueText(argument.asVariant());
            parts << key + QLatin1String(": ") + valueText(argument.asVariant());
            argument.endMapEntry();
        }
        argument.endMap();
        return QLatin1Char('{') + parts.join(QLatin1String(", ")) + QLatin1Char('}');
    }
    case QDBusArgument::ArrayType:
        argument.beginArray();
        text = QLatin1Char('[') + elements(argument) + QLatin1Char(']');
        argument.endArray();
        return text;
    case QDBusArgument::StructureType:
        argument.beginStructure();
        text = QLatin1Char('(') + elements(argument) + QLatin1Char(')');
        argument.endStructure();
        return text;
    default:
        return valueText(argument.asVariant());
    }
}

QString valueText(const QVariant &value)
{
    const int type = value.userType();
    if (type == qMetaTypeId<QDBusArgument>())
        return containerText(value.value<QDBusArgument>());
    if (type == qMetaTypeId<QDBusVariant>())
        return QLatin1Char('<') + typedText(value.value<QDBusVariant>().variant()) + QLatin1Char('>');
    if (type == qMetaTypeId<QDBusObjectPath>())
        return quoted(value.value<QDBusObjectPath>().path());
    if (type == qMetaTypeId<QDBusSignature>())
        return quoted(value.value<QDBusSignature>().signature());
    if (type == qMetaTypeId<QDBusUnixFileDescriptor>())
        return QStringLiteral("fd");
    switch (type) {
    case QMetaType::QVariantMap: { // not yet marshalled: a{sv}
        QStringList parts;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            parts << quoted(it.key()) + QLatin1String(": <") + typedText(it.value()) + QLatin1Char('>');
        return QLatin1Char('{') + parts.join(QLatin1String(", ")) + QLatin1Char('}');
    }
    case QMetaType::QVariantList: { // not yet marshalled: av
        QStringList parts;
        for (const QVariant &element : value.toList())
            parts << QLatin1Char('<') + typedText(element) + QLatin1Char('>');
        return QLatin1Char('[') + parts.join(QLatin1String(", ")) + QLatin1Char(']');
    }
    case QMetaType::QString:
        return quoted(value.toString());
    case QMetaType::QStringList: {
        QStringList parts;
        for (const QString &s : value.toStringList())
            parts << quoted(s);
        return QLatin1Char('[') + parts.join(QLatin1String(", ")) + QLatin1Char(']');
    }
    case QMetaType::QByteArray: {
        QStringList parts;
        for (const char byte : value.toByteArray())
            parts << QString::number(static_cast<unsigned char>(byte));
        return QLatin1Char('[') + parts.join(QLatin1String(", ")) + QLatin1Char(']');
    }
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::UChar:
        return QString::number(value.value<uchar>());
    case QMetaType::Double:
        return QString::number(value.toDouble(), 'g', 17);
    default:
        return value.isValid() ? value.toString() : QStringLiteral("(invalid)");
    }
}

} // namespace

QString dbusSignatureOf(const QVariant &value)
{
    const int type = value.userType();
    if (type == qMetaTypeId<QDBusArgument>())
        return value.value<QDBusArgument>().currentSignature();
    if (type == qMetaTypeId<QDBusVariant>())
        return QStringLiteral("v");
    const char *signature = QDBusMetaType::typeToSignature(type);
    return signature ? QString::fromLatin1(signature) : QStringLiteral("?");
}

QString typedText(const QVariant &value)
{
    return dbusSignatureOf(value) + QLatin1Char(' ') + valueText(value);
}
