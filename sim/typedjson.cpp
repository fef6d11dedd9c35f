#include "sim/typedjson.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QHash>
#include <QJsonArray>
#include <QLocale>
#include <QMutex>
#include <QStringList>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace {

// --- signatures ---------------------------------------------------------------

// One complete D-Bus type. Codes: the basic ones, 'v', 'a' (one child, the
// element), '{' for a whole dictionary "a{kv}" (children key and value) and
// '(' for a structure (children the fields).
struct Type
{
    char code = 0;
    std::vector<Type> children;
    QString signature;
};

bool isBasicCode(char code)
{
    return code != 0 && std::strchr("ybnqiuxtdsogh", code) != nullptr;
}

const int MaxSignatureLength = 255;
const int MaxNesting = 32;  // arrays, and structures with dictionary entries

bool parseType(const QString &text, int &pos, Type *type, int arrays, int structs, QString *problem)
{
    if (pos >= text.size()) {
        *problem = QStringLiteral("incomplete type");
        return false;
    }
    const int start = pos;
    const QChar c = text.at(pos++);
    const char code = c.unicode() < 128 ? char(c.unicode()) : '?';
    type->code = code;
    if (code == 'a' && pos < text.size() && text.at(pos) == QLatin1Char('{')) {
        ++pos;
        if (++arrays > MaxNesting || ++structs > MaxNesting) {
            *problem = QStringLiteral("nested more than 32 deep");
            return false;
        }
        type->code = '{';
        type->children.resize(2);
        if (!parseType(text, pos, &type->children[0], arrays, structs, problem))
            return false;
        if (!isBasicCode(type->children[0].code)) {
            *problem = QStringLiteral("dictionary key must be a basic type");
            return false;
        }
        if (!parseType(text, pos, &type->children[1], arrays, structs, problem))
            return false;
        if (pos >= text.size() || text.at(pos) != QLatin1Char('}')) {
            *problem = QStringLiteral("dictionary entry needs exactly a key and a value type");
            return false;
        }
        ++pos;
    } else if (code == 'a') {
        if (++arrays > MaxNesting) {
            *problem = QStringLiteral("nested more than 32 deep");
            return false;
        }
        type->children.resize(1);
        if (pos >= text.size()) {
            *problem = QStringLiteral("array without element type");
            return false;
        }
        if (!parseType(text, pos, &type->children[0], arrays, structs, problem))
            return false;
    } else if (code == '(') {
        if (++structs > MaxNesting) {
            *problem = QStringLiteral("nested more than 32 deep");
            return false;
        }
        while (pos >= text.size() || text.at(pos) != QLatin1Char(')')) {
            if (pos >= text.size()) {
                *problem = QStringLiteral("unterminated structure");
                return false;
            }
            type->children.emplace_back();
            if (!parseType(text, pos, &type->children.back(), arrays, structs, problem))
                return false;
        }
        ++pos;
        if (type->children.empty()) {
            *problem = QStringLiteral("empty structure");
            return false;
        }
    } else if (code == '{') {
        *problem = QStringLiteral("dictionary entry outside an array");
        return false;
    } else if (!isBasicCode(code) && code != 'v') {
        *problem = (code == ')' || code == '}' ? QStringLiteral("unexpected '%1'") : QStringLiteral("unknown type code '%1'")).arg(c);
        return false;
    }
    type->signature = text.mid(start, pos - start);
    return true;
}

bool parseSingleType(const QString &text, Type *type, QString *problem)
{
    int pos = 0;
    if (text.isEmpty())
        *problem = QStringLiteral("no type after '@'");
    else if (text.size() > MaxSignatureLength)
        *problem = QStringLiteral("longer than 255 characters");
    else if (!parseType(text, pos, type, 0, 0, problem))
        return false;
    else if (pos != text.size())
        *problem = QStringLiteral("not a single complete type");
    else if (text.contains(QLatin1Char('h')))
        *problem = QStringLiteral("file descriptors ('h') are not supported");
    else
        return true;
    return false;
}

