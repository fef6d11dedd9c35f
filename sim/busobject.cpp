#include "sim/busobject.h"

#include "kep_adaptor.h"
#include "service/endpoint.h"
#include "sim/kepservice.h"

#include <QDBusMetaType>
#include <QMetaMethod>
#include <QMetaProperty>

#include <type_traits>

namespace {

const QString PropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString IntrospectableInterface = QStringLiteral("org.freedesktop.DBus.Introspectable");

QString signatureOfType(int type)
{
    const char *signature = QDBusMetaType::typeToSignature(type);
    return signature ? QString::fromLatin1(signature) : QString();
}

// A value off the bus in the Qt type the adaptor expects: containers arrive
// still encoded and are decoded here; their signature was checked already.
QVariant toType(const QVariant &value, int type)
{
    if (value.userType() != qMetaTypeId<QDBusArgument>() || type == qMetaTypeId<QDBusArgument>())
        return value;
    QVariant decoded(type, nullptr);
    QDBusMetaType::demarshall(value.value<QDBusArgument>(), type, decoded.data());
    return decoded;
}

} // namespace

KepBusObject::KepBusObject(QObject *parent)
    : QDBusVirtualObject(parent)
    , m_service(new KepService(this))
    , m_adaptor(new KepAdaptor(m_service))
    , m_bus(QString())
{
    relay(&KepAdaptor::AddressesChanged);
    relay(&KepAdaptor::AuthError);
    relay(&KepAdaptor::CableStatus);
    relay(&KepAdaptor::Connected);
    relay(&KepAdaptor::Disconnected);
    relay(&KepAdaptor::Disconnecting);
    relay(&KepAdaptor::Error);
    relay(&KepAdaptor::InterfaceStatusChanged);
    relay(&KepAdaptor::ScanResults);
    relay(&KepAdaptor::Started);
    relay(&KepAdaptor::WpsCredentials);
    relay(&KepAdaptor::WpsError);
}

KepBusObject::~KepBusObject()
{
    unregister();
}

template <typename... Args>
void KepBusObject::relay(void (KepAdaptor::*signal)(Args...))
{
    const QString member = QString::fromLatin1(QMetaMethod::fromSignal(signal).name());
    connect(m_adaptor, signal, this, [this, member](Args... arguments) {
        sendSignal(member, {QVariant::fromValue(std::decay_t<Args>(arguments))...});
    });
}

bool KepBusObject::registerOn(const QDBusConnection &bus, QString *error)
{
    m_bus = bus;
    if (!m_bus.registerVirtualObject(QString::fromLatin1(kep::ObjectPath), this)) {
        *error = QStringLiteral("cannot serve the object ") + QLatin1String(kep::ObjectPath);
        return false;
    }
    if (!m_bus.registerService(QString::fromLatin1(kep::ServiceName))) {
        *error = m_bus.lastError().message();
        m_bus.unregisterObject(QString::fromLatin1(kep::ObjectPath));
        return false;
    }
    return true;
}

void KepBusObject::unregister()
{
    if (!m_bus.isConnected())
        return;
    m_bus.unregisterService(QString::fromLatin1(kep::ServiceName));
    m_bus.unregisterObject(QString::fromLatin1(kep::ObjectPath));
    m_bus = QDBusConnection(QString());
}

void KepBusObject::setPropertyAnswer(const QString &property, const PropertyAnswer &answer)
{
    m_answers.insert(property, answer);
}

void KepBusObject::sendSignal(const QString &member, const QVariantList &arguments)
{
    QDBusMessage message = QDBusMessage::createSignal(QString::fromLatin1(kep::ObjectPath),
                                                      QString::fromLatin1(kep::InterfaceName), member);
    message.setArguments(arguments);
    m_bus.send(message);
    emit signalSent(member, arguments);
}

QString KepBusObject::introspect(const QString &) const
{
    const QMetaObject *meta = m_adaptor->metaObject();
    return QString::fromUtf8(meta->classInfo(meta->indexOfClassInfo("D-Bus Introspection")).value());
}

bool KepBusObject::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    const QString interface = message.interface();
    if (interface == IntrospectableInterface)
        return false; // QtDBus answers from introspect()

    const CallRecord call = CallRecord::fromMessage(message);
    m_calls.append(call);
    emit callReceived(call);

    QDBusMessage reply;
    bool answer = true;
    if (interface == PropertiesInterface) {
        if (message.member() == QLatin1String("Get") && message.signature() == QLatin1String("ss"))
            reply = getProperty(message, &answer);
        else if (message.member() == QLatin1String("Set") && message.signature() == QLatin1String("ssv"))
            reply = setProperty(message);
        else if (message.member() == QLatin1String("GetAll") && message.signature() == QLatin1String("s"))
            reply = getAllProperties(message);
        else
            reply = message.createErrorReply(QDBusError::UnknownMethod,
                                             QStringLiteral("No such method ") + message.member()
                                                 + QStringLiteral(" with signature ") + message.signature());
    } else if (interface.isEmpty() || interface == QLatin1String(kep::InterfaceName)) {
        reply = callMethod(message);
    } else {
        reply = message.createErrorReply(QDBusError::UnknownInterface,
                                         QStringLiteral("No such interface ") + interface);
    }
    if (answer && message.isReplyRequired())
        connection.send(reply);
    return true;
}

