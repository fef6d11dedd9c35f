#include "sim/record.h"

#include "service/endpoint.h"
#include "sim/message.h"

namespace {

constexpr gint64 MicrosecondsPerMillisecond = 1000;

// Microseconds as whole milliseconds, rounded to the nearest.
guint roundedMilliseconds(gint64 microseconds)
{
    return guint((microseconds + MicrosecondsPerMillisecond / 2) / MicrosecondsPerMillisecond);
}

} // namespace

Recorder::~Recorder()
{
    g_dbus_connection_remove_filter(m_program, m_filter);
    g_dbus_connection_signal_unsubscribe(m_service, m_signals);
    g_dbus_connection_signal_unsubscribe(m_program, m_departures);
}

void Recorder::start()
{
    m_lastStep = g_get_monotonic_time();
    m_filter = g_dbus_connection_add_filter(m_program, filter, this, nullptr);
    m_signals
        = g_dbus_connection_signal_subscribe(m_service, kep::ServiceName, nullptr, nullptr, kep::ObjectPath,
                                             nullptr, G_DBUS_SIGNAL_FLAGS_NONE, signalled, this, nullptr);
    m_departures = g_dbus_connection_signal_subscribe(
        m_program, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        "/org/freedesktop/DBus", nullptr, G_DBUS_SIGNAL_FLAGS_NONE, departed, this, nullptr);
}

guint Recorder::millisecondsSinceLastStep(gint64 now)
{
    const gint64 microseconds = now - m_lastStep;
    m_lastStep = now;
    return roundedMilliseconds(microseconds);
}

// On GDBus's own thread: every call the program makes is taken over and passed on from the main loop, in
// its turn with the service's signals and answers, which GDBus hands over at the default priority too.
GDBusMessage *Recorder::filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self)
{
    const bool isCall = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
    if (!incoming || !isCall)
        return message;
    auto *call = new Call {static_cast<Recorder *>(self), Object<GDBusMessage>(message), NotRecorded, 0};
    g_idle_add_full(G_PRIORITY_DEFAULT, passOn, call, nullptr);
    return nullptr;
}

gboolean Recorder::passOn(gpointer data)
{
    std::unique_ptr<Call> owned(static_cast<Call *>(data));
    Call &call = *owned;
    Recorder &recorder = *call.recorder;
    GDBusMessage *message = call.message.get();
    const char *path = g_dbus_message_get_path(message);
    const char *interface = g_dbus_message_get_interface(message);
    const char *member = g_dbus_message_get_member(message);
    call.received = g_get_monotonic_time();
    if (g_strcmp0(path, kep::ObjectPath) == 0) { // the service's object: the rest is passed on unrecorded
        Step step;
        step.isCall = true;
        step.member = member;
        step.interface = stepInterface(interface);
        step.args = bodyOf(message);
        step.afterMs = recorder.millisecondsSinceLastStep(call.received);
        call.step = recorder.m_dialog.size();
        recorder.m_dialog.push_back(std::move(step));
    }
    Object<GDBusMessage> onward(g_dbus_message_new_method_call(kep::ServiceName, path, interface, member));
    GVariant *body = g_dbus_message_get_body(message);
    if (body)
        g_dbus_message_set_body(onward.get(), body);
    // No timeout of kep-sim's own: the program's decides how long an answer is waited for.
    g_dbus_connection_send_message_with_reply(recorder.m_service, onward.get(),
                                              G_DBUS_SEND_MESSAGE_FLAGS_NONE, G_MAXINT, nullptr, nullptr,
                                              answered, &call);
    recorder.m_calls.push_back(std::move(owned));
    return G_SOURCE_REMOVE;
}

void Recorder::answered(GObject *service, GAsyncResult *result, gpointer data)
{
    auto &call = *static_cast<Call *>(data);
    g_autoptr(GDBusMessage) answer
        = g_dbus_connection_send_message_with_reply_finish(G_DBUS_CONNECTION(service), result, nullptr);
    if (answer)
        call.recorder->passBack(call, answer); // else the service's bus is gone: no answer came
}

void Recorder::passBack(Call &call, GDBusMessage *answer)
{
    GDBusMessage *message = call.message.get();
    const bool failed = g_dbus_message_get_message_type(answer) == G_DBUS_MESSAGE_TYPE_ERROR;
    const char *errorName = g_dbus_message_get_error_name(answer);
    const char *errorText = g_dbus_message_get_arg0(answer);
    if (!errorText)
        errorText = "";
    Object<GDBusMessage> back;
    if (failed) {
        back.reset(g_dbus_message_new_method_error_literal(message, errorName, errorText));
    } else {
        back.reset(g_dbus_message_new_method_reply(message));
        GVariant *body = g_dbus_message_get_body(answer);
        if (body)
            g_dbus_message_set_body(back.get(), body);
    }
    g_dbus_connection_send_message(m_program, back.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    if (call.step == NotRecorded || m_gone.count(g_dbus_message_get_sender(message)) > 0)
        return;
    Step &step = m_dialog[call.step];
    step.replyMs = roundedMilliseconds(g_get_monotonic_time() - call.received);
    if (failed) {
        step.error = errorName;
        step.message = errorText;
    } else {
        step.reply = bodyOf(answer);
    }
}

void Recorder::signalled(GDBusConnection *, const char *, const char *path, const char *interface,
                         const char *signal, GVariant *args, gpointer self)
{
    auto &recorder = *static_cast<Recorder *>(self);
    g_dbus_connection_emit_signal(recorder.m_program, nullptr, path, interface, signal, args, nullptr);
    Step step;
    step.member = signal;
    step.interface = stepInterface(interface);
    step.args = own(g_variant_ref(args));
    step.afterMs = recorder.millisecondsSinceLastStep(g_get_monotonic_time());
    recorder.m_dialog.push_back(std::move(step));
}

void Recorder::departed(GDBusConnection *, const char *, const char *, const char *, const char *,
                        GVariant *args, gpointer self)
{
    const char *name = "";
    const char *newOwner = "";
    g_variant_get(args, "(&s&s&s)", &name, nullptr, &newOwner);
    if (*newOwner == '\0')
        static_cast<Recorder *>(self)->m_gone.insert(name);
}
