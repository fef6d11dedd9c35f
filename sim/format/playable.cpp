#include "sim/format/playable.h"

#include "sim/format/interface.h"

namespace {

// D-Bus's limits on nesting: arrays in arrays, structures in structures, and all containers, variants
// included.
constexpr int MaxArrayDepth = 32;
constexpr int MaxStructDepth = 32;
constexpr int MaxContainerDepth = 64;
constexpr size_t MaxNameLength = 255; // of any name on the bus
constexpr gsize HeaderRoom = 4096;    // of a message, for its header: names, serials, signature

struct Depth {
    int arrays = 0;
    int structs = 0;
    int containers = 0;

    bool tooDeep() const
    {
        return arrays > MaxArrayDepth || structs > MaxStructDepth || containers > MaxContainerDepth;
    }
};

// The one complete type at `type`, which moves past it, within containers `depth` deep: what D-Bus could
// not carry of it, checked on the type alone (for an empty array, which has no values to look at).
std::string typeProblem(const char *&type, Depth depth)
{
    const char code = *type;
    type += 1;
    if (code == 'm')
        return "D-Bus cannot carry a maybe value ('m' type)";
    if (code == 'h')
        return "a file descriptor cannot be replayed ('h' type)";
    const bool isArray = code == 'a';
    const bool isStruct = code == '(' || code == '{';
    if (!isArray && !isStruct)
        return "";
    depth.containers += 1;
    if (isArray)
        depth.arrays += 1;
    if (isStruct)
        depth.structs += 1;
    if (depth.tooDeep())
        return "D-Bus cannot carry containers nested this deep";
    if (isArray)
        return typeProblem(type, depth);
    if (*type == ')')
        return "D-Bus cannot carry an empty tuple, ()";
    while (*type != ')' && *type != '}') {
        const std::string problem = typeProblem(type, depth);
        if (!problem.empty())
            return problem;
    }
    type += 1;
    return "";
}

// What D-Bus could not carry of `value`, within containers `depth` deep.
std::string valueProblem(GVariant *value, Depth depth)
{
    const GVariantClass kind = g_variant_classify(value);
    if (kind == G_VARIANT_CLASS_MAYBE)
        return "D-Bus cannot carry a maybe value ('m' type)";
    if (kind == G_VARIANT_CLASS_HANDLE)
        return "a file descriptor cannot be replayed ('h' type)";
    if (!g_variant_is_container(value))
        return "";
    const gsize children = g_variant_n_children(value);
    if (kind == G_VARIANT_CLASS_ARRAY && children == 0) {
        const char *type = g_variant_get_type_string(value);
        return typeProblem(type, depth);
    }
    depth.containers += 1;
    if (kind == G_VARIANT_CLASS_ARRAY)
        depth.arrays += 1;
    if (kind == G_VARIANT_CLASS_TUPLE || kind == G_VARIANT_CLASS_DICT_ENTRY)
        depth.structs += 1;
    if (depth.tooDeep())
        return "D-Bus cannot carry containers nested this deep";
    if (kind == G_VARIANT_CLASS_TUPLE && children == 0)
        return "D-Bus cannot carry an empty tuple, ()";
    const GVariantType *elementType = nullptr;
    if (kind == G_VARIANT_CLASS_ARRAY)
        elementType = g_variant_type_element(g_variant_get_type(value));
    if (elementType && g_variant_type_is_basic(elementType))
        return ""; // numbers and strings, all fit to carry
    for (gsize index = 0; index < children; ++index) {
        g_autoptr(GVariant) child = g_variant_get_child_value(value, index);
        const std::string problem = valueProblem(child, depth);
        if (!problem.empty())
            return problem;
    }
    return "";
}

// The arguments a method or a signal declares, as a tuple's type.
std::string tupleType(GDBusArgInfo **args)
{
    std::string type = "(";
    for (GDBusArgInfo **arg = args; arg && *arg; ++arg)
        type += (*arg)->signature;
    return type + ")";
}

// The type the reply to a call must have; empty: any type.
std::string replyType(const std::string &interface, const std::string &member, std::string &problem)
{
    if (interface == kep::InterfaceName) {
        const GDBusMethodInfo *method = g_dbus_interface_info_lookup_method(kepInterface(), member.c_str());
        if (!method)
            problem
                = std::string(kep::InterfaceName) + " has no method " + member + ": only an error answers it";
        if (!method)
            return "";
        return tupleType(method->out_args);
    }
    if (interface == "org.freedesktop.DBus.Properties") {
        if (member == "Get")
            return "(v)";
        if (member == "Set")
            return "()";
        if (member == "GetAll")
            return "(a{sv})";
    }
    return "";
}

std::string callProblem(const Step &step)
{
    if (step.reply && !step.error.empty())
        return "a call is answered by a 'reply' or an 'error', not both";
    if (!step.message.empty() && step.error.empty())
        return "a 'message' goes with an 'error'";
    if (step.hasReplyMs && !step.answered())
        return "'reply-ms' goes with a 'reply' or an 'error'";
    if (!step.error.empty() && !g_dbus_is_interface_name(step.error.c_str()))
        return "'" + step.error + "' is not a D-Bus error name";
    if (!step.reply)
        return "";
    std::string problem;
    const std::string expected = replyType(step.interfaceName(), step.member, problem);
    if (!problem.empty())
        return problem;
    const char *type = g_variant_get_type_string(step.reply.get());
    if (!expected.empty() && expected != type)
        return "the reply to " + step.member + " has type '" + expected + "', not '" + type + "'";
    return "";
}

std::string signalProblem(const Step &step)
{
    if (step.answered() || !step.message.empty() || step.hasReplyMs)
        return "a signal has no answer: no 'reply', 'error', 'message' or 'reply-ms'";
    if (step.interfaceName() != kep::InterfaceName)
        return "";
    const GDBusSignalInfo *signal = g_dbus_interface_info_lookup_signal(kepInterface(), step.member.c_str());
    if (!signal)
        return std::string(kep::InterfaceName) + " has no signal " + step.member;
    const std::string expected = tupleType(signal->args);
    std::string given = "()";
    if (step.args)
        given = g_variant_get_type_string(step.args.get());
    if (expected != given)
        return "the signal " + step.member + " has arguments of type '" + expected + "', not '" + given + "'";
    return "";
}

} // namespace

