#include "sim/format/secrets.h"

#include "service/endpoint.h"

#include <algorithm>
#include <array>

namespace {

// The words of a key's name that make its value secret.
constexpr std::array<std::string_view, 7> SecretWords
    = {"psk", "key", "pass", "passphrase", "password", "secret", "pin"};

const char NetworksProperty[] = "WirelessNetworks";
const char PropertiesInterface[] = "org.freedesktop.DBus.Properties";

// A string placeholder reads "[removed secret N]"; an object path one "/removed_secret_N".
const char TextPlaceholderStart[] = "[removed secret ";
const char TextPlaceholderEnd[] = "]";
const char PathPlaceholderStart[] = "/removed_secret_";

// A secret this long or longer is also looked for inside other texts; a shorter one would be found by
// chance in texts that have nothing to do with it.
constexpr size_t MinSearchedLength = 4;

// Whether the lower case letters from `at` on are only the 's' of a plural: "PINs", "PSKsHex".
bool onlyPluralFrom(std::string_view name, size_t at)
{
    const bool isS = at < name.size() && name[at] == 's';
    const bool endsThere = at + 1 >= name.size() || !g_ascii_islower(name[at + 1]);
    return isS && endsThere;
}

// Where a name is cut into words: at a blank, '_' or '-', and where letters turn to digits or back, or a
// lower case letter to an upper case one ("wepKey" is wep key, "WEPKey" WEP Key). The plural 's' of an
// abbreviation stays with it ("PINs" is PINs).
bool startsWord(std::string_view name, size_t at)
{
    const char before = name[at - 1];
    const char here = name[at];
    if (g_ascii_isdigit(before) != g_ascii_isdigit(here))
        return true;
    if (g_ascii_islower(before) && g_ascii_isupper(here))
        return true;
    const bool nextIsLower = at + 1 < name.size() && g_ascii_islower(name[at + 1]);
    const bool wordGoesOn = nextIsLower && !onlyPluralFrom(name, at + 1);
    return g_ascii_isupper(before) && g_ascii_isupper(here) && wordGoesOn;
}

std::vector<std::string> wordsOf(std::string_view name)
{
    std::vector<std::string> words;
    std::string word;
    for (size_t at = 0; at < name.size(); ++at) {
        const char character = name[at];
        const bool separator = !g_ascii_isalnum(character);
        if (!word.empty() && (separator || startsWord(name, at))) {
            words.push_back(word);
            word.clear();
        }
        if (!separator)
            word += g_ascii_tolower(character);
    }
    if (!word.empty())
        words.push_back(word);
    return words;
}

// What the value under `key` is, in a dictionary that is `parent`.
Holds holdsUnder(std::string_view key, Holds parent)
{
    switch (parent) {
    case Holds::Secret:
    case Holds::Network:
        return Holds::Secret;
    case Holds::Networks:
        return Holds::Network;
    case Holds::Plain:
        break;
    }
    if (isSecretName(key))
        return Holds::Secret;
    if (key == NetworksProperty)
        return Holds::Networks;
    return Holds::Plain;
}

bool isDictionary(GVariant *value)
{
    const GVariantType *type = g_variant_get_type(value);
    return g_variant_type_is_array(type) && g_variant_type_is_dict_entry(g_variant_type_element(type));
}

// A dictionary entry's key as a name: a string, object path or signature; empty for other keys.
std::string keyName(GVariant *key)
{
    const bool named = g_variant_is_of_type(key, G_VARIANT_TYPE_STRING)
        || g_variant_is_of_type(key, G_VARIANT_TYPE_OBJECT_PATH)
        || g_variant_is_of_type(key, G_VARIANT_TYPE_SIGNATURE);
    if (!named)
        return "";
    return g_variant_get_string(key, nullptr);
}

// Networks and a network's map are dictionaries; anything else in their place is secret as a whole.
Holds holdsFor(GVariant *value, Holds holds)
{
    const bool networkLevel = holds == Holds::Networks || holds == Holds::Network;
    if (networkLevel && !isDictionary(value) && !g_variant_is_of_type(value, G_VARIANT_TYPE_VARIANT))
        return Holds::Secret;
    return holds;
}

// A secret is replaced whole where it is a basic value or a byte array, else value by value.
bool replacedWhole(GVariant *value)
{
    return g_variant_is_of_type(value, G_VARIANT_TYPE_BASIC)
        || g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING);
}

