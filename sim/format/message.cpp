#include "sim/format/message.h"

#include "service/endpoint.h"

#include <cstdio>
#include <cstring>

int fail(const std::string &message, int status)
{
    std::fprintf(stderr, "kep-sim: %s\n", message.c_str());
    return status;
}

namespace {

// Room for one escape, \u0000 or \x00, and its end.
constexpr size_t EscapeSize = 8;

} // namespace

std::string shown(std::string_view text, size_t limit)
{
    const char ellipsis[] = "…";
    std::string out;
    size_t characters = 0;
    const char *at = text.data();
    const char *end = text.data() + text.size();
    while (at < end) {
        if (characters >= limit)
            return out + ellipsis;
        const gunichar character = g_utf8_get_char_validated(at, end - at);
        const bool valid = character != gunichar(-1) && character != gunichar(-2);
        char escaped[EscapeSize];
        if (!valid) { // a byte that is not UTF-8
            g_snprintf(escaped, sizeof escaped, "\\x%02x", guint(guchar(*at)));
            out += escaped;
            at += 1;
            characters += std::strlen(escaped) - 1; // an escape counts as the characters it shows
        } else if (g_unichar_iscntrl(character)) {
            g_snprintf(escaped, sizeof escaped, "\\u%04x", guint(character));
            out += escaped;
            at = g_utf8_next_char(at);
            characters += std::strlen(escaped) - 1;
        } else {
            const char *next = g_utf8_next_char(at);
            out.append(at, next);
            at = next;
        }
        characters += 1;
    }
    return out;
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
