#include "sim/service.h"

#include "service/endpoint.h"
#include "sim/interface.h"

#include <cstdio>

namespace {

const std::string_view Kep = kep::InterfaceName, Properties = "org.freedesktop.DBus.Properties";

enum Verdict { Accepted, Refused, ReadOnly };

// Whether GDBus refuses the call before any handler sees it, judged from the interface descriptions
// that GDBus goes by. A write of a read-only property is refused here: GDBus would say InvalidArgs.
Verdict verdict(std::string_view interface, const std::string &member, std::string_view signature,
                GVariant *body)
{
    const char *on = "", *name = "";
    bool ok = false;
    if (interface == Kep || interface == SimInterfaceName) {
        GDBusInterfaceInfo *info = interface == Kep ? kepInterface() : simInterface();
        const GDBusMethodInfo *method = g_dbus_interface_info_lookup_method(info, member.c_str());
        std::string in;
        for (GDBusArgInfo **arg = method ? method->in_args : nullptr; arg && *arg; ++arg)
            in += (*arg)->signature;
        ok = method && signature == in;
    } else if (interface == Properties && member == "GetAll" && signature == "s") {
        g_variant_get(body, "(&s)", &on);
        ok = on == Kep || on == std::string_view(SimInterfaceName);
    } else if (interface == Properties
               && ((member == "Get" && signature == "ss") || (member == "Set" && signature == "ssv"))) {
        g_variant_get(body, signature == "ss" ? "(&s&s)" : "(&s&s*)", &on, &name, nullptr);
        const GDBusPropertyInfo *property = on == Kep ? kepProperty(name) : nullptr;
        if (property && member == "Set" && !(property->flags & G_DBUS_PROPERTY_INFO_FLAGS_WRITABLE))
            return ReadOnly;
        g_autoptr(GVariant) value = member == "Set" ? g_variant_get_child_value(body, 2) : nullptr;
        g_autoptr(GVariant) inner = value ? g_variant_get_variant(value) : nullptr;
        ok = property
            && (inner ? g_str_equal(g_variant_get_type_string(inner), property->signature)
                      : (property->flags & G_DBUS_PROPERTY_INFO_FLAGS_READABLE) != 0);
    } else if (interface == "org.freedesktop.DBus.Introspectable") {
        ok = member == "Introspect" && signature.empty();
    } else if (interface == "org.freedesktop.DBus.Peer") {
        ok = (member == "Ping" || member == "GetMachineId") && signature.empty();
    }
    return ok ? Accepted : Refused;
}

void invalid(GDBusMethodInvocation *call, const std::string &message)
{
    g_dbus_method_invocation_return_error_literal(call, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                                                  message.c_str());
}

} // namespace

bool Service::serve(GDBusConnection *bus, GError **error)
{
    // No property handlers: GDBus hands Get, Set, GetAll to dispatch() once checked, and a Get may go
    // unanswered.
    static const GDBusInterfaceVTable vtable = {dispatch, nullptr, nullptr, {}};
    m_bus = bus;
    g_dbus_connection_add_filter(bus, filter, this, nullptr);
    return g_dbus_connection_register_object(bus, kep::ObjectPath, kepInterface(), &vtable, this, nullptr,
                                             error)
        && g_dbus_connection_register_object(bus, kep::ObjectPath, simInterface(), &vtable, this, nullptr,
                                             error);
}

void Service::dispatch(GDBusConnection *, const char *, const char *, const char *interface,
                       const char *method, GVariant *args, GDBusMethodInvocation *call, gpointer self)
{
    auto *service = static_cast<Service *>(self);
    if (interface == Properties)
        service->properties(method, args, call);
    else if (g_str_equal(interface, SimInterfaceName))
        service->control(method, args, call);
    else
        service->method(method, args, call);
}

GDBusMessage *Service::filter(GDBusConnection *bus, GDBusMessage *message, gboolean incoming, gpointer self)
{
    if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL
        || g_strcmp0(g_dbus_message_get_path(message), kep::ObjectPath) != 0)
        return message;
    auto *service = static_cast<Service *>(self);
    const char *interface = g_dbus_message_get_interface(message),
               *signature = g_dbus_message_get_signature(message);
    GVariant *body = g_dbus_message_get_body(message);
    Call call {g_dbus_message_get_member(message), signature ? signature : "", body ? text(body) : "()",
               false};
    const Verdict verdict = ::verdict(interface ? interface : "", call.member, call.signature, body);
    call.refused = verdict != Accepted;
    if (service->m_trace) {
        const char *refused = "";
        if (call.refused)
            refused = " refused";
        std::fprintf(stderr, "kep-sim: call %s.%s %s%s\n", interface ? interface : "", call.member.c_str(),
                     call.body.c_str(), refused);
    }
    if (g_strcmp0(interface, SimInterfaceName) == 0)
        return message;
    {
        const std::lock_guard<std::mutex> hold(service->m_callsLock);
        service->m_calls.push_back(std::move(call));
    }
    if (service->replayed(message)) {
        g_object_unref(message); // answered from the dialog: no handler of GDBus's sees it
        return nullptr;
    }
    if (verdict != ReadOnly)
        return message;
    g_autoptr(GDBusMessage) error = g_dbus_message_new_method_error_literal(
        message, "org.freedesktop.DBus.Error.PropertyReadOnly", "The property is read-only");
    g_dbus_connection_send_message(bus, error, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(message); // dropped: no handler of GDBus's sees it
    return nullptr;
}