bool startsWith(std::string_view text, std::string_view start)
{
    return text.substr(0, start.size()) == start;
}

// The length of the text placeholder "[removed secret N]" at `at`; 0 when none stands there.
size_t placeholderAt(std::string_view text, size_t at)
{
    const std::string_view start = TextPlaceholderStart;
    if (text.compare(at, start.size(), start) != 0)
        return 0;
    size_t end = at + start.size();
    const size_t digitsAt = end;
    while (end < text.size() && g_ascii_isdigit(text[end]))
        end += 1;
    if (end == digitsAt || end >= text.size() || text[end] != TextPlaceholderEnd[0])
        return 0;
    return end + 1 - at;
}

// A text as a pattern: its characters, and for each placeholder in it one character of any kind, then any
// number of them.
constexpr int AnyOne = -1;
constexpr int AnyMany = -2;

std::vector<int> patternOf(std::string_view text)
{
    std::vector<int> pattern;
    size_t at = 0;
    while (at < text.size()) {
        const size_t placeholderLength = placeholderAt(text, at);
        if (placeholderLength > 0) {
            pattern.push_back(AnyOne);
            pattern.push_back(AnyMany);
            at += placeholderLength;
        } else {
            pattern.push_back(static_cast<unsigned char>(text[at]));
            at += 1;
        }
    }
    return pattern;
}

// Whether `live` is the text `recorded` with any text of one character or more where that has a
// placeholder: the one place to go back to is the last placeholder passed, so that it takes
// time in proportion to the product of the two lengths at most.
bool sameTextButPlaceholders(std::string_view recorded, std::string_view live)
{
    const std::vector<int> pattern = patternOf(recorded);
    size_t liveAt = 0;
    size_t patternAt = 0;
    size_t lastMany = std::string_view::npos;
    size_t resumeAt = 0;
    while (liveAt < live.size()) {
        const bool inPattern = patternAt < pattern.size();
        const int wanted = inPattern ? pattern[patternAt] : 0;
        if (inPattern && (wanted == AnyOne || wanted == static_cast<unsigned char>(live[liveAt]))) {
            liveAt += 1;
            patternAt += 1;
        } else if (inPattern && wanted == AnyMany) {
            lastMany = patternAt;
            resumeAt = liveAt;
            patternAt += 1;
        } else if (lastMany != std::string_view::npos) {
            patternAt = lastMany + 1;
            resumeAt += 1;
            liveAt = resumeAt;
        } else {
            return false;
        }
    }
    while (patternAt < pattern.size() && pattern[patternAt] == AnyMany)
        patternAt += 1;
    return patternAt == pattern.size();
}

// The text a secret is looked for by inside other texts: a string's, an object path's, a byte array's
// (without its closing NUL), a number's digits; empty where there is none, or it is too short to tell.
std::string searchedText(GVariant *secret)
{
    std::string found;
    if (g_variant_is_of_type(secret, G_VARIANT_TYPE_STRING)
        || g_variant_is_of_type(secret, G_VARIANT_TYPE_OBJECT_PATH)) {
        found = g_variant_get_string(secret, nullptr);
    } else if (g_variant_is_of_type(secret, G_VARIANT_TYPE_BYTESTRING)) {
        gsize size = 0;
        const char *bytes = static_cast<const char *>(g_variant_get_fixed_array(secret, &size, 1));
        found.assign(bytes, size);
        if (!found.empty() && found.back() == '\0')
            found.pop_back();
        if (found.find('\0') != std::string::npos)
            found.clear();
    } else if (!g_variant_is_of_type(secret, G_VARIANT_TYPE_BOOLEAN)
               && g_variant_is_of_type(secret, G_VARIANT_TYPE_BASIC)) {
        g_autofree char *digits = g_variant_print(secret, FALSE);
        found = digits;
    }
    if (found.size() < MinSearchedLength)
        found.clear();
    return found;
}

