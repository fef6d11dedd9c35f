#include "sim/service.h"

#include "service/endpoint.h"
#include "sim/format/interface.h"
#include "sim/format/message.h"
#include "sim/format/playable.h"

#include <cstdio>

namespace {

const std::string_view Kep = kep::InterfaceName;
const std::string_view Properties = "org.freedesktop.DBus.Properties";
const std::string_view Introspectable = "org.freedesktop.DBus.Introspectable";
const std::string_view Peer = "org.freedesktop.DBus.Peer";

// The calls the control interface lists: the latest this many, and this many bytes of their texts, so that
// a service left running for days keeps its size.
constexpr size_t MaxCallsKept = 1000;
constexpr size_t MaxCallsBytes = 1024 * 1024;

// Reads left unanswered on purpose: the oldest is answered with NoReply past this many.
constexpr size_t MaxUnanswered = 1000;

// The error in place of a reply the bus would not carry.
const char LimitsExceeded[] = "org.freedesktop.DBus.Error.LimitsExceeded";

// What GDBus will make of a call, judged before any handler sees it.
enum class Judgement { Accepted, Refused, ReadOnly };

Judgement acceptedIf(bool accepted)
{
    if (accepted)
        return Judgement::Accepted;
    return Judgement::Refused;
}

// A method of the service's interface or of the control interface, with the arguments it declares.
Judgement judgeMethod(std::string_view interface, const std::string &member, std::string_view signature)
{
    GDBusInterfaceInfo *info = simInterface();
    if (interface == Kep)
        info = kepInterface();
    const GDBusMethodInfo *method = g_dbus_interface_info_lookup_method(info, member.c_str());
    if (!method)
        return Judgement::Refused;
    std::string declared;
    for (GDBusArgInfo **arg = method->in_args; arg && *arg; ++arg)
        declared += (*arg)->signature;
    return acceptedIf(signature == declared);
}

// Get, Set and GetAll of a property the service's interface declares, with a value of its type. A write
// of a read-only property is judged apart: GDBus would answer it with InvalidArgs.
Judgement judgeProperties(const std::string &member, std::string_view signature, GVariant *body)
{
    const char *interface = "";
    const char *name = "";
    if (member == "GetAll" && signature == "s") {
        g_variant_get(body, "(&s)", &interface);
        return acceptedIf(interface == Kep || interface == std::string_view(SimInterfaceName));
    }
    const bool isGet = member == "Get" && signature == "ss";
    const bool isSet = member == "Set" && signature == "ssv";
    if (!isGet && !isSet)
        return Judgement::Refused;
    g_variant_get_child(body, 0, "&s", &interface);
    g_variant_get_child(body, 1, "&s", &name);
    const GDBusPropertyInfo *property = nullptr;
    if (interface == Kep)
        property = kepProperty(name);
    if (!property)
        return Judgement::Refused;
    if (isGet)
        return acceptedIf((property->flags & G_DBUS_PROPERTY_INFO_FLAGS_READABLE) != 0);
    if (!(property->flags & G_DBUS_PROPERTY_INFO_FLAGS_WRITABLE))
        return Judgement::ReadOnly;
    g_autoptr(GVariant) wrapped = g_variant_get_child_value(body, 2);
    g_autoptr(GVariant) value = g_variant_get_variant(wrapped);
    return acceptedIf(g_str_equal(g_variant_get_type_string(value), property->signature));
}

Judgement judge(std::string_view interface, const std::string &member, std::string_view signature,
                GVariant *body)
{
    if (interface == Kep || interface == SimInterfaceName)
        return judgeMethod(interface, member, signature);
    if (interface == Properties)
        return judgeProperties(member, signature, body);
    if (interface == Introspectable)
        return acceptedIf(member == "Introspect" && signature.empty());
    if (interface == Peer)
        return acceptedIf((member == "Ping" || member == "GetMachineId") && signature.empty());
    return Judgement::Refused;
}

void invalid(GDBusMethodInvocation *invocation, const std::string &message)
{
    g_dbus_method_invocation_return_error_literal(invocation, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                                  message.c_str());
}

// Answers `invocation` with LimitsExceeded when the bus would not carry `reply`, an owned tuple; false when
// it would, the invocation left to answer.
bool answeredTooLarge(GDBusMethodInvocation *invocation, GVariant *reply)
{
    const std::string problem = sendProblem(reply);
    if (problem.empty())
        return false;
    const std::string message = "kep-sim cannot send the reply: " + problem;
    g_dbus_method_invocation_return_dbus_error(invocation, LimitsExceeded, message.c_str());
    return true;
}

// Answers `invocation` with `reply`, an owned tuple, or with LimitsExceeded where the bus would not carry
// it.
void answer(GDBusMethodInvocation *invocation, GVariant *reply)
{
    if (!answeredTooLarge(invocation, reply))
        g_dbus_method_invocation_return_value(invocation, reply);
}

// What keeps `value`, written to property `name`, from being read back.
std::string readBackProblem(const char *name, GVariant *value)
{
    const std::string problem = propertyProblem(name, value);
    if (problem.empty())
        return "";
    return std::string(name) + " could not be read back: " + problem;
}

// Sends `message` on `bus` and drops it: no handler of GDBus's sees it.
void sendAndDrop(GDBusConnection *bus, GDBusMessage *message)
{
    g_dbus_connection_send_message(bus, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
}

} // namespace

Service::Service(Scenario scenario, bool trace)
    : m_trace(trace)
    , m_device(std::move(scenario.device), [this](const char *signal, GVariant *args) { emit(signal, args); })
    , m_replay(std::move(scenario.dialog))
{ }

bool Service::serve(GDBusConnection *bus, GError **error)
{
    // No property handlers: GDBus hands Get, Set, GetAll to dispatch() once checked, and a Get may go
    // unanswered.
    static const GDBusInterfaceVTable vtable = {dispatch, nullptr, nullptr, {}};
    m_bus = bus;
    g_dbus_connection_add_filter(bus, filter, this, nullptr);
    const char *path = kep::ObjectPath;
    if (!g_dbus_connection_register_object(bus, path, kepInterface(), &vtable, this, nullptr, error))
        return false;
    return g_dbus_connection_register_object(bus, path, simInterface(), &vtable, this, nullptr, error);
}

void Service::startReplay()
{
    m_replay.start(m_bus);
}

void Service::dispatch(GDBusConnection *, const char *, const char *, const char *interface,
                       const char *member, GVariant *args, GDBusMethodInvocation *invocation, gpointer self)
{
    auto *service = static_cast<Service *>(self);
    if (interface == Properties) {
        service->properties(member, args, invocation);
    } else if (g_str_equal(interface, SimInterfaceName)) {
        service->control(member, args, invocation);
    } else {
        const Variant reply = service->m_device.call(member, args);
        answer(invocation, reply.get());
    }
}

GDBusMessage *Service::filter(GDBusConnection *bus, GDBusMessage *message, gboolean incoming, gpointer self)
{
    const bool isCall = g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL;
    if (!incoming || !isCall || g_strcmp0(g_dbus_message_get_path(message), kep::ObjectPath) != 0)
        return message;
    auto *service = static_cast<Service *>(self);
    const char *interface = g_dbus_message_get_interface(message);
    if (!interface)
        interface = "";
    const char *signature = g_dbus_message_get_signature(message);
    if (!signature)
        signature = "";
    GVariant *body = g_dbus_message_get_body(message);
    Call call {g_dbus_message_get_member(message), signature, argumentsText(bodyOf(message).get()), false};
    const Judgement judgement = judge(interface, call.member, call.signature, body);
    call.refused = judgement != Judgement::Accepted;
    if (service->m_trace) {
        const char *refused = "";
        if (call.refused)
            refused = " refused";
        std::fprintf(stderr, "kep-sim: call %s.%s %s%s\n", interface, call.member.c_str(), call.body.c_str(),
                     refused);
    }
    if (g_str_equal(interface, SimInterfaceName))
        return message;
    {
        const std::lock_guard<std::mutex> hold(service->m_callsLock);
        service->m_callsBytes += call.body.size();
        service->m_calls.push_back(std::move(call));
        while (service->m_calls.size() > MaxCallsKept || service->m_callsBytes > MaxCallsBytes) {
            service->m_callsBytes -= service->m_calls.front().body.size();
            service->m_calls.pop_front();
        }
    }
    if (service->m_replay.answered(message)) {
        g_object_unref(message); // answered from the dialog: no handler of GDBus's sees it
        return nullptr;
    }
    if (judgement != Judgement::ReadOnly)
        return message;
    g_autoptr(GDBusMessage) error = g_dbus_message_new_method_error_literal(
        message, "org.freedesktop.DBus.Error.PropertyReadOnly", "The property is read-only");
    sendAndDrop(bus, error);
    g_object_unref(message); // dropped: no handler of GDBus's sees it
    return nullptr;
}

void Service::properties(std::string_view member, GVariant *args, GDBusMethodInvocation *invocation)
{
    const char *interface = "";
    const char *name = "";
    g_variant_get_child(args, 0, "&s", &interface);
    if (member == "GetAll") {
        g_autoptr(GVariantBuilder) all = g_variant_builder_new(G_VARIANT_TYPE_VARDICT);
        for (GDBusPropertyInfo **property = kepInterface()->properties; interface == Kep && *property;
             ++property) {
            const Variant value = m_device.property((*property)->name);
            g_variant_builder_add(all, "{sv}", (*property)->name, value.get());
        }
        const Variant reply = own(g_variant_new("(a{sv})", all));
        answer(invocation, reply.get());
        return;
    }
    g_variant_get_child(args, 1, "&s", &name);
    if (member == "Get") {
        read(name, invocation);
        return;
    }
    GVariant *value = nullptr;
    g_variant_get_child(args, 2, "v", &value);
    Variant owned = own(value);
    const std::string problem = readBackProblem(name, value);
    if (!problem.empty()) {
        invalid(invocation, problem);
        return;
    }
    m_device.setProperty(name, std::move(owned));
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

// A read answers with the value as it is, also of another type than declared: no checks.
void Service::read(const char *name, GDBusMethodInvocation *invocation)
{
    const auto fault = m_readFaults.find(name);
    if (fault == m_readFaults.end()) {
        const Variant value = m_device.property(name);
        const Variant body = own(g_variant_new("(v)", value.get()));
        if (answeredTooLarge(invocation, body.get()))
            return;
        g_autoptr(GDBusMessage) reply
            = g_dbus_message_new_method_reply(g_dbus_method_invocation_get_message(invocation));
        g_dbus_message_set_body(reply, body.get());
        sendAndDrop(m_bus, reply);
        g_object_unref(invocation);
    } else if (fault->second.first.empty()) {
        m_unanswered.emplace_back(invocation); // never answered: the caller waits for its own timeout
        if (m_unanswered.size() > MaxUnanswered) {
            const std::string message
                = "kep-sim leaves at most " + std::to_string(MaxUnanswered) + " reads unanswered";
            g_dbus_method_invocation_return_dbus_error(m_unanswered.front().release(),
                                                       "org.freedesktop.DBus.Error.NoReply", message.c_str());
            m_unanswered.pop_front();
        }
    } else {
        const ReadFault &answer = fault->second;
        g_dbus_method_invocation_return_dbus_error(invocation, answer.first.c_str(), answer.second.c_str());
    }
}

// Each control method by name; one the table lacks is refused, never run as another.
void Service::control(std::string_view member, GVariant *args, GDBusMethodInvocation *invocation)
{
    using Method = void (Service::*)(GVariant *, GDBusMethodInvocation *);
    static const std::map<std::string_view, Method> methods = {
        {"Calls", &Service::listCalls},
        {"ClearCalls", &Service::clearCalls},
        {"SetProperty", &Service::setProperty},
        {"FailReads", &Service::failReads},
        {"EmitSignal", &Service::emitSignal},
        {"EmitSignals", &Service::emitSignals},
        {"Reset", &Service::reset},
    };
    const auto method = methods.find(member);
    if (method == methods.end()) {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                              "%s has no method %.*s", SimInterfaceName, int(member.size()),
                                              member.data());
        return;
    }
    (this->*(method->second))(args, invocation);
}

void Service::listCalls(GVariant *, GDBusMethodInvocation *invocation)
{
    g_autoptr(GVariantBuilder) list = g_variant_builder_new(G_VARIANT_TYPE("a(sssb)"));
    const std::lock_guard<std::mutex> hold(m_callsLock);
    for (const Call &call : m_calls) {
        g_variant_builder_add(list, "(sssb)", call.member.c_str(), call.signature.c_str(), call.body.c_str(),
                              call.refused);
    }
    const Variant reply = own(g_variant_new("(a(sssb))", list));
    answer(invocation, reply.get());
}

void Service::clearCalls(GVariant *, GDBusMethodInvocation *invocation)
{
    forgetCalls();
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

// The device as it started, no read fault and no call listed. A recorded dialog goes on where it is.
void Service::reset(GVariant *, GDBusMethodInvocation *invocation)
{
    m_device.reset();
    m_readFaults.clear();
    forgetCalls();
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

void Service::forgetCalls()
{
    const std::lock_guard<std::mutex> hold(m_callsLock);
    m_calls.clear();
    m_callsBytes = 0;
}

void Service::setProperty(GVariant *args, GDBusMethodInvocation *invocation)
{
    const char *name = "";
    GVariant *value = nullptr;
    g_variant_get(args, "(&sv)", &name, &value);
    Variant owned = own(value);
    if (!kepProperty(name)) {
        invalid(invocation, std::string(kep::InterfaceName) + " has no property " + name);
        return;
    }
    const std::string problem = readBackProblem(name, value);
    if (!problem.empty()) {
        invalid(invocation, problem);
        return;
    }
    m_device.setProperty(name, std::move(owned));
    m_readFaults.erase(name);
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

void Service::failReads(GVariant *args, GDBusMethodInvocation *invocation)
{
    const char *name = "";
    const char *error = "";
    const char *message = "";
    g_variant_get(args, "(&s&s&s)", &name, &error, &message);
    if (!kepProperty(name)) {
        invalid(invocation, std::string(kep::InterfaceName) + " has no property " + name);
        return;
    }
    if (*error && !g_dbus_is_interface_name(error)) {
        invalid(invocation, "'" + std::string(error) + "' is not a D-Bus error name");
        return;
    }
    m_readFaults[name] = {error, message};
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

void Service::emitSignal(GVariant *args, GDBusMethodInvocation *invocation)
{
    g_autoptr(GVariant) single = g_variant_new_parsed("[%@(sav)]", args);
    emitAll(single, invocation);
}

void Service::emitSignals(GVariant *args, GDBusMethodInvocation *invocation)
{
    g_autoptr(GVariant) burst = g_variant_get_child_value(args, 0);
    emitAll(burst, invocation);
}

// Every signal of `burst` (a(sav)), back to back, once all of them are known to be signals the bus
// carries.
void Service::emitAll(GVariant *burst, GDBusMethodInvocation *invocation)
{
    std::vector<std::pair<std::string, Variant>> signals;
    GVariantIter entries;
    const char *name = "";
    GVariant *list = nullptr;
    g_variant_iter_init(&entries, burst);
    while (g_variant_iter_next(&entries, "(&s@av)", &name, &list)) {
        g_autoptr(GVariant) wrappedArgs = list;
        std::vector<GVariant *> args;
        for (gsize index = 0; index < g_variant_n_children(wrappedArgs); ++index) {
            g_autoptr(GVariant) wrapped = g_variant_get_child_value(wrappedArgs, index);
            args.push_back(g_variant_get_variant(wrapped));
        }
        signals.emplace_back(name, own(g_variant_new_tuple(args.data(), args.size())));
        for (GVariant *arg : args)
            g_variant_unref(arg);
        if (!isMemberName(name)) {
            invalid(invocation, "'" + shown(name) + "' is not a signal name");
            return;
        }
        const std::string problem = sendProblem(signals.back().second.get());
        if (!problem.empty()) {
            invalid(invocation, "the signal " + std::string(name) + " cannot be sent: " + problem);
            return;
        }
    }
    for (const auto &signal : signals)
        emit(signal.first.c_str(), g_variant_ref(signal.second.get()));
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

// The device's signals too: one the bus would not carry is said, not sent.
void Service::emit(const char *signal, GVariant *args)
{
    const Variant owned = own(args);
    if (m_trace)
        std::fprintf(stderr, "kep-sim: signal %s %s\n", signal, argumentsText(args).c_str());
    const std::string problem = sendProblem(args);
    if (!problem.empty()) {
        fail(std::string("the signal ") + signal + " is not sent: " + problem);
        return;
    }
    g_dbus_connection_emit_signal(m_bus, nullptr, kep::ObjectPath, kep::InterfaceName, signal, args, nullptr);
}