// What a 'g' value may hold: one or more complete types (QtDBus cannot send
// an empty signature).
bool isValidSignature(const QString &text)
{
    if (text.isEmpty() || text.size() > MaxSignatureLength)
        return false;
    QString ignored;
    for (int pos = 0; pos < text.size();) {
        Type type;
        if (!parseType(text, pos, &type, 0, 0, &ignored))
            return false;
    }
    return true;
}

bool isValidObjectPath(const QString &path)
{
    if (path == QLatin1String("/"))
        return true;
    if (!path.startsWith(QLatin1Char('/')) || path.endsWith(QLatin1Char('/')))
        return false;
    for (const QString &element : path.mid(1).split(QLatin1Char('/'))) {
        if (element.isEmpty())
            return false;
        for (const QChar c : element) {
            if (c.unicode() >= 128 || !(c.isLetterOrNumber() || c == QLatin1Char('_')))
                return false;
        }
    }
    return true;
}

// --- metatype ids for container elements -------------------------------------
//
// QDBusArgument::beginArray() and beginMap() want a metatype id whose D-Bus
// signature is the element type. QtDBus has ids for the basic types and a few
// containers; every other element type gets one of a fixed pool of empty
// placeholder types, bound to its signature at first use for good. QtDBus
// learns a type's signature by marshalling a default value of it, so a
// placeholder's marshaller writes an empty value of the type it is bound to.

const int SlotCount = 128;

template <int N>
struct SignatureSlot
{
};

struct SlotTable
{
    QMutex mutex;
    QHash<QString, int> bySignature;
    std::vector<Type> types;  // by slot number
};

SlotTable &slotTable()
{
    static SlotTable table;
    return table;
}

void writeEmpty(QDBusArgument &arg, const Type &type);

template <int N>
QDBusArgument &operator<<(QDBusArgument &arg, const SignatureSlot<N> &)
{
    Type type;
    {
        QMutexLocker lock(&slotTable().mutex);
        if (std::size_t(N) < slotTable().types.size())
            type = slotTable().types[N];
    }
    if (type.code != 0)
        writeEmpty(arg, type);
    return arg;
}

template <int N>
const QDBusArgument &operator>>(const QDBusArgument &arg, SignatureSlot<N> &)
{
    return arg;
}

} // namespace

template <int N>
struct QMetaTypeId<SignatureSlot<N>>
{
    enum { Defined = 1 };
    static int qt_metatype_id()
    {
        static QBasicAtomicInt id = Q_BASIC_ATOMIC_INITIALIZER(0);
        if (const int known = id.loadAcquire())
            return known;
        const QByteArray name = "TypedJsonSignatureSlot<" + QByteArray::number(N) + '>';
        const int registered = qRegisterNormalizedMetaType<SignatureSlot<N>>(
            name, reinterpret_cast<SignatureSlot<N> *>(quintptr(-1)));
        id.storeRelease(registered);
        return registered;
    }
};

