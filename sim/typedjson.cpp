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
#include <QRegularExpression>
#include <QStringList>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace {

// --- types ------------------------------------------------------------------

// One complete D-Bus type. Codes: the basic ones, 'v', 'a' (children: the
// element), '{' for a whole dictionary "a{kv}" (the key and the value) and
// '(' for a structure (the fields).
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
const int MaxNesting = 32;  // arrays; structures and dictionary entries together in `structs`

// Parses one complete type at `pos`, inside `arrays` arrays and `structs` structures.
bool parseType(const QString &text, int &pos, Type *type, int arrays, int structs, QString *problem)
{
    const auto failWith = [problem](const char *what) { *problem = QLatin1String(what); return false; };
    if (pos >= text.size())
        return failWith("incomplete type");
    const int start = pos;
    const QChar c = text.at(pos++);
    type->code = c.unicode() < 128 ? char(c.unicode()) : '?';
    switch (type->code) {
    case 'a':
        if (++arrays > MaxNesting)
            return failWith("nested more than 32 deep");
        if (pos >= text.size())
            return failWith("array without element type");
        if (text.at(pos) != QLatin1Char('{')) {
            type->children.resize(1);
            if (!parseType(text, pos, &type->children[0], arrays, structs, problem))
                return false;
            break;
        }
        ++pos;
        type->code = '{';
        if (++structs > MaxNesting)
            return failWith("nested more than 32 deep");
        type->children.resize(2);
        if (!parseType(text, pos, &type->children[0], arrays, structs, problem))
            return false;
        if (!isBasicCode(type->children[0].code))
            return failWith("dictionary key must be a basic type");
        if (!parseType(text, pos, &type->children[1], arrays, structs, problem))
            return false;
        if (pos >= text.size() || text.at(pos++) != QLatin1Char('}'))
            return failWith("dictionary entry needs exactly a key and a value type");
        break;
    case '(':
        if (++structs > MaxNesting)
            return failWith("nested more than 32 deep");
        while (pos < text.size() && text.at(pos) != QLatin1Char(')')) {
            type->children.emplace_back();
            if (!parseType(text, pos, &type->children.back(), arrays, structs, problem))
                return false;
        }
        if (pos++ >= text.size())
            return failWith("unterminated structure");
        if (type->children.empty())
            return failWith("empty structure");
        break;
    case '{':
        return failWith("dictionary entry outside an array");
    default:
        if (!isBasicCode(type->code) && type->code != 'v') {
            const bool closing = c == QLatin1Char(')') || c == QLatin1Char('}');
            *problem = QStringLiteral("%1 '%2'").arg(QLatin1String(closing ? "unexpected" : "unknown type code"), c);
            return false;
        }
    }
    type->signature = text.mid(start, pos - start);
    return true;
}

// The type an "@<signature>" member names.
bool parseExplicitType(const QString &text, Type *type, QString *problem)
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

Type typeOf(const char *signature)
{
    Type type;
    QString ignored;
    parseExplicitType(QLatin1String(signature), &type, &ignored);
    return type;
}

// What a 'g' value may hold: one or more complete types (QtDBus cannot send
// an empty signature).
bool isValidSignature(const QString &text)
{
    QString ignored;
    for (int pos = 0; pos < text.size();) {
        Type type;
        if (!parseType(text, pos, &type, 0, 0, &ignored))
            return false;
    }
    return !text.isEmpty() && text.size() <= MaxSignatureLength;
}

bool isValidObjectPath(const QString &path)
{
    static const QRegularExpression valid(QStringLiteral("^/([A-Za-z0-9_]+(/[A-Za-z0-9_]+)*)?$"));
    return valid.match(path).hasMatch();
}

// --- metatype ids for container elements --------------------------------------
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
void appendBasic(QDBusArgument &arg, char code, const QVariant &value);

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
    static const QHash<QString, int> ids = {
        {QStringLiteral("y"), QMetaType::UChar}, {QStringLiteral("b"), QMetaType::Bool},
        {QStringLiteral("n"), QMetaType::Short}, {QStringLiteral("q"), QMetaType::UShort},
        {QStringLiteral("i"), QMetaType::Int}, {QStringLiteral("u"), QMetaType::UInt},
        {QStringLiteral("x"), QMetaType::LongLong}, {QStringLiteral("t"), QMetaType::ULongLong},
        {QStringLiteral("d"), QMetaType::Double}, {QStringLiteral("s"), QMetaType::QString},
        {QStringLiteral("o"), qMetaTypeId<QDBusObjectPath>()}, {QStringLiteral("g"), qMetaTypeId<QDBusSignature>()},
        {QStringLiteral("v"), qMetaTypeId<QDBusVariant>()}, {QStringLiteral("as"), QMetaType::QStringList},
        {QStringLiteral("ay"), QMetaType::QByteArray}, {QStringLiteral("av"), QMetaType::QVariantList},
        {QStringLiteral("a{sv}"), QMetaType::QVariantMap}};
    return ids.value(type.signature, QMetaType::UnknownType);
}

