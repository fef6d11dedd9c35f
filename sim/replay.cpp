#include "sim/replay.h"

#include "service/endpoint.h"
#include "sim/format/message.h"
#include "sim/format/secrets.h"

#include <cstdio>
#include <memory>

namespace {

// A dialog that waits this long for its next call, with nothing else to play, is said to be stuck.
constexpr gint64 StuckAfterMicroseconds = G_USEC_PER_SEC;
constexpr guint WatchIntervalMs = 250;
constexpr gint64 MicrosecondsPerMillisecond = 1000;

// The first call from `from` on; the dialog's end when there is none.
size_t nextCall(const Dialog &dialog, size_t from)
{
    size_t at = from;
    while (at < dialog.size() && !dialog[at].isCall)
        at += 1;
    return at;
}

} // namespace

void Replay::start(GDBusConnection *bus)
{
    const std::lock_guard<std::mutex> hold(m_lock);
    m_bus = bus;
    m_nextCall = nextCall(m_dialog, 0);
    m_lastActivity = g_get_monotonic_time();
    playSignals(0);
    if (m_nextCall < m_dialog.size())
        m_timers.after(WatchIntervalMs, [this] { watch(); });
}

// Every WatchIntervalMs, for as long as the dialog has calls to come.
void Replay::watch()
{
    sayIfStuck();
    const std::lock_guard<std::mutex> hold(m_lock);
    if (m_nextCall < m_dialog.size())
        m_timers.after(WatchIntervalMs, [this] { watch(); });
}

// Once for each step the dialog gets stuck at: nothing left to send, no answer the caller waits for, and
// no call for a while.
void Replay::sayIfStuck()
{
    const std::lock_guard<std::mutex> hold(m_lock);
    const bool waiting = m_nextCall < m_dialog.size() && m_pending == 0 && !m_callerWaits;
    const bool quiet = g_get_monotonic_time() - m_lastActivity >= StuckAfterMicroseconds;
    if (!waiting || !quiet || m_saidStuckAt == m_nextCall)
        return;
    m_saidStuckAt = m_nextCall;
    const Step &expected = m_dialog[m_nextCall];
    const std::string expectedArgs = argumentsText(orEmptyTuple(expected.args.get()).get());
    std::fprintf(stderr,
                 "kep-sim: the recording waits for its step %zu, the call %s %s, which has not come\n",
                 m_nextCall + 1, expected.member.c_str(), shown(expectedArgs).c_str());
}

// Runs `action` after `ms` on the main loop, counted as pending until then.
void Replay::afterPending(guint ms, std::function<void()> action)
{
    m_pending += 1;
    m_timers.after(ms, [this, action] {
        action();
        const std::lock_guard<std::mutex> hold(m_lock);
        m_pending -= 1;
        m_lastActivity = g_get_monotonic_time();
    });
}

bool Replay::answered(GDBusMessage *call)
{
    const std::lock_guard<std::mutex> hold(m_lock);
    m_lastActivity = g_get_monotonic_time();
    m_callerWaits = false;
    if (m_nextCall >= m_dialog.size())
        return false;
    const Step &expected = m_dialog[m_nextCall];
    const std::string member = g_dbus_message_get_member(call);
    const Variant args = bodyOf(call);
    const char *interface = g_dbus_message_get_interface(call);
    // Where the recording holds a placeholder for a secret, any value of its type will do.
    const bool sameCall = g_strcmp0(interface, expected.interfaceName().c_str()) == 0
        && member == expected.member && sameCallArguments(expected, args.get());
    if (!sameCall) {
        const std::string expectedArgs = argumentsText(orEmptyTuple(expected.args.get()).get());
        std::fprintf(stderr, "kep-sim: the recording expects %s %s, got %s %s\n", expected.member.c_str(),
                     expectedArgs.c_str(), member.c_str(), argumentsText(args.get()).c_str());
        return false;
    }
    const size_t at = m_nextCall;
    m_nextCall = nextCall(m_dialog, at + 1);
    answer(expected, call);
    playSignals(at + 1);
    return true;
}

void Replay::answer(const Step &step, GDBusMessage *call)
{
    if (!step.answered()) { // the caller waits for its own timeout
        m_callerWaits = true;
        return;
    }
    std::shared_ptr<GDBusMessage> answer;
    if (!step.error.empty()) {
        GDBusMessage *error
            = g_dbus_message_new_method_error_literal(call, step.error.c_str(), step.message.c_str());
        answer.reset(error, g_object_unref);
    } else {
        answer.reset(g_dbus_message_new_method_reply(call), g_object_unref);
        g_dbus_message_set_body(answer.get(), step.reply.get()); // as recorded, whatever its type
    }
    GDBusConnection *bus = m_bus;
    afterPending(step.replyMs, [bus, answer] {
        g_dbus_connection_send_message(bus, answer.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    });
}

// The signals from step `from` on, up to the next call, each its after-ms after the one before. Their
// times are counted from the first, so that a long run of them keeps its pace.
void Replay::playSignals(size_t from)
{
    const size_t end = nextCall(m_dialog, from);
    if (end == from)
        return;
    m_pending += end - from;
    const SignalRun signals {from, end, g_get_monotonic_time(), 0};
    m_timers.after(0, [this, signals] { playDue(signals); });
}

// On the main loop: the signals of the run that are due, then a wait for the next.
void Replay::playDue(SignalRun signals)
{
    while (signals.next < signals.end) {
        const Step &step = m_dialog[signals.next];
        const gint64 dueMs = signals.playedMs + step.afterMs;
        const gint64 waitMicroseconds
            = signals.start + dueMs * MicrosecondsPerMillisecond - g_get_monotonic_time();
        if (waitMicroseconds > 0) {
            const guint waitMs
                = guint((waitMicroseconds + MicrosecondsPerMillisecond - 1) / MicrosecondsPerMillisecond);
            m_timers.after(waitMs, [this, signals] { playDue(signals); });
            return;
        }
        signals.playedMs = dueMs;
        signals.next += 1;
        const Variant args = orEmptyTuple(step.args.get());
        g_dbus_connection_emit_signal(m_bus, nullptr, kep::ObjectPath, step.interfaceName().c_str(),
                                      step.member.c_str(), args.get(), nullptr);
        const std::lock_guard<std::mutex> hold(m_lock);
        m_pending -= 1;
        m_lastActivity = g_get_monotonic_time();
    }
}
