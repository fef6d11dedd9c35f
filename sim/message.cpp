#include "sim/message.h"

#include "service/endpoint.h"

#include <cstdio>

int fail(const std::string &message, int status)
{
    std::fprintf(stderr, "kep-sim: %s\n", message.c_str());
    return status;
}

Variant orEmptyTuple(GVariant *arguments)
{
    if (!arguments)
        return own(g_variant_new_tuple(nullptr, 0));
    return own(g_variant_ref(arguments));
}

Variant bodyOf(GDBusMessage *message)
{
    return orEmptyTuple(g_dbus_message_get_body(message));
}

std::string stepInterface(const char *interface)
{
    if (!interface || g_str_equal(interface, kep::InterfaceName))
        return "";
    return interface;
}