QDBusMessage KepBusObject::callMethod(const QDBusMessage &message)
{
    const QMetaObject *meta = m_adaptor->metaObject();
    const QByteArray name = message.member().toLatin1();
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        const QMetaMethod method = meta->method(i);
        if (method.methodType() != QMetaMethod::Slot || method.name() != name)
            continue;

        QString signature;
        for (int p = 0; p < method.parameterCount(); ++p)
            signature += signatureOfType(method.parameterType(p));
        if (signature != message.signature())
            return message.createErrorReply(QDBusError::InvalidArgs,
                                            QStringLiteral("%1 takes (%2), not (%3)")
                                                .arg(message.member(), signature, message.signature()));

        QVariantList arguments;
        for (int p = 0; p < method.parameterCount(); ++p)
            arguments << toType(message.arguments().at(p), method.parameterType(p));
        QGenericArgument generic[2];
        for (int p = 0; p < arguments.size() && p < 2; ++p)
            generic[p] = QGenericArgument(arguments[p].typeName(), arguments[p].constData());

        QVariant result;
        if (method.returnType() != QMetaType::Void)
            result = QVariant(method.returnType(), nullptr);
        method.invoke(m_adaptor, Qt::DirectConnection,
                      QGenericReturnArgument(result.isValid() ? method.typeName() : nullptr,
                                             result.isValid() ? result.data() : nullptr),
                      generic[0], generic[1]);
        return message.createReply(result.isValid() ? QVariantList{result} : QVariantList{});
    }
    return message.createErrorReply(QDBusError::UnknownMethod,
                                    QStringLiteral("No such method ") + message.member());
}

QDBusMessage KepBusObject::getProperty(const QDBusMessage &message, bool *answer)
{
    const QString interface = message.arguments().at(0).toString();
    const QString name = message.arguments().at(1).toString();
    if (!interface.isEmpty() && interface != QLatin1String(kep::InterfaceName))
        return message.createErrorReply(QDBusError::UnknownInterface,
                                        QStringLiteral("No such interface ") + interface);

    const auto special = m_answers.constFind(name);
    if (special != m_answers.constEnd()) {
        switch (special->kind) {
        case PropertyAnswer::NoReply:
            *answer = false;
            return {};
        case PropertyAnswer::ErrorReply:
            return message.createErrorReply(special->errorName, special->errorMessage);
        case PropertyAnswer::RawValue:
            return message.createReply(QVariant::fromValue(QDBusVariant(special->value)));
        }
    }

    const int index = m_adaptor->metaObject()->indexOfProperty(name.toLatin1().constData());
    if (index < QObject::staticMetaObject.propertyCount())
        return message.createErrorReply(QDBusError::UnknownProperty, QStringLiteral("No such property ") + name);
    const QVariant value = m_adaptor->metaObject()->property(index).read(m_adaptor);
    return message.createReply(QVariant::fromValue(QDBusVariant(value)));
}

QDBusMessage KepBusObject::setProperty(const QDBusMessage &message)
{
    const QString interface = message.arguments().at(0).toString();
    const QString name = message.arguments().at(1).toString();
    if (!interface.isEmpty() && interface != QLatin1String(kep::InterfaceName))
        return message.createErrorReply(QDBusError::UnknownInterface,
                                        QStringLiteral("No such interface ") + interface);

    const int index = m_adaptor->metaObject()->indexOfProperty(name.toLatin1().constData());
    if (index < QObject::staticMetaObject.propertyCount())
        return message.createErrorReply(QDBusError::UnknownProperty, QStringLiteral("No such property ") + name);
    const QMetaProperty property = m_adaptor->metaObject()->property(index);
    if (!property.isWritable())
        return message.createErrorReply(QDBusError::PropertyReadOnly,
                                        QStringLiteral("Property ") + name + QStringLiteral(" is read-only"));

    const QVariant value = message.arguments().at(2).value<QDBusVariant>().variant();
    const QString expected = signatureOfType(property.userType());
    const QString given = dbusSignatureOf(value);
    if (given != expected)
        return message.createErrorReply(QDBusError::InvalidArgs,
                                        QStringLiteral("Property %1 has type %2, not %3").arg(name, expected, given));
    property.write(m_adaptor, toType(value, property.userType()));
    return message.createReply();
}

QDBusMessage KepBusObject::getAllProperties(const QDBusMessage &message)
{
    const QString interface = message.arguments().at(0).toString();
    if (!interface.isEmpty() && interface != QLatin1String(kep::InterfaceName))
        return message.createErrorReply(QDBusError::UnknownInterface,
                                        QStringLiteral("No such interface ") + interface);
    QVariantMap all;
    const QMetaObject *meta = m_adaptor->metaObject();
    for (int i = meta->propertyOffset(); i < meta->propertyCount(); ++i)
        all.insert(QString::fromLatin1(meta->property(i).name()), meta->property(i).read(m_adaptor));
    return message.createReply(QVariant::fromValue(all));
}