namespace {

template <std::size_t... N>
std::array<int, SlotCount> registerSlots(std::index_sequence<N...>)
{
    return {{qDBusRegisterMetaType<SignatureSlot<int(N)>>()...}};
}

const std::array<int, SlotCount> &slotIds()
{
    static const std::array<int, SlotCount> ids = registerSlots(std::make_index_sequence<SlotCount>());
    return ids;
}

int builtinTypeId(const Type &type)
{
    switch (type.code) {
    case 'y': return QMetaType::UChar;
    case 'b': return QMetaType::Bool;
    case 'n': return QMetaType::Short;
    case 'q': return QMetaType::UShort;
    case 'i': return QMetaType::Int;
    case 'u': return QMetaType::UInt;
    case 'x': return QMetaType::LongLong;
    case 't': return QMetaType::ULongLong;
    case 'd': return QMetaType::Double;
    case 's': return QMetaType::QString;
    case 'o': return qMetaTypeId<QDBusObjectPath>();
    case 'g': return qMetaTypeId<QDBusSignature>();
    case 'v': return qMetaTypeId<QDBusVariant>();
    }
    if (type.signature == QLatin1String("as"))
        return QMetaType::QStringList;
    if (type.signature == QLatin1String("ay"))
        return QMetaType::QByteArray;
    if (type.signature == QLatin1String("av"))
        return QMetaType::QVariantList;
    if (type.signature == QLatin1String("a{sv}"))
        return QMetaType::QVariantMap;
    return QMetaType::UnknownType;
}

int typeIdFor(const Type &type, QString *problem);

// Binds what writeEmpty() needs for the type's insides.
bool prepareInsides(const Type &type, QString *problem)
{
    if (type.code == 'a')
        return typeIdFor(type.children[0], problem) != 0;
    if (type.code == '{')
        return typeIdFor(type.children[0], problem) != 0 && typeIdFor(type.children[1], problem) != 0;
    if (type.code == '(') {
        for (const Type &field : type.children) {
            if (!prepareInsides(field, problem))
                return false;
        }
    }
    return true;
}

// The metatype id whose D-Bus signature is the type's; 0 with *problem set
// when there is none to be had.
int typeIdFor(const Type &type, QString *problem)
{
    if (const int id = builtinTypeId(type))
        return id;
    if (!prepareInsides(type, problem))
        return 0;
    int slot = 0;
    {
        SlotTable &table = slotTable();
        QMutexLocker lock(&table.mutex);
        const auto found = table.bySignature.constFind(type.signature);
        if (found != table.bySignature.constEnd()) {
            slot = *found;
        } else if (table.types.size() >= std::size_t(SlotCount)) {
            *problem = QStringLiteral("more than %1 distinct container element types").arg(SlotCount);
            return 0;
        } else {
            slot = int(table.types.size());
            table.types.push_back(type);
            table.bySignature.insert(type.signature, slot);
        }
    }
    const int id = slotIds()[std::size_t(slot)];
    const char *signature = QDBusMetaType::typeToSignature(id);
    if (!signature || type.signature != QLatin1String(signature)) {
        *problem = QStringLiteral("QtDBus does not take \"%1\" as a container element type").arg(type.signature);
        return 0;
    }
    return id;
}

void writeEmpty(QDBusArgument &arg, const Type &type)
{
    QString ignored;
    switch (type.code) {
    case 'y': arg << uchar(0); break;
    case 'b': arg << false; break;
    case 'n': arg << short(0); break;
    case 'q': arg << ushort(0); break;
    case 'i': arg << 0; break;
    case 'u': arg << 0u; break;
    case 'x': arg << qlonglong(0); break;
    case 't': arg << qulonglong(0); break;
    case 'd': arg << 0.0; break;
    case 's': arg << QString(); break;
    case 'o': arg << QDBusObjectPath(QStringLiteral("/")); break;
    case 'g': arg << QDBusSignature(QStringLiteral("s")); break;
    case 'v': arg << QDBusVariant(QVariant(0)); break;
    case 'a':
        arg.beginArray(typeIdFor(type.children[0], &ignored));
        arg.endArray();
        break;
    case '{':
        arg.beginMap(typeIdFor(type.children[0], &ignored), typeIdFor(type.children[1], &ignored));
        arg.endMap();
        break;
    case '(':
        arg.beginStructure();
        for (const Type &field : type.children)
            writeEmpty(arg, field);
        arg.endStructure();
        break;
    }
}

// --- values -------------------------------------------------------------------

QString member(const QString &where, const QString &key)
{
    return where.isEmpty() ? key : where + QLatin1Char('.') + key;
}

QString index(const QString &where, int i)
{
    return where + QLatin1Char('[') + QString::number(i) + QLatin1Char(']');
}

bool fail(QString *error, const QString &where, const QString &problem)
{
    *error = where + QLatin1String(": ") + problem;
    return false;
}

QString kindOf(const QJsonValue &json)
{
    switch (json.type()) {
    case QJsonValue::Null: return QStringLiteral("null");
    case QJsonValue::Bool: return QStringLiteral("a boolean");
    case QJsonValue::Double: return QStringLiteral("a number");
    case QJsonValue::String: return QStringLiteral("a string");
    case QJsonValue::Array: return QStringLiteral("an array");
    case QJsonValue::Object: return QStringLiteral("an object");
    default: return QStringLiteral("nothing");
    }
}

QString wrongKind(const char *expected, const Type &type, const QJsonValue &json)
{
    return QStringLiteral("expected %1 for '%2', got %3").arg(QLatin1String(expected), type.signature, kindOf(json));
}

QString numberText(const QJsonValue &json)
{
    const QVariant number = json.toVariant();
    if (number.userType() == QMetaType::LongLong)
        return QString::number(number.toLongLong());
    return QString::number(json.toDouble(), 'g', QLocale::FloatingPointShortest);
}


// An integer as read, before its range is checked: the signed value when
// negative, else the unsigned one; `huge` when it needs more than 64 bits.
struct Integer
{
    bool negative = false;
    bool huge = false;
    qint64 signedValue = 0;
    quint64 unsignedValue = 0;