// Whether a recorded secret is a placeholder. A number or a truth value cannot tell: it counts as one.
bool isPlaceholder(GVariant *recorded)
{
    if (g_variant_is_of_type(recorded, G_VARIANT_TYPE_STRING))
        return startsWith(g_variant_get_string(recorded, nullptr), TextPlaceholderStart);
    if (g_variant_is_of_type(recorded, G_VARIANT_TYPE_OBJECT_PATH))
        return startsWith(g_variant_get_string(recorded, nullptr), PathPlaceholderStart);
    if (g_variant_is_of_type(recorded, G_VARIANT_TYPE_BYTESTRING)) {
        gsize size = 0;
        const char *bytes = static_cast<const char *>(g_variant_get_fixed_array(recorded, &size, 1));
        return startsWith(std::string_view(bytes, size), TextPlaceholderStart);
    }
    return g_variant_is_of_type(recorded, G_VARIANT_TYPE_BASIC);
}

// The property a Get or Set names, its second argument; empty when there is none.
std::string propertyNamed(GVariant *args)
{
    if (!args || g_variant_n_children(args) < 2)
        return "";
    g_autoptr(GVariant) name = g_variant_get_child_value(args, 1);
    if (!g_variant_is_of_type(name, G_VARIANT_TYPE_STRING))
        return "";
    return g_variant_get_string(name, nullptr);
}

// What argument `index` of the step's call (or of its reply) is.
Holds argumentHolds(const Step &step, size_t index, bool ofReply)
{
    const std::string interface = step.interfaceName();
    const bool properties = interface == PropertiesInterface;
    if (!ofReply && interface == kep::InterfaceName && step.member == "WpsPin")
        return Holds::Secret;
    const bool setValue = properties && !ofReply && step.member == "Set" && index == 2;
    const bool gotValue = properties && ofReply && step.member == "Get" && index == 0;
    if (setValue || gotValue)
        return holdsUnder(propertyNamed(step.args.get()), Holds::Plain);
    return Holds::Plain;
}

Variant shared(GVariant *value)
{
    if (!value)
        return nullptr;
    return own(g_variant_ref(value));
}

bool sameButPlaceholders(GVariant *recorded, GVariant *live, Holds holds)
{
    if (!g_variant_type_equal(g_variant_get_type(recorded), g_variant_get_type(live)))
        return false;
    const Holds here = holdsFor(recorded, holds);
    if (here == Holds::Secret && replacedWhole(recorded) && isPlaceholder(recorded))
        return true;
    if (g_variant_is_of_type(recorded, G_VARIANT_TYPE_STRING)) {
        return sameTextButPlaceholders(g_variant_get_string(recorded, nullptr),
                                       g_variant_get_string(live, nullptr));
    }
    if (!g_variant_is_container(recorded) || g_variant_is_of_type(recorded, G_VARIANT_TYPE_BYTESTRING))
        return g_variant_equal(recorded, live);
    const gsize count = g_variant_n_children(recorded);
    if (g_variant_n_children(live) != count)
        return false;
    const bool entry = g_variant_is_of_type(recorded, G_VARIANT_TYPE_DICT_ENTRY);
    for (gsize index = 0; index < count; ++index) {
        g_autoptr(GVariant) recordedChild = g_variant_get_child_value(recorded, index);
        g_autoptr(GVariant) liveChild = g_variant_get_child_value(live, index);
        Holds childHolds = here;
        if (entry && index == 1) {
            g_autoptr(GVariant) key = g_variant_get_child_value(recorded, 0);
            childHolds = holdsUnder(keyName(key), here);
        }
        const bool keyOfEntry = entry && index == 0;
        if (keyOfEntry && !g_variant_equal(recordedChild, liveChild))
            return false;
        if (!keyOfEntry && !sameButPlaceholders(recordedChild, liveChild, childHolds))
            return false;
    }
    return true;
}

} // namespace

