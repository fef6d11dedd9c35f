// The least a Qt D-Bus client does to show Details: a QCoreApplication, the
// system bus connection, one Properties.Get call, and with "print" one
// qDebug() line (the first message sets up Qt's logging).
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDebug>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("com.calyra.kep"), QStringLiteral("/com/calyra/kep"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << QStringLiteral("com.calyra.kep") << QStringLiteral("Details");
    const QDBusMessage reply = QDBusConnection::systemBus().call(call);
    if (argc > 1 && qstrcmp(argv[1], "print") == 0)
        qDebug() << "arguments:" << reply.arguments().size();
    return reply.type() == QDBusMessage::ReplyMessage ? 0 : 1;
}