    bool within(qint64 min, quint64 max) const
    {
        return !huge && (negative ? signedValue >= min : unsignedValue <= max);
    }
    qint64 asSigned() const { return negative ? signedValue : qint64(unsignedValue); }
};

const double TwoPow63 = 9223372036854775808.0;
const double TwoPow64 = 18446744073709551616.0;

// A JSON number as an integer; x and t also take a decimal string, for
// values a JSON number does not carry exactly.
bool readInteger(const Type &type, const QJsonValue &json, Integer *out, QString *text, QString *problem)
{
    const bool wide = type.code == 'x' || type.code == 't';
    if (json.isString() && wide) {
        const QString digits = json.toString();
        *text = QLatin1Char('"') + digits + QLatin1Char('"');
        out->negative = digits.startsWith(QLatin1Char('-'));
        const QStringRef magnitude = digits.midRef(out->negative ? 1 : 0);
        bool ok = !magnitude.isEmpty();
        for (const QChar c : magnitude)
            ok = ok && c.unicode() >= '0' && c.unicode() <= '9';
        if (!ok) {
            *problem = QStringLiteral("%1 is not a decimal integer").arg(*text);
            return false;
        }
        if (out->negative)
            out->signedValue = digits.toLongLong(&ok);
        else
            out->unsignedValue = digits.toULongLong(&ok);
        out->huge = !ok;
        return true;
    }
    if (!json.isDouble()) {
        *problem = wrongKind(wide ? "a number or a decimal string" : "a number", type, json);
        return false;
    }
    *text = numberText(json);
    const QVariant number = json.toVariant();
    if (number.userType() == QMetaType::LongLong) {
        const qint64 n = number.toLongLong();
        out->negative = n < 0;
        out->signedValue = n;
        out->unsignedValue = quint64(n);
        return true;
    }
    const double d = json.toDouble();
    if (std::floor(d) != d) {
        *problem = QStringLiteral("expected an integer for '%1', got %2").arg(type.signature, *text);
        return false;
    }
    out->negative = d < 0;
    out->huge = d < -TwoPow63 || d >= TwoPow64;
    if (!out->huge && out->negative)
        out->signedValue = qint64(d);
    else if (!out->huge)
        out->unsignedValue = quint64(d);
    return true;
}

// A basic-typed value from JSON, as the Qt type QtDBus sends as that type.
QVariant basicValue(const Type &type, const QJsonValue &json, QString *problem)
{
    switch (type.code) {
    case 'b':
        if (json.isBool())
            return json.toBool();
        *problem = wrongKind("true or false", type, json);
        return {};
    case 'd':
        if (json.isDouble())
            return json.toDouble();
        *problem = wrongKind("a number", type, json);
        return {};
    case 's':
    case 'o':
    case 'g': {
        if (!json.isString()) {
            *problem = wrongKind("a string", type, json);
            return {};
        }
        const QString text = json.toString();
        if (type.code == 's')
            return text;
        if (type.code == 'o' && isValidObjectPath(text))
            return QVariant::fromValue(QDBusObjectPath(text));
        if (type.code == 'g' && isValidSignature(text))
            return QVariant::fromValue(QDBusSignature(text));
        *problem = QStringLiteral("\"%1\" is not a valid %2")
                       .arg(text, type.code == 'o' ? QLatin1String("object path") : QLatin1String("signature"));
        return {};
    }
    }

    qint64 min = 0;
    quint64 max = 0;
    switch (type.code) {
    case 'y': max = 255; break;
    case 'n': min = -32768; max = 32767; break;
    case 'q': max = 65535; break;
    case 'i': min = std::numeric_limits<qint32>::min(); max = std::numeric_limits<qint32>::max(); break;
    case 'u': max = std::numeric_limits<quint32>::max(); break;
    case 'x': min = std::numeric_limits<qint64>::min(); max = std::numeric_limits<qint64>::max(); break;
    default: max = std::numeric_limits<quint64>::max(); break;
    }
    Integer n;
    QString text;
    if (!readInteger(type, json, &n, &text, problem))
        return {};
    if (!n.within(min, max)) {
        *problem = QStringLiteral("%1 is out of range for '%2' (%3 to %4)")
                       .arg(text, type.signature, QString::number(min), QString::number(max));
        return {};
    }
    switch (type.code) {
    case 'y': return QVariant::fromValue(uchar(n.unsignedValue));
    case 'n': return QVariant::fromValue(short(n.asSigned()));
    case 'q': return QVariant::fromValue(ushort(n.unsignedValue));
    case 'i': return QVariant(int(n.asSigned()));
    case 'u': return QVariant(uint(n.unsignedValue));
    case 'x': return QVariant(qlonglong(n.asSigned()));
    default: return QVariant(qulonglong(n.unsignedValue));
    }
}

void appendBasic(QDBusArgument &arg, char code, const QVariant &value)
{
    switch (code) {
    case 'y': arg << value.value<uchar>(); break;
    case 'b': arg << value.toBool(); break;
    case 'n': arg << value.value<short>(); break;
    case 'q': arg << value.value<ushort>(); break;
    case 'i': arg << value.toInt(); break;
    case 'u': arg << value.toUInt(); break;
    case 'x': arg << value.toLongLong(); break;
    case 't': arg << value.toULongLong(); break;
    case 'd': arg << value.toDouble(); break;
    case 's': arg << value.toString(); break;
    case 'o': arg << value.value<QDBusObjectPath>(); break;
    case 'g': arg << value.value<QDBusSignature>(); break;
    }
}

// A dictionary key given as a JSON object member's name, as the JSON value
// it stands for; Undefined when it stands for none.
QJsonValue keyFromName(const Type &keyType, const QString &name, QString *problem)
{
    bool ok = false;
    switch (keyType.code) {
    case 's':
    case 'o':
    case 'g':
        return name;
    case 'b':
        if (name == QLatin1String("true") || name == QLatin1String("false"))
            return name == QLatin1String("true");
        *problem = QStringLiteral("key \"%1\" is not true or false").arg(name);
        return QJsonValue(QJsonValue::Undefined);
    case 'd': {
        const double d = name.toDouble(&ok);
        if (ok)
            return d;
        *problem = QStringLiteral("key \"%1\" is not a number").arg(name);
        return QJsonValue(QJsonValue::Undefined);
    }
    }
    const QStringRef digits = name.midRef(name.startsWith(QLatin1Char('-')) ? 1 : 0);
    ok = !digits.isEmpty();
    for (const QChar c : digits)
        ok = ok && c.unicode() >= '0' && c.unicode() <= '9';
    if (!ok) {
        *problem = QStringLiteral("key \"%1\" is not an integer").arg(name);
        return QJsonValue(QJsonValue::Undefined);
    }
    const qint64 n = name.toLongLong(&ok);
    if (ok)
        return n;
    if (keyType.code == 'x' || keyType.code == 't')
        return name;
    return name.toDouble();  // beyond 64 bits: reported out of range
}

// One dictionary entry as written, with the places of its key and value.
struct Entry
{
    QJsonValue key;
    QJsonValue value;
    bool keyIsName;
    QString keyWhere;
    QString valueWhere;
};

bool dictEntries(const Type &type, const QJsonValue &json, const QString &where, std::vector<Entry> *entries, QString *error)
{
    if (json.isObject()) {
        const QJsonObject object = json.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            entries->push_back({it.key(), it.value(), true, member(where, it.key()), member(where, it.key())});
        return true;
    }
    if (!json.isArray())
        return fail(error, where, wrongKind("an object or an array of [key, value] pairs", type, json));
    const QJsonArray pairs = json.toArray();
    for (int i = 0; i < pairs.size(); ++i) {
        const QJsonValue pair = pairs.at(i);
        if (!pair.isArray() || pair.toArray().size() != 2) {
            const QString got = pair.isArray() ? QStringLiteral("an array of %1").arg(pair.toArray().size()) : kindOf(pair);
            return fail(error, index(where, i), QStringLiteral("expected a [key, value] pair, got ") + got);
        }
        entries->push_back({pair.toArray().at(0), pair.toArray().at(1), false, index(index(where, i), 0),
                            index(index(where, i), 1)});
    }
    return true;
}

QVariant entryKey(const Type &keyType, const Entry &entry, QString *error)
{
    QString problem;
    const QJsonValue key = entry.keyIsName ? keyFromName(keyType, entry.key.toString(), &problem) : entry.key;
    const QVariant value = key.isUndefined() ? QVariant() : basicValue(keyType, key, &problem);
    if (!value.isValid())
        fail(error, entry.keyWhere, problem);
    return value;
}

QVariant notationValue(const QJsonValue &json, const QString &where, QString *error);

std::optional<QVariantMap> variantMap(const QJsonObject &object, const QString &where, QString *error)
{
    QVariantMap map;
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QVariant value = notationValue(it.value(), member(where, it.key()), error);
        if (!value.isValid())
            return std::nullopt;
        map.insert(it.key(), value);
    }
    return map;
}

