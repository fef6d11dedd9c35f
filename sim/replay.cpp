#include "sim/replay.h"

#include "service/endpoint.h"
#include "sim/bus.h"
#include "sim/message.h"

#include <cstdio>
#include <memory>

namespace {

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
    playSignals(0);
}

bool Replay::answered(GDBusMessage *call)
{
    const std::lock_guard<std::mutex> hold(m_lock);
    if (m_nextCall >= m_dialog.size())
        return false;
    const Step &expected = m_dialog[m_nextCall];
    const std::string member = g_dbus_message_get_member(call);
    const std::string args = text(bodyOf(call).get());
    const std::string expectedArgs = text(orEmptyTuple(expected.args.get()).get());
    const char *interface = g_dbus_message_get_interface(call);
    const bool sameCall = g_strcmp0(interface, expected.interfaceName().c_str()) == 0
        && member == expected.member && args == expectedArgs;
    if (!sameCall) {
        std::fprintf(stderr, "kep-sim: the recording expects %s %s, got %s %s\n", expected.member.c_str(),
                     expectedArgs.c_str(), member.c_str(), args.c_str());
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
        m_unanswered.emplace_back(G_DBUS_MESSAGE(g_object_ref(call)));
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
    later(step.replyMs, [bus, answer] {
        g_dbus_connection_send_message(bus, answer.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    });
}

void Replay::playSignals(size_t from)
{
    guint delay = 0;
    GDBusConnection *bus = m_bus;
    for (size_t at = from; at < m_dialog.size() && !m_dialog[at].isCall; ++at) {
        const Step &step = m_dialog[at];
        delay += step.afterMs;
        later(delay, [bus, &step] {
            const Variant args = orEmptyTuple(step.args.get());
            g_dbus_connection_emit_signal(bus, nullptr, kep::ObjectPath, step.interfaceName().c_str(),
                                          step.member.c_str(), args.get(), nullptr);
        });
    }
}