int typeIdFor(const Type &type, QString *problem);

// Binds the element types writeEmpty() needs for the type's insides.
bool prepareInsides(const Type &type, QString *problem)
{
    if (type.code == 'a' || type.code == '{') {
        for (const Type &child : type.children) {
            if (typeIdFor(child, problem) == 0)
                return false;
        }
    } else if (type.code == '(') {
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
    case 'v':
        arg << QDBusVariant(QVariant(0));
        break;
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
    default:  // only the signature counts: an empty path or signature passes
        appendBasic(arg, type.code, QVariant());
        break;
    }
}

// --- basic values -------------------------------------------------------------

bool fail(QString *error, const QString &where, const QString &problem)
{
    *error = where + QLatin1String(": ") + problem;
    return false;
}

QString member(const QString &where, const QString &key)
{
    return where.isEmpty() ? key : where + QLatin1Char('.') + key;
}

QString index(const QString &where, int i)
{
    return where + QLatin1Char('[') + QString::number(i) + QLatin1Char(']');
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

bool isDecimal(const QString &text)
{
    static const QRegularExpression decimal(QStringLiteral("^-?[0-9]+$"));
    return decimal.match(text).hasMatch();
}

const double TwoPow63 = 9223372036854775808.0;
const double TwoPow64 = 18446744073709551616.0;

// A JSON number as a value of an integer type. Numbers are integers exactly
// up to 64 bits signed; x and t also take a decimal string, for values a JSON
// number does not carry exactly.
QVariant integerValue(const Type &type, const QJsonValue &json, QString *problem)
{
    struct Range { char code; qint64 min; quint64 max; };
    static const Range ranges[] = {
        {'y', 0, 255}, {'n', -32768, 32767}, {'q', 0, 65535},
        {'i', std::numeric_limits<qint32>::min(), std::numeric_limits<qint32>::max()},
        {'u', 0, std::numeric_limits<quint32>::max()},
        {'x', std::numeric_limits<qint64>::min(), std::numeric_limits<qint64>::max()},
        {'t', 0, std::numeric_limits<quint64>::max()}};
    const Range range = *std::find_if(std::begin(ranges), std::end(ranges), [&](const Range &r) { return r.code == type.code; });
    const bool wide = type.code == 'x' || type.code == 't';
    bool negative = false;
    bool fits = true;  // in 64 bits
    qint64 signedValue = 0;  // when negative
    quint64 unsignedValue = 0;  // when not
    QString text;
    if (json.isString() && wide) {
        const QString digits = json.toString();
        text = QLatin1Char('"') + digits + QLatin1Char('"');
        if (!isDecimal(digits)) {
            *problem = QStringLiteral("%1 is not a decimal integer").arg(text);
            return {};
        }
        negative = digits.startsWith(QLatin1Char('-'));
        if (negative)
            signedValue = digits.toLongLong(&fits);
        else
            unsignedValue = digits.toULongLong(&fits);
    } else if (json.isDouble()) {
        text = numberText(json);
        const QVariant number = json.toVariant();
        const double d = json.toDouble();
        if (number.userType() != QMetaType::LongLong && std::floor(d) != d) {
            *problem = QStringLiteral("expected an integer for '%1', got %2").arg(type.signature, text);
            return {};
        }
        const bool exact = number.userType() == QMetaType::LongLong;
        negative = exact ? number.toLongLong() < 0 : d < 0;
        fits = exact || (d >= -TwoPow63 && d < TwoPow64);
        signedValue = exact ? number.toLongLong() : (negative && fits ? qint64(d) : 0);
        unsignedValue = exact ? quint64(number.toLongLong()) : (!negative && fits ? quint64(d) : 0);
    } else {
        *problem = wrongKind(wide ? "a number or a decimal string" : "a number", type, json);
        return {};
    }
    if (!fits || (negative ? signedValue < range.min : unsignedValue > range.max)) {
        *problem = QStringLiteral("%1 is out of range for '%2' (%3 to %4)")
                       .arg(text, type.signature, QString::number(range.min), QString::number(range.max));
        return {};
    }
    const qint64 value = negative ? signedValue : qint64(unsignedValue);
    switch (type.code) {
    case 'y': return QVariant::fromValue(uchar(value));
    case 'n': return QVariant::fromValue(short(value));
    case 'q': return QVariant::fromValue(ushort(value));
    case 'i': return QVariant(int(value));
    case 'u': return QVariant(uint(value));
    case 'x': return QVariant(qlonglong(value));
    default: return QVariant(qulonglong(unsignedValue));
    }
}

// A basic-typed value from JSON, as the Qt type QtDBus sends as that type.
QVariant basicValue(const Type &type, const QJsonValue &json, QString *problem)
{
    const QString text = json.toString();
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
    case 'g':
        if (!json.isString())
            *problem = wrongKind("a string", type, json);
        else if (text.contains(QChar(0)))  // QtDBus hands strings on as C strings
            *problem = QStringLiteral("a D-Bus string cannot hold a NUL character");
        else if (type.code == 's')
            return text;
        else if (type.code == 'o' && isValidObjectPath(text))
            return QVariant::fromValue(QDBusObjectPath(text));
        else if (type.code == 'g' && isValidSignature(text))
            return QVariant::fromValue(QDBusSignature(text));
        else
            *problem = QStringLiteral("\"%1\" is not a valid %2").arg(text, QLatin1String(type.code == 'o' ? "object path" : "signature"));
        return {};
    default:
        return integerValue(type, json, problem);
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

// --- containers ---------------------------------------------------------------

// One dictionary entry as written, with the places of its key and value. A key
// given as an object member's name is text still to be read as its type.
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
        const QJsonArray pair = pairs.at(i).toArray();
        if (!pairs.at(i).isArray() || pair.size() != 2) {
            const QString got = pairs.at(i).isArray() ? QStringLiteral("an array of %1").arg(pair.size()) : kindOf(pairs.at(i));
            return fail(error, index(where, i), QStringLiteral("expected a [key, value] pair, got ") + got);
        }
        entries->push_back({pair.at(0), pair.at(1), false, index(index(where, i), 0), index(index(where, i), 1)});
    }
    return true;
}