bool isSecretName(std::string_view name)
{
    for (const std::string &word : wordsOf(name)) {
        for (std::string_view secretWord : SecretWords) {
            const bool plural = word.size() == secretWord.size() + 1 && word.back() == 's';
            if (word == secretWord || (plural && startsWith(word, secretWord)))
                return true;
        }
    }
    return false;
}

void SecretRemover::learnFrom(const std::string &property, GVariant *value)
{
    const size_t removedBefore = m_removed;
    removedFrom(property, value); // meets, and so numbers, every secret in it
    m_removed = removedBefore;
}

// Learnt first: a secret the step reveals is out of the texts that come before it in the step too.
Step SecretRemover::removedFrom(const Step &step)
{
    const size_t removedBefore = m_removed;
    removedFrom(step, Values::New);
    m_removed = removedBefore;
    return removedFrom(step, Values::New);
}

Step SecretRemover::textsRemovedFrom(const Step &step)
{
    return removedFrom(step, Values::Written);
}

Step SecretRemover::removedFrom(const Step &step, Values values)
{
    Step removed;
    removed.isCall = step.isCall;
    removed.member = step.member;
    removed.interface = step.interface;
    removed.afterMs = step.afterMs;
    removed.replyMs = step.replyMs;
    removed.hasReplyMs = step.hasReplyMs;
    removed.error = step.error;
    removed.unplayable = step.unplayable;
    for (const bool ofReply : {false, true}) {
        GVariant *args = step.args.get();
        if (ofReply)
            args = step.reply.get();
        if (!args)
            continue;
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
        const gsize count = g_variant_n_children(args);
        for (gsize index = 0; index < count; ++index) {
            g_autoptr(GVariant) arg = g_variant_get_child_value(args, index);
            Variant cleaned = removedFrom(arg, argumentHolds(step, index, ofReply), values);
            if (!cleaned)
                cleaned = shared(arg);
            g_variant_builder_add_value(&builder, cleaned.get());
        }
        Variant tuple = own(g_variant_builder_end(&builder));
        if (ofReply)
            removed.reply = std::move(tuple);
        else
            removed.args = std::move(tuple);
    }
    removed.message = withoutSecretTexts(step.message);
    return removed;
}

Variant SecretRemover::removedFrom(const std::string &property, GVariant *value)
{
    Variant cleaned = removedFrom(value, holdsUnder(property, Holds::Plain), Values::New);
    if (!cleaned)
        return shared(value);
    return cleaned;
}

// The value with its secrets replaced, or null when it has none. Values written once keep their
// placeholders; only the texts in them are searched again.
Variant SecretRemover::removedFrom(GVariant *value, Holds holds, Values values)
{
    const Holds here = holdsFor(value, holds);
    if (here == Holds::Secret && replacedWhole(value) && values == Values::New)
        return placeholder(value);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        const std::string text = g_variant_get_string(value, nullptr);
        const std::string cleaned = withoutSecretTexts(text);
        if (cleaned == text)
            return nullptr;
        return own(g_variant_new_string(cleaned.c_str()));
    }
    if (!g_variant_is_container(value))
        return nullptr;
    const bool entry = g_variant_is_of_type(value, G_VARIANT_TYPE_DICT_ENTRY);
    const gsize count = g_variant_n_children(value);
    std::vector<Variant> children;
    bool changed = false;
    for (gsize index = 0; index < count; ++index) {
        g_autoptr(GVariant) child = g_variant_get_child_value(value, index);
        Holds childHolds = here;
        if (entry && index == 1) {
            g_autoptr(GVariant) key = g_variant_get_child_value(value, 0);
            childHolds = holdsUnder(keyName(key), here);
        }
        Variant cleaned;
        if (!(entry && index == 0)) // a key is a name, kept
            cleaned = removedFrom(child, childHolds, values);
        if (cleaned)
            changed = true;
        else
            cleaned = shared(child);
        children.push_back(std::move(cleaned));
    }
    if (!changed)
        return nullptr;
    GVariantBuilder builder;
    g_variant_builder_init(&builder, g_variant_get_type(value));
    for (const Variant &child : children)
        g_variant_builder_add_value(&builder, child.get());
    return own(g_variant_builder_end(&builder));
}