std::string carryProblem(GVariant *value)
{
    return valueProblem(value, Depth());
}

std::string bodyProblem(GVariant *args)
{
    const gsize count = g_variant_n_children(args);
    for (gsize index = 0; index < count; ++index) {
        g_autoptr(GVariant) arg = g_variant_get_child_value(args, index);
        const std::string problem = valueProblem(arg, Depth());
        if (!problem.empty())
            return problem;
    }
    return "";
}

std::string propertyProblem(const char *name, GVariant *value)
{
    g_autoptr(GVariantBuilder) all = g_variant_builder_new(G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(all, "{sv}", name, value);
    const Variant reply = own(g_variant_new("(a{sv})", all));
    return bodyProblem(reply.get());
}

bool isMemberName(const std::string &name)
{
    return name.size() <= MaxNameLength && g_dbus_is_member_name(name.c_str());
}

std::string sendProblem(GVariant *args)
{
    const std::string problem = bodyProblem(args);
    if (!problem.empty())
        return problem;
    g_autoptr(GDBusMessage) message = g_dbus_message_new_signal("/", "a.b", "C");
    g_dbus_message_set_body(message, args);
    gsize size = 0;
    g_autofree guchar *blob = g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    if (!blob || size > MaxMessageBytes - HeaderRoom)
        return "a message over the bus's limit of " + std::to_string(MaxMessageBytes) + " bytes";
    return "";
}

std::string stepProblem(const Step &step)
{
    if (!isMemberName(step.member))
        return "'" + step.member + "' is not a D-Bus member name";
    if (!step.interface.empty() && !g_dbus_is_interface_name(step.interface.c_str()))
        return "'" + step.interface + "' is not a D-Bus interface name";
    if (!step.unplayable.empty())
        return ""; // written for a person to read: a replay stops before it
    if (step.isCall)
        return callProblem(step);
    return signalProblem(step);
}
