#include "client/reports/valueprinter.h"

#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QDebug>
#include <QStringList>

ValueKind kindOf(const QVariant &value)
{
    if (value.canConvert<QDBusArgument>())
        return ValueKind::Wrapped;
    if (value.canConvert<QString>())
        return ValueKind::Text;
    return ValueKind::Other;
}

QString textOf(const QVariant &value)
{
    return value.toString(); // the empty string when there is no conversion
}

namespace {

QString keyText(const QVariant &key)
{
    if (key.userType() == qMetaTypeId<QDBusObjectPath>())
        return key.value<QDBusObjectPath>().path();
    if (key.userType() == qMetaTypeId<QDBusSignature>())
        return key.value<QDBusSignature>().signature();
    return key.toString();
}

QVariant unwrapVariant(const QVariant &value)
{
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return value.value<QDBusVariant>().variant();
    return value;
}

// A string as the debug stream writes a QString: quoted and escaped.
QString quoted(const QString &text)
{
    QString out;
    QDebug(&out) << text;
    return out.trimmed();
}

QString joinedElements(const QDBusArgument &argument)
{
    QStringList parts;
    while (!argument.atEnd())
        parts << inlineText(argument.asVariant());
    return parts.join(QLatin1String(", "));
}

QString inlineContainer(const QDBusArgument &argument)
{
    switch (argument.currentType()) {
    case QDBusArgument::MapType: {
        QStringList parts;
        argument.beginMap();
        while (!argument.atEnd()) {
            argument.beginMapEntry();
            const QString key = inlineText(argument.asVariant());
            parts << key + QLatin1String(": ") + inlineText(argument.asVariant());
            argument.endMapEntry();
        }
        argument.endMap();
        return QLatin1Char('{') + parts.join(QLatin1String(", ")) + QLatin1Char('}');
    }
    case QDBusArgument::ArrayType: {
        argument.beginArray();
        const QString elements = joinedElements(argument);
        argument.endArray();
        return QLatin1Char('[') + elements + QLatin1Char(']');
    }
    case QDBusArgument::StructureType: {
        argument.beginStructure();
        const QString elements = joinedElements(argument);
        argument.endStructure();
        return QLatin1Char('(') + elements + QLatin1Char(')');
    }
    default:
        return inlineText(argument.asVariant());
    }
}

} // namespace

QString inlineText(const QVariant &value)
{
    const int type = value.userType();
    if (type == qMetaTypeId<QDBusArgument>())
        return inlineContainer(value.value<QDBusArgument>());
    if (type == qMetaTypeId<QDBusVariant>())
        return QLatin1Char('<') + inlineText(value.value<QDBusVariant>().variant()) + QLatin1Char('>');
    if (type == qMetaTypeId<QDBusObjectPath>())
        return QLatin1String("ObjectPath(") + quoted(value.value<QDBusObjectPath>().path())
            + QLatin1Char(')');
    if (type == qMetaTypeId<QDBusSignature>())
        return QLatin1String("Signature(") + quoted(value.value<QDBusSignature>().signature())
            + QLatin1Char(')');
    if (type == QMetaType::QStringList) {
        QStringList parts;
        for (const QString &s : value.toStringList())
            parts << quoted(s);
        return QLatin1Char('[') + parts.join(QLatin1String(", ")) + QLatin1Char(']');
    }
    if (type == QMetaType::QByteArray) {
        QStringList parts;
        for (const char byte : value.toByteArray())
            parts << QString::number(static_cast<unsigned char>(byte));
        return QLatin1Char('[') + parts.join(QLatin1String(", ")) + QLatin1Char(']');
    }
    if (type == QMetaType::QString)
        return quoted(value.toString());
    if (type == QMetaType::UChar)
        return QString::number(value.value<uchar>());
    if (!value.isValid())
        return QStringLiteral("Invalid");
    return value.toString();
}

bool readDictionary(const QDBusArgument &argument, QVariantMap &entries)
{
    if (argument.currentType() != QDBusArgument::MapType)
        return false;
    argument.beginMap();
    while (!argument.atEnd()) {
        argument.beginMapEntry();
        const QString key = keyText(argument.asVariant());
        // As QtDBus's own extraction into a map does: a repeated key is added.
        QT_WARNING_PUSH
        QT_WARNING_DISABLE_DEPRECATED
        entries.insertMulti(key, unwrapVariant(argument.asVariant()));
        QT_WARNING_POP
        argument.endMapEntry();
    }
    argument.endMap();
    return true;
}

void printDBusMap(const QDBusArgument &map, int depth)
{
    const QByteArray tabs(qMax(depth, 0), '\t');
    QVariantMap entries;
    if (!readDictionary(map, entries)) {
        // Written as plain text: the stream quotes only QString items.
        qDebug() << tabs.constData() << inlineContainer(map).toUtf8().constData();
        return;
    }
    // keys() repeats a key that came twice; value() gives its later value.
    const QStringList keys = entries.keys();
    for (const QString &key : keys) {
        const QVariant value = entries.value(key);
        switch (kindOf(value)) {
        case ValueKind::Wrapped:
            qDebug() << tabs.constData() << key << " -> ";
            printDBusMap(value.value<QDBusArgument>(), depth + 1);
            break;
        case ValueKind::Text:
            qDebug() << tabs.constData() << key << "=" << textOf(value);
            break;
        case ValueKind::Other:
            qDebug() << tabs.constData() << key << "=" << value;
            break;
        }
    }
}