Variant SecretRemover::placeholder(GVariant *secret)
{
    const char *type = g_variant_get_type_string(secret);
    const auto *bytes = static_cast<const char *>(g_variant_get_data(secret));
    const std::string identity = std::string(type) + '\0' + std::string(bytes, g_variant_get_size(secret));
    auto found = m_numbers.find(identity);
    const bool isNew = found == m_numbers.end();
    if (isNew)
        found = m_numbers.emplace(identity, guint(m_numbers.size() + 1)).first;
    const guint number = found->second;
    m_removed += 1;
    const std::string text = TextPlaceholderStart + std::to_string(number) + TextPlaceholderEnd;
    const std::string secretText = searchedText(secret);
    if (isNew && !secretText.empty()) {
        m_texts.emplace_back(secretText, text);
        // the longest first, so that a secret holding another is replaced whole
        std::stable_sort(m_texts.begin(), m_texts.end(), [](const auto &one, const auto &other) {
            return one.first.size() > other.first.size();
        });
    }
    switch (type[0]) {
    case 'b':
        return own(g_variant_new_boolean(FALSE));
    case 'y':
        return own(g_variant_new_byte(guint8(number)));
    case 'n':
        return own(g_variant_new_int16(gint16(number)));
    case 'q':
        return own(g_variant_new_uint16(guint16(number)));
    case 'i':
        return own(g_variant_new_int32(gint32(number)));
    case 'h':
        return own(g_variant_new_handle(gint32(number)));
    case 'u':
        return own(g_variant_new_uint32(number));
    case 'x':
        return own(g_variant_new_int64(number));
    case 't':
        return own(g_variant_new_uint64(number));
    case 'd':
        return own(g_variant_new_double(number));
    case 'o':
        return own(g_variant_new_object_path((PathPlaceholderStart + std::to_string(number)).c_str()));
    case 'g':
        return own(g_variant_new_signature(""));
    case 'a': // a byte array
        return own(g_variant_new_bytestring(text.c_str()));
    default: // a string
        break;
    }
    return own(g_variant_new_string(text.c_str()));
}

// Each secret's text where it stands in `text`, left to right; the longest first where several begin at
// one place, and a placeholder passed over whole.
std::string SecretRemover::withoutSecretTexts(const std::string &text)
{
    std::string cleaned;
    size_t at = 0;
    while (at < text.size()) {
        const size_t placeholderLength = placeholderAt(text, at);
        if (placeholderLength > 0) {
            cleaned.append(text, at, placeholderLength);
            at += placeholderLength;
            continue;
        }
        const auto secret = std::find_if(m_texts.begin(), m_texts.end(), [&text, at](const auto &known) {
            return text.compare(at, known.first.size(), known.first) == 0;
        });
        if (secret == m_texts.end()) {
            cleaned += text[at];
            at += 1;
            continue;
        }
        cleaned += secret->second;
        m_removed += 1;
        at += secret->first.size();
    }
    return cleaned;
}

bool sameCallArguments(const Step &recorded, GVariant *args)
{
    GVariant *expected = recorded.args.get();
    if (!expected)
        return g_variant_n_children(args) == 0;
    if (!g_variant_type_equal(g_variant_get_type(expected), g_variant_get_type(args)))
        return false;
    const gsize count = g_variant_n_children(args);
    for (gsize index = 0; index < count; ++index) {
        g_autoptr(GVariant) recordedArg = g_variant_get_child_value(expected, index);
        g_autoptr(GVariant) liveArg = g_variant_get_child_value(args, index);
        if (!sameButPlaceholders(recordedArg, liveArg, argumentHolds(recorded, index, false)))
            return false;
    }
    return true;
}
