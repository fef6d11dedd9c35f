#include "sim/record.h"

#include "service/endpoint.h"
#include "sim/format/message.h"
#include "sim/format/playable.h"

namespace {

constexpr gint64 MicrosecondsPerMillisecond = 1000;

// How often the recording is put on the disk, and the calls still unanswered looked at.
constexpr guint TickSeconds = 1;

// A call the service has not answered in this long, D-Bus's default timeout, is written as one it never
// answered: the steps after it wait no longer.
constexpr gint64 CallLimitMicroseconds = 25 * G_USEC_PER_SEC;

// What a call is answered with once the service's bus has gone, as a client on that bus would be.
const char DisconnectedError[] = "org.freedesktop.DBus.Error.Disconnected";

// Microseconds as whole milliseconds, rounded to the nearest.
guint64 roundedMilliseconds(gint64 microseconds)
{
    return guint64((microseconds + MicrosecondsPerMillisecond / 2) / MicrosecondsPerMillisecond);
}

// A value of `step` that a replay could not play, its arguments or reply, is left out, and the step says
// why: the session is written whole all the same.
void leaveOutUnplayable(Step &step, Variant &value)
{
    const std::string problem = bodyProblem(value.get());
    if (problem.empty())
        return;
    step.unplayable = problem;
    value.reset();
}

} // namespace

Recorder::~Recorder()
{
    if (m_filter)
        g_dbus_connection_remove_filter(m_program, m_filter);
    if (m_signals)
        g_dbus_connection_signal_unsubscribe(m_service, m_signals);
    if (m_closedHandler)
        g_signal_handler_disconnect(m_service, m_closedHandler);
    if (m_ticks)
        g_source_remove(m_ticks);
}

bool Recorder::start()
{
    m_start = g_get_monotonic_time();
    if (!m_output.append(recordingHead()))
        return false;
    m_filter = g_dbus_connection_add_filter(m_program, filter, this, nullptr);
    m_signals
        = g_dbus_connection_signal_subscribe(m_service, kep::ServiceName, nullptr, nullptr, kep::ObjectPath,
                                             nullptr, G_DBUS_SIGNAL_FLAGS_NONE, signalled, this, nullptr);
    m_closedHandler = g_signal_connect_swapped(m_service, "closed", G_CALLBACK(serviceClosed), this);
    m_ticks = g_timeout_add_seconds(TickSeconds, tick, this);
    return true;
}

// On GDBus's own thread: every call the program makes is taken over and passed on from the main loop, in
// its turn with the service's signals and answers, which GDBus hands over at the default priority too.
GDBusMessage *Recorder::filter(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer self)
{
    const bool isCall = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
    if (!incoming || !isCall)
        return message;
    auto *call = new Call {static_cast<Recorder *>(self), Object<GDBusMessage>(message), false, 0, 0};
    g_idle_add_full(G_PRIORITY_DEFAULT, passOn, call, nullptr);
    return nullptr;
}

gboolean Recorder::passOn(gpointer data)
{
    std::unique_ptr<Call> call(static_cast<Call *>(data));
    Recorder &recorder = *call->recorder;
    GDBusMessage *message = call->message.get();
    const char *path = g_dbus_message_get_path(message);
    const char *interface = g_dbus_message_get_interface(message);
    const char *member = g_dbus_message_get_member(message);
    call->received = g_get_monotonic_time();
    call->recorded = g_strcmp0(path, kep::ObjectPath) == 0; // the rest is passed on unrecorded
    if (call->recorded) {
        Step step;
        step.isCall = true;
        step.member = member;
        step.interface = stepInterface(interface);
        step.args = bodyOf(message);
        leaveOutUnplayable(step, step.args);
        call->sequence = recorder.m_firstPending + recorder.m_pending.size();
        recorder.add(std::move(step), call->received, false);
    }
    Object<GDBusMessage> onward(g_dbus_message_new_method_call(kep::ServiceName, path, interface, member));
    GVariant *body = g_dbus_message_get_body(message);
    if (body)
        g_dbus_message_set_body(onward.get(), body);
    g_dbus_message_set_unix_fd_list(onward.get(), g_dbus_message_get_unix_fd_list(message));
    // No timeout of kep-sim's own: the program's decides how long an answer is waited for.
    g_dbus_connection_send_message_with_reply(recorder.m_service, onward.get(),
                                              G_DBUS_SEND_MESSAGE_FLAGS_NONE, G_MAXINT, nullptr, nullptr,
                                              answered, call.release());
    return G_SOURCE_REMOVE;
}