void Service::properties(std::string_view method, GVariant *args, GDBusMethodInvocation *call)
{
    const char *interface = "", *name = "";
    g_variant_get_child(args, 0, "&s", &interface);
    if (method == "GetAll") {
        g_autoptr(GVariantBuilder) all = g_variant_builder_new(G_VARIANT_TYPE_VARDICT);
        for (GDBusPropertyInfo **p = kepInterface()->properties; interface == Kep && *p; ++p)
            g_variant_builder_add(all, "{sv}", (*p)->name, property((*p)->name).get());
        return g_dbus_method_invocation_return_value(call, g_variant_new("(a{sv})", all));
    }
    g_variant_get_child(args, 1, "&s", &name);
    const auto fault = m_state.readFaults.find(name);
    GVariant *value = nullptr;
    if (method == "Set") {
        g_variant_get_child(args, 2, "v", &value);
        m_state.properties[name] = own(value);
        g_dbus_method_invocation_return_value(call, nullptr);
    } else if (fault == m_state.readFaults.end()) { // as it is, also of another type than declared: no checks
        g_autoptr(GDBusMessage) reply
            = g_dbus_message_new_method_reply(g_dbus_method_invocation_get_message(call));
        g_dbus_message_set_body(reply, g_variant_new("(v)", property(name).get()));
        g_dbus_connection_send_message(m_bus, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
        g_object_unref(call);
    } else if (fault->second.first.empty()) {
        m_unanswered.emplace_back(call); // never answered: the caller waits for its own timeout
    } else {
        g_dbus_method_invocation_return_dbus_error(call, fault->second.first.c_str(),
                                                   fault->second.second.c_str());
    }
}

void Service::control(std::string_view method, GVariant *args, GDBusMethodInvocation *call)
{
    const char *name = "", *error = "", *message = "";
    GVariant *value = nullptr;
    if (method == "Calls") {
        g_autoptr(GVariantBuilder) list = g_variant_builder_new(G_VARIANT_TYPE("a(sssb)"));
        const std::lock_guard<std::mutex> hold(m_callsLock);
        for (const Call &c : m_calls)
            g_variant_builder_add(list, "(sssb)", c.member.c_str(), c.signature.c_str(), c.body.c_str(),
                                  c.refused);
        return g_dbus_method_invocation_return_value(call, g_variant_new("(a(sssb))", list));
    }
    if (method == "ClearCalls") {
        const std::lock_guard<std::mutex> hold(m_callsLock);
        m_calls.clear();
    } else if (method == "SetProperty") {
        g_variant_get(args, "(&sv)", &name, &value);
        Variant owned = own(value);
        if (!kepProperty(name))
            return invalid(call, std::string(kep::InterfaceName) + " has no property " + name);
        m_state.properties[name] = std::move(owned);
        m_state.readFaults.erase(name);
    } else if (method == "EmitSignal") {
        g_autoptr(GVariant) single = g_variant_new_parsed("[%@(sav)]", args);
        return emitAll(single, call);
    } else if (method == "EmitSignals") {
        g_autoptr(GVariant) burst = g_variant_get_child_value(args, 0);
        return emitAll(burst, call);
    } else { // FailReads
        g_variant_get(args, "(&s&s&s)", &name, &error, &message);
        if (*error && !g_dbus_is_interface_name(error))
            return invalid(call, "'" + std::string(error) + "' is not a D-Bus error name");
        m_state.readFaults[name] = {error, message};
    }
    g_dbus_method_invocation_return_value(call, nullptr);
}

// Every signal of `burst` (a(sav)), back to back, once all of them are known to be signal names.
void Service::emitAll(GVariant *burst, GDBusMethodInvocation *call)
{
    GVariantIter signals;
    const char *name = "";
    g_variant_iter_init(&signals, burst);
    while (g_variant_iter_next(&signals, "(&s@av)", &name, nullptr)) {
        if (!g_dbus_is_member_name(name))
            return invalid(call, "'" + std::string(name) + "' is not a signal name");
    }
    GVariant *list = nullptr;
    g_variant_iter_init(&signals, burst);
    while (g_variant_iter_next(&signals, "(&s@av)", &name, &list)) {
        g_autoptr(GVariant) arguments = list;
        std::vector<GVariant *> items;
        for (gsize i = 0; i < g_variant_n_children(arguments); ++i) {
            g_autoptr(GVariant) wrapped = g_variant_get_child_value(arguments, i);
            items.push_back(g_variant_get_variant(wrapped));
        }
        emit(name, g_variant_new_tuple(items.data(), items.size()));
        for (GVariant *item : items)
            g_variant_unref(item);
    }
    g_dbus_method_invocation_return_value(call, nullptr);
}

void Service::emit(const char *signal, GVariant *args)
{
    const Variant owned = own(args);
    if (m_trace)
        std::fprintf(stderr, "kep-sim: signal %s %s\n", signal, text(args).c_str());
    g_dbus_connection_emit_signal(m_bus, nullptr, kep::ObjectPath, kep::InterfaceName, signal, args, nullptr);
}
