#ifndef KEP_SIM_BUSOBJECT_H
#define KEP_SIM_BUSOBJECT_H

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QHash>
#include <QList>
#include <QVariantList>

#include "sim/callrecord.h"

class KepAdaptor;
class KepService;

// The service's object on the bus, /com/calyra/kep.
//
// Every message to the object comes here first, as it arrived: it is
// recorded with its exact signature, then dispatched through the adaptor
// generated from the interface file to the KepService behind it. Methods
// and properties are checked against the adaptor's declarations, so a call
// or a property write of the wrong D-Bus type is refused with the standard
// D-Bus error (QtDBus's own property handling would convert it silently).
// The adaptor's signals go out from here as the interface's signals.
class KepBusObject : public QDBusVirtualObject
{
    Q_OBJECT

public:
    // How the next reads of a property are answered instead of its value.
    struct PropertyAnswer
    {
        enum Kind { RawValue, ErrorReply, NoReply } kind = RawValue;
        QVariant value;        // RawValue: sent as it is, whatever its type
        QString errorName;     // ErrorReply
        QString errorMessage;
    };

    explicit KepBusObject(QObject *parent = nullptr);
    ~KepBusObject() override;

    KepService *service() const { return m_service; }

    // Serves the object and takes the service name on `bus`.
    bool registerOn(const QDBusConnection &bus, QString *error);
    void unregister();

    // Every call that reached the object since the last clear, in order.
    const QList<CallRecord> &calls() const { return m_calls; }
    void clearCalls() { m_calls.clear(); }
    void dropLastCall() { m_calls.removeLast(); }

    void setPropertyAnswer(const QString &property, const PropertyAnswer &answer);
    void clearPropertyAnswers() { m_answers.clear(); }

    // Sends a signal of the interface with whatever arguments are given.
    void sendSignal(const QString &member, const QVariantList &arguments);

    QString introspect(const QString &path) const override;
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override;

signals:
    void callReceived(const CallRecord &call);
    void signalSent(const QString &member, const QVariantList &arguments);

private:
    template <typename... Args>
    void relay(void (KepAdaptor::*signal)(Args...));

    QDBusMessage callMethod(const QDBusMessage &message);
    QDBusMessage getProperty(const QDBusMessage &message, bool *answer);
    QDBusMessage setProperty(const QDBusMessage &message);
    QDBusMessage getAllProperties(const QDBusMessage &message);

    KepService *m_service;
    KepAdaptor *m_adaptor;
    QDBusConnection m_bus;
    QList<CallRecord> m_calls;
    QHash<QString, PropertyAnswer> m_answers;
};

#endif