// A key given as an object member's name is first read as its type; pairs
// give keys as JSON values.
QVariant entryKey(const Type &keyType, const Entry &entry, QString *error)
{
    QJsonValue key = entry.key;
    const QString name = key.toString();
    QString problem;
    if (entry.keyIsName) {
        bool ok = false;
        switch (keyType.code) {
        case 's':
        case 'o':
        case 'g':
            break;
        case 'b':
            if (name == QLatin1String("true") || name == QLatin1String("false"))
                key = name == QLatin1String("true");
            else
                problem = QStringLiteral("key \"%1\" is not true or false");
            break;
        case 'd':
            key = name.toDouble(&ok);
            if (!ok)
                problem = QStringLiteral("key \"%1\" is not a number");
            break;
        default:
            if (!isDecimal(name))
                problem = QStringLiteral("key \"%1\" is not an integer");
            else if (const qint64 n = name.toLongLong(&ok); ok)
                key = n;
            else if (keyType.code != 'x' && keyType.code != 't')  // those read decimal strings themselves
                key = name.toDouble();  // beyond 64 bits: out of range
        }
        if (!problem.isEmpty()) {
            fail(error, entry.keyWhere, problem.arg(name));
            return {};
        }
    }
    const QVariant value = basicValue(keyType, key, &problem);
    if (!value.isValid())
        fail(error, entry.keyWhere, problem);
    return value;
}

// libdbus refuses a message whose values nest deeper than this, variants
// included. QtDBus sends such a message all the same, and the connection is
// closed on it.
const int MaxDepth = 64;

QVariant notationValue(const QJsonValue &json, const QString &where, QString *error, int depth);

// A value checked against its type, ready to marshal. Basic values and the
// contents of a variant are in `value`, so is an ay given as a string; the
// elements of a container are in `items`, a dictionary's as key, value, key...
// Everything is checked before anything is written: libdbus aborts when a
// container is closed half written.
struct Node
{
    QVariant value;
    std::vector<Node> items;
    bool fromPairs = false;
};

