#include "sim/format/message.h"

#include "service/endpoint.h"

#include <algorithm>
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

// A value of at most this many bytes on the wire is printed whole by GLib; a larger one piece by piece.
constexpr gsize PrintedWholeBytes = 16384;

// The first `length` bytes of `text` at most, ending on a whole character.
std::string_view wholeCharacters(const char *text, size_t length)
{
    const char *end = nullptr;
    g_utf8_validate(text, length, &end);
    return std::string_view(text, end - text);
}

// Appends `value` as GVariant text to `out`, stopping once `out` holds `limit` bytes: containers child by
// child, strings cut.
void printUpTo(GVariant *value, std::string &out, size_t limit)
{
    if (out.size() >= limit)
        return;
    if (g_variant_get_size(value) <= PrintedWholeBytes) {
        out += text(value);
        return;
    }
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        gsize length = 0;
        const char *chars = g_variant_get_string(value, &length);
        out += quoted(std::string(wholeCharacters(chars, std::min(length, limit - out.size()))));
        return;
    }
    const bool dictEntry = g_variant_is_of_type(value, G_VARIANT_TYPE_DICT_ENTRY);
    const char *brackets = "()";
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_ARRAY))
        brackets = "[]";
    else if (dictEntry)
        brackets = "{}";
    else if (g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT))
        brackets = "<>";
    out += brackets[0];
    const gsize children = g_variant_n_children(value);
    for (gsize index = 0; index < children && out.size() < limit; ++index) {
        if (index > 0 && dictEntry)
            out += ": ";
        else if (index > 0)
            out += ", ";
        g_autoptr(GVariant) child = g_variant_get_child_value(value, index);
        printUpTo(child, out, limit);
    }
    out += brackets[1];
}

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

std::string argumentsText(GVariant *value)
{
    std::string out;
    printUpTo(value, out, MaxArgumentsText);
    if (out.size() <= MaxArgumentsText)
        return out;
    out.resize(wholeCharacters(out.data(), MaxArgumentsText).size());
    return out + "… [cut: " + std::to_string(g_variant_get_size(value)) + " bytes on the bus]";
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