// A value checked against its type, ready to marshal. Basic values and the
// contents of a variant are in `value`, so is an ay given as a string; the
// elements of a container are in `items`, a dictionary's as key, value, key...
// Everything is checked before anything is written: libdbus aborts when a
// container is closed half written.
struct Node
{
    QVariant value;
    std::vector<Node> items;
};

bool convert(const Type &type, const QJsonValue &json, const QString &where, Node *node, QString *error)
{
    QString problem;
    switch (type.code) {
    case 'v':
        node->value = notationValue(json, where, error);
        return node->value.isValid();
    case 'a': {
        const Type &element = type.children[0];
        if (element.code == 'y' && json.isString()) {
            node->value = json.toString().toUtf8();
            return true;
        }
        if (!json.isArray())
            return fail(error, where, wrongKind(element.code == 'y' ? "an array or a string" : "an array", type, json));
        if (typeIdFor(element, &problem) == 0)
            return fail(error, where, problem);
        const QJsonArray array = json.toArray();
        node->items.resize(std::size_t(array.size()));
        for (int i = 0; i < array.size(); ++i) {
            if (!convert(element, array.at(i), index(where, i), &node->items[std::size_t(i)], error))
                return false;
        }
        return true;
    }
    case '{': {
        std::vector<Entry> entries;
        if (!dictEntries(type, json, where, &entries, error))
            return false;
        if (typeIdFor(type.children[0], &problem) == 0 || typeIdFor(type.children[1], &problem) == 0)
            return fail(error, where, problem);
        for (const Entry &entry : entries) {
            Node key;
            key.value = entryKey(type.children[0], entry, error);
            if (!key.value.isValid())
                return false;
            node->items.push_back(key);
            node->items.emplace_back();
            if (!convert(type.children[1], entry.value, entry.valueWhere, &node->items.back(), error))
                return false;
        }
        return true;
    }
    case '(': {
        if (!json.isArray())
            return fail(error, where, wrongKind("an array", type, json));
        const QJsonArray fields = json.toArray();
        if (fields.size() != int(type.children.size())) {
            return fail(error, where, QStringLiteral("expected %1 fields for '%2', got %3")
                                          .arg(type.children.size()).arg(type.signature).arg(fields.size()));
        }
        node->items.resize(type.children.size());
        for (int i = 0; i < fields.size(); ++i) {
            const std::size_t field = std::size_t(i);
            if (!convert(type.children[field], fields.at(i), index(where, i), &node->items[field], error))
                return false;
        }
        return true;
    }
    default:
        node->value = basicValue(type, json, &problem);
        return node->value.isValid() || fail(error, where, problem);
    }
}