void Recorder::answered(GObject *service, GAsyncResult *result, gpointer data)
{
    std::unique_ptr<Call> call(static_cast<Call *>(data));
    g_autoptr(GError) error = nullptr;
    g_autoptr(GDBusMessage) answer
        = g_dbus_connection_send_message_with_reply_finish(G_DBUS_CONNECTION(service), result, &error);
    if (!answer) { // the service's bus is gone
        call->recorder->serviceGone();
        answer
            = g_dbus_message_new_method_error_literal(call->message.get(), DisconnectedError, error->message);
    }
    call->recorder->passBack(*call, answer);
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
    // An answer after the call was written as never answered is not recorded.
    if (!call.recorded || call.sequence < m_firstPending)
        return;
    Pending &pending = m_pending[call.sequence - m_firstPending];
    Step &step = pending.step;
    step.replyMs = guint(roundedMilliseconds(g_get_monotonic_time() - call.received));
    if (failed) {
        step.error = errorName;
        step.message = errorText;
    } else {
        step.reply = bodyOf(answer);
        leaveOutUnplayable(step, step.reply);
    }
    pending.whole = true;
    writeWhole();
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
    leaveOutUnplayable(step, step.args);
    recorder.add(std::move(step), g_get_monotonic_time(), true);
}

void Recorder::serviceClosed(Recorder *recorder)
{
    recorder->serviceGone();
}

void Recorder::serviceGone()
{
    if (m_serviceGone)
        return;
    m_serviceGone = true;
    fail(std::string("the service's bus has gone away; calls are answered with ") + DisconnectedError);
}

void Recorder::begin()
{
    if (!m_output.place())
        m_writeFailed = true;
}

gboolean Recorder::tick(gpointer self)
{
    auto &recorder = *static_cast<Recorder *>(self);
    const gint64 now = g_get_monotonic_time() - recorder.m_start;
    for (Pending &pending : recorder.m_pending) {
        if (now - pending.at < CallLimitMicroseconds)
            break; // the steps after it came later still
        pending.whole = true;
    }
    recorder.writeWhole();
    if (!recorder.m_writeFailed && !recorder.m_output.sync())
        recorder.m_writeFailed = true;
    return G_SOURCE_CONTINUE;
}

void Recorder::add(Step step, gint64 now, bool whole)
{
    m_pending.push_back(Pending {std::move(step), now - m_start, whole});
    writeWhole();
}

// The steps that are whole, up to the first that is not, in the order they came.
void Recorder::writeWhole()
{
    while (!m_pending.empty() && m_pending.front().whole) {
        Pending &pending = m_pending.front();
        // Each step's time is rounded from the start, so that the delays add up to the session's length.
        const guint64 stepMs = roundedMilliseconds(pending.at);
        pending.step.afterMs = guint(stepMs - m_lastStepMs);
        m_lastStepMs = stepMs;
        write(pending.step);
        m_pending.pop_front();
        m_firstPending += 1;
    }
}

void Recorder::write(const Step &step)
{
    if (m_writeFailed)
        return;
    const bool first = !m_wroteStep;
    m_wroteStep = true;
    std::string line;
    if (m_keepSecrets)
        line = recordingStep(step, first);
    else
        line = recordingStep(m_remover.removedFrom(step), first);
    if (!m_output.append(line))
        m_writeFailed = true;
}

bool Recorder::finish(const std::vector<Entry> &properties)
{
    g_source_remove(m_ticks);
    m_ticks = 0;
    for (Pending &pending : m_pending)
        pending.whole = true;
    writeWhole();
    // Every secret of the state is known before any of it is written.
    if (!m_keepSecrets) {
        for (const Entry &property : properties)
            m_remover.learnFrom(property.first, property.second.get());
    }
    std::vector<Entry> state;
    for (const Entry &property : properties) {
        Variant value;
        if (m_keepSecrets)
            value = own(g_variant_ref(property.second.get()));
        else
            value = m_remover.removedFrom(property.first, property.second.get());
        state.emplace_back(property.first, std::move(value));
    }
    if (m_writeFailed)
        return false;
    // The whole recording, put in place at once.
    OutputFile whole(m_output.path());
    if (!whole.create())
        return false;
    bool copied = false;
    if (m_keepSecrets)
        copied = whole.appendCopyOf(m_output);
    else
        copied = appendCleanedSteps(whole);
    if (!copied || !whole.append(recordingTail(state)))
        return false;
    return whole.place();
}

// The steps as written while the session went, read back one by one, with every secret the session
// revealed since taken out of their texts too.
bool Recorder::appendCleanedSteps(OutputFile &whole)
{
    if (!whole.append(recordingHead()))
        return false;
    const std::string_view stepStart = "    {";
    bool first = true;
    bool appended = true;
    const auto clean = [&](std::string_view line) {
        if (line.substr(0, stepStart.size()) != stepStart)
            return true; // the recording's head
        std::string_view stepText = line.substr(stepStart.size() - 1);
        if (!stepText.empty() && stepText.back() == ',')
            stepText.remove_suffix(1);
        Step step;
        std::string problem;
        if (!readRecordingStep(stepText, step, problem)) {
            fail("cannot read back " + shown(m_output.path()) + ": " + problem);
            return false; // and so is readLines()
        }
        appended = whole.append(recordingStep(m_remover.textsRemovedFrom(step), first));
        first = false;
        return appended;
    };
    return m_output.readLines(clean) && appended;
}
