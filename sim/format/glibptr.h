#ifndef KEP_SIM_GLIBPTR_H
#define KEP_SIM_GLIBPTR_H

// Owning handles for GLib values kept beyond one function (locals use
// g_autoptr and g_autofree).
#include <gio/gio.h>

#include <memory>
#include <string>

struct VariantUnref {
    void operator()(GVariant *value) const { g_variant_unref(value); }
};
using Variant = std::unique_ptr<GVariant, VariantUnref>;

struct ObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
// A value kept where copies are made: the copies share the one GVariant, which never changes.
using SharedVariant = std::shared_ptr<GVariant>;

template <typename T> using Object = std::unique_ptr<T, ObjectUnref>;

// Takes over a reference, floating (g_variant_new_*) or full.
inline Variant own(GVariant *value)
{
    if (!value)
        return nullptr;
    return Variant(g_variant_take_ref(value));
}

// GVariant text with the type annotations that make it read back as the same type.
inline std::string text(GVariant *value)
{
    g_autofree char *printed = g_variant_print(value, TRUE);
    return printed;
}

// A string in GVariant text: quoted, with its escapes.
inline std::string quoted(const std::string &value)
{
    return text(own(g_variant_new_string(value.c_str())).get());
}

#endif