// Writes a converted value; the element types it needs are bound already.
void marshal(QDBusArgument &arg, const Type &type, const Node &node)
{
    QString ignored;
    switch (type.code) {
    case 'v':
        arg << QDBusVariant(node.value);
        break;
    case 'a':
        if (node.value.isValid()) {
            arg << node.value.toByteArray();
            break;
        }
        arg.beginArray(typeIdFor(type.children[0], &ignored));
        for (const Node &item : node.items)
            marshal(arg, type.children[0], item);
        arg.endArray();
        break;
    case '{':
        arg.beginMap(typeIdFor(type.children[0], &ignored), typeIdFor(type.children[1], &ignored));
        for (std::size_t i = 0; i + 1 < node.items.size(); i += 2) {
            arg.beginMapEntry();
            appendBasic(arg, type.children[0].code, node.items[i].value);
            marshal(arg, type.children[1], node.items[i + 1]);
            arg.endMapEntry();
        }
        arg.endMap();
        break;
    case '(':
        arg.beginStructure();
        for (std::size_t i = 0; i < node.items.size(); ++i)
            marshal(arg, type.children[i], node.items[i]);
        arg.endStructure();
        break;
    default:
        appendBasic(arg, type.code, node.value);
        break;
    }
}

// The value of an explicitly given type. Basic types, v, as, ay, av and a{sv}
// (from an object) come as the Qt types QtDBus sends as them; the rest as a
// marshalled QDBusArgument.
QVariant typedValue(const Type &type, const QJsonValue &json, const QString &where, QString *error)
{
    QString problem;
    if (isBasicCode(type.code)) {
        const QVariant value = basicValue(type, json, &problem);
        if (!value.isValid())
            fail(error, where, problem);
        return value;
    }
    if (type.code == 'v') {
        const QVariant inner = notationValue(json, where, error);
        return inner.isValid() ? QVariant::fromValue(QDBusVariant(inner)) : QVariant();
    }
    if (type.code == 'a' && builtinTypeId(type) != QMetaType::UnknownType) {
        const char element = type.children[0].code;
        if (element == 'y' && json.isString())
            return json.toString().toUtf8();
        if (!json.isArray()) {
            fail(error, where, wrongKind(element == 'y' ? "an array or a string" : "an array", type, json));
            return {};
        }
        const QJsonArray array = json.toArray();
        QVariantList items;
        for (int i = 0; i < array.size(); ++i) {
            const QVariant item = element == 'v' ? notationValue(array.at(i), index(where, i), error)
                                                 : typedValue(type.children[0], array.at(i), index(where, i), error);
            if (!item.isValid())
                return {};
            items << item;
        }
        if (element == 'v')
            return items;
        if (element == 's')
            return QVariant(QVariant(items).toStringList());
        QByteArray bytes;
        for (const QVariant &item : items)
            bytes.append(char(item.value<uchar>()));
        return bytes;
    }
    if (type.signature == QLatin1String("a{sv}") && json.isObject()) {
        const std::optional<QVariantMap> map = variantMap(json.toObject(), where, error);
        return map ? QVariant(*map) : QVariant();
    }
    Node node;
    if (!convert(type, json, where, &node, error))
        return {};
    QDBusArgument arg;
    marshal(arg, type, node);
    return QVariant::fromValue(arg);
}

