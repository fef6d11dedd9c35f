// Playing a recorded dialog: the program's calls are answered as the service answered them, for as long as
// they come in the recorded order, and the service's signals follow at their recorded delays. A call that
// is not the dialog's next one is named, and the simulated service answers it; the dialog then still
// waits for the call it expected. Once the dialog is played, the simulated service answers everything.
#include "sim/service.h"

#include "service/endpoint.h"

#include <cstdio>
#include <memory>

namespace {

// The first call from `from` on; the dialog's end when there is none.
size_t nextCall(const Dialog &dialog, size_t from)
{
    while (from < dialog.size() && !dialog[from].isCall)
        from += 1;
    return from;
}

std::string interfaceOf(const Step &step)
{
    if (step.interface.empty())
        return kep::InterfaceName;
    return step.interface;
}

std::string argsOf(const Step &step)
{
    if (!step.args)
        return "()";
    return text(step.args.get());
}

std::string argsOf(GDBusMessage *call)
{
    GVariant *body = g_dbus_message_get_body(call);
    if (!body)
        return "()";
    return text(body);
}

} // namespace

void Service::startReplay()
{
    const std::lock_guard<std::mutex> hold(m_replayLock);
    m_nextCall = nextCall(m_state.dialog, 0);
    play(0);
}

bool Service::replayed(GDBusMessage *call)
{
    const std::lock_guard<std::mutex> hold(m_replayLock);
    const Dialog &dialog = m_state.dialog;
    if (m_nextCall >= dialog.size())
        return false;
    const Step &expected = dialog[m_nextCall];
    const std::string member = g_dbus_message_get_member(call), args = argsOf(call);
    const bool same = g_strcmp0(g_dbus_message_get_interface(call), interfaceOf(expected).c_str()) == 0
        && member == expected.member && args == argsOf(expected);
    if (!same) {
        std::fprintf(stderr, "kep-sim: the recording expects %s %s, got %s %s\n", expected.member.c_str(),
                     argsOf(expected).c_str(), member.c_str(), args.c_str());
        return false;
    }
    const size_t at = m_nextCall;
    m_nextCall = nextCall(dialog, at + 1);
    answer(expected, call);
    play(at + 1);
    return true;
}

void Service::answer(const Step &step, GDBusMessage *call)
{
    if (!step.answered()) { // the caller waits for its own timeout
        m_unansweredReplays.emplace_back(G_DBUS_MESSAGE(g_object_ref(call)));
        return;
    }
    std::shared_ptr<GDBusMessage> answer;
    if (!step.error.empty()) {
        answer.reset(g_dbus_message_new_method_error_literal(call, step.error.c_str(), step.message.c_str()),
                     g_object_unref);
    } else {
        answer.reset(g_dbus_message_new_method_reply(call), g_object_unref);
        g_dbus_message_set_body(answer.get(), step.reply.get()); // as recorded, whatever its type
    }
    later(step.replyMs, [this, answer] {
        g_dbus_connection_send_message(m_bus, answer.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    });
}

void Service::play(size_t from)
{
    const Dialog &dialog = m_state.dialog;
    guint delay = 0;
    for (size_t at = from; at < dialog.size() && !dialog[at].isCall; ++at) {
        const Step &step = dialog[at];
        delay += step.afterMs;
        later(delay, [this, &step] {
            GVariant *args = step.args.get();
            if (!args)
                args = g_variant_new("()");
            g_dbus_connection_emit_signal(m_bus, nullptr, kep::ObjectPath, interfaceOf(step).c_str(),
                                          step.member.c_str(), args, nullptr);
        });
    }
}