// `depth` counts the containers (arrays, structures, dictionary entries and
// variants) around the value when it is sent as an argument of its own.
bool convert(const Type &type, const QJsonValue &json, const QString &where, Node *node, QString *error, int depth)
{
    if (depth > MaxDepth)
        return fail(error, where, QStringLiteral("nested more than %1 containers deep").arg(MaxDepth));
    QString problem;
    switch (type.code) {
    case 'v':
        node->value = notationValue(json, where, error, depth + 1);
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
            if (!convert(element, array.at(i), index(where, i), &node->items[std::size_t(i)], error, depth + 1))
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
        node->fromPairs = json.isArray();
        for (const Entry &entry : entries) {
            node->items.emplace_back();
            node->items.back().value = entryKey(type.children[0], entry, error);
            if (!node->items.back().value.isValid())
                return false;
            node->items.emplace_back();
            if (!convert(type.children[1], entry.value, entry.valueWhere, &node->items.back(), error, depth + 2))
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
            if (!convert(type.children[field], fields.at(i), index(where, i), &node->items[field], error, depth + 1))
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

// The value of a type from JSON. Basic types, v, as, ay, av and a{sv} (but for
// one given as pairs, which may repeat keys) come as the Qt types QtDBus sends
// as them; every other container as a marshalled QDBusArgument.
QVariant typedValue(const Type &type, const QJsonValue &json, const QString &where, QString *error, int depth)
{
    Node node;
    if (!convert(type, json, where, &node, error, depth))
        return {};
    if (isBasicCode(type.code))
        return node.value;
    if (type.code == 'v')
        return QVariant::fromValue(QDBusVariant(node.value));
    const int id = builtinTypeId(type);
    if (id == QMetaType::QVariantMap && !node.fromPairs) {
        QVariantMap map;
        for (std::size_t i = 0; i + 1 < node.items.size(); i += 2)
            map.insert(node.items[i].value.toString(), node.items[i + 1].value);
        return map;
    }
    if (id == QMetaType::QStringList || id == QMetaType::QVariantList || id == QMetaType::QByteArray) {
        if (node.value.isValid())
            return node.value;  // ay from a string
        QVariantList items;
        for (const Node &item : node.items)
            items << item.value;
        if (id == QMetaType::QVariantList)
            return items;
        if (id == QMetaType::QStringList)
            return QVariant(items).toStringList();
        QByteArray bytes;
        for (const QVariant &item : items)
            bytes.append(char(item.value<uchar>()));
        return bytes;
    }
    QDBusArgument arg;
    marshal(arg, type, node);
    return QVariant::fromValue(arg);
}

bool isTypeObject(const QJsonObject &object)
{
    return object.size() == 1 && object.begin().key().startsWith(QLatin1Char('@'));
}

// Any notation: the type plain JSON takes, or the one given with "@".
QVariant notationValue(const QJsonValue &json, const QString &where, QString *error, int depth)
{
    static const Type s = typeOf("s"), b = typeOf("b"), i = typeOf("i"), x = typeOf("x"), d = typeOf("d"),
                      as = typeOf("as"), av = typeOf("av"), asv = typeOf("a{sv}");
    switch (json.type()) {
    case QJsonValue::Bool:
        return typedValue(b, json, where, error, depth);
    case QJsonValue::String:
        return typedValue(s, json, where, error, depth);
    case QJsonValue::Double: {
        const bool exact = json.toVariant().userType() == QMetaType::LongLong;  // integral, within 64 bits
        const double value = json.toDouble();
        if (!exact && std::floor(value) != value)
            return typedValue(d, json, where, error, depth);
        if (!exact && (value < -TwoPow63 || value >= TwoPow63)) {
            fail(error, where, QStringLiteral("%1 is out of range for 'x'; write {\"@d\": ...} for a double").arg(numberText(json)));
            return {};
        }
        const bool small = value >= std::numeric_limits<qint32>::min() && value <= std::numeric_limits<qint32>::max();
        return typedValue(small ? i : x, json, where, error, depth);
    }
    case QJsonValue::Array: {
        const QJsonArray array = json.toArray();
        const bool strings = std::all_of(array.begin(), array.end(), [](const QJsonValue &item) { return item.isString(); });
        return typedValue(strings ? as : av, json, where, error, depth);
    }
    case QJsonValue::Object: {
        const QJsonObject object = json.toObject();
        if (!isTypeObject(object))
            return typedValue(asv, json, where, error, depth);
        const QString signature = object.begin().key().mid(1);
        Type type;
        QString problem;
        if (!parseExplicitType(signature, &type, &problem)) {
            fail(error, where, QStringLiteral("invalid type \"@%1\": %2").arg(signature, problem));
            return {};
        }
        return typedValue(type, object.begin().value(), where, error, depth);
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
    return notationValue(json, where, error ? error : &ignored, 0);
}

std::optional<QVariantMap> typedJsonMap(const QJsonObject &json, const QString &where, QString *error)
{
    QString ignored;
    if (!error)
        error = &ignored;
    QJsonValue members = json;
    if (isTypeObject(json)) {
        members = json.begin().value();
        if (json.begin().key() != QLatin1String("@a{sv}")) {
            fail(error, where, QStringLiteral("expected a dictionary (a{sv}), got type \"%1\"").arg(json.begin().key()));
            return std::nullopt;
        }
        if (!members.isObject()) {
            fail(error, where, QStringLiteral("expected an object for 'a{sv}', got ") + kindOf(members));
            return std::nullopt;
        }
    }
    const QVariant map = typedValue(typeOf("a{sv}"), members, where, error, 0);
    if (!map.isValid())
        return std::nullopt;
    return map.toMap();
}