bool isTypeObject(const QJsonObject &object)
{
    return object.size() == 1 && object.begin().key().startsWith(QLatin1Char('@'));
}

QVariant notationValue(const QJsonValue &json, const QString &where, QString *error)
{
    switch (json.type()) {
    case QJsonValue::Bool:
        return json.toBool();
    case QJsonValue::String:
        return json.toString();
    case QJsonValue::Double: {
        const QVariant number = json.toVariant();
        if (number.userType() == QMetaType::LongLong) {
            const qint64 n = number.toLongLong();
            if (n >= std::numeric_limits<qint32>::min() && n <= std::numeric_limits<qint32>::max())
                return int(n);
            return qlonglong(n);
        }
        const double d = json.toDouble();
        if (std::floor(d) != d)
            return d;
        if (d >= -TwoPow63 && d < TwoPow63)
            return qlonglong(d);
        fail(error, where, QStringLiteral("%1 is out of range for 'x'; write {\"@d\": ...} for a double").arg(numberText(json)));
        return {};
    }
    case QJsonValue::Array: {
        const QJsonArray array = json.toArray();
        QStringList strings;
        for (const QJsonValue &item : array) {
            if (!item.isString())
                break;
            strings << item.toString();
        }
        if (strings.size() == array.size())
            return strings;
        QVariantList items;
        for (int i = 0; i < array.size(); ++i) {
            const QVariant item = notationValue(array.at(i), index(where, i), error);
            if (!item.isValid())
                return {};
            items << item;
        }
        return items;
    }
    case QJsonValue::Object: {
        const QJsonObject object = json.toObject();
        if (isTypeObject(object)) {
            const QString signature = object.begin().key().mid(1);
            Type type;
            QString problem;
            if (!parseSingleType(signature, &type, &problem)) {
                fail(error, where, QStringLiteral("invalid type \"@%1\": %2").arg(signature, problem));
                return {};
            }
            return typedValue(type, object.begin().value(), where, error);
        }
        const std::optional<QVariantMap> map = variantMap(object, where, error);
        return map ? QVariant(*map) : QVariant();
    }
    case QJsonValue::Null:
        fail(error, where, QStringLiteral("null has no D-Bus type"));
        return {};
    default:
        fail(error, where, QStringLiteral("no value"));
        return {};
    }
}

} // namespace

QVariant typedJsonValue(const QJsonValue &json, const QString &where, QString *error)
{
    QString ignored;
    return notationValue(json, where, error ? error : &ignored);
}

std::optional<QVariantMap> typedJsonMap(const QJsonObject &json, const QString &where, QString *error)
{
    QString ignored;
    if (!error)
        error = &ignored;
    if (isTypeObject(json)) {
        const QString key = json.begin().key();
        if (key != QLatin1String("@a{sv}")) {
            fail(error, where, QStringLiteral("expected a dictionary (a{sv}), got type \"%1\"").arg(key));
            return std::nullopt;
        }
        if (!json.begin().value().isObject()) {
            fail(error, where, QStringLiteral("expected an object for 'a{sv}', got ") + kindOf(json.begin().value()));
            return std::nullopt;
        }
        return variantMap(json.begin().value().toObject(), where, error);
    }
    return variantMap(json, where, error);
}
