// The least a Qt D-Bus client does to show Details: a QCoreApplication, the
// system bus connection, one Properties.Get call, and with "print" one
// qDebug() line (the first message sets up Qt's logging). "proxy" also
// creates a proxy of the service on the bus before the call, as kepclient
// does: QDBusAbstractInterface asks the bus for the name's owner (a blocking
// GetNameOwner) and watches it (a match rule for NameOwnerChanged).
#include <QCoreApplication>
#include <QDBusAbstractInterface>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDebug>

#include <memory>

namespace {
struct Proxy : QDBusAbstractInterface {
    Proxy()
        : QDBusAbstractInterface(QStringLiteral("com.calyra.kep"), QStringLiteral("/com/calyra/kep"),
                                 "com.calyra.kep", QDBusConnection::systemBus(), nullptr)
    { }
};
} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QByteArray mode = argc > 1 ? argv[1] : "get";
    std::unique_ptr<Proxy> proxy;
    if (mode == "proxy")
        proxy.reset(new Proxy);
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("com.calyra.kep"), QStringLiteral("/com/calyra/kep"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << QStringLiteral("com.calyra.kep") << QStringLiteral("Details");
    const QDBusMessage reply = QDBusConnection::systemBus().call(call);
    if (mode == "print" || mode == "proxy")
        qDebug() << "arguments:" << reply.arguments().size();
    return reply.type() == QDBusMessage::ReplyMessage ? 0 : 1;
}
