#pragma once
// The fields of the daemon's requests. Every connection kind keeps one static table of the
// requests it understands; each row names the request's "op", its handler and its fields with
// their CBOR types, whether each is required, and the range of an integer. The kind's
// dispatcher finds the row and checks the request against it with checkFields() before the
// handler runs, so a handler reads fields whose presence and type are settled: a missing or
// ill-typed field never turns into a default. Fields a row does not name are ignored.
#include <QCborMap>
#include <QString>
#include <cstdint>
#include <limits>

namespace handlink::emu::req {

enum class Type {
    Text,     // text string
    Bytes,    // byte string
    Integer,  // integer within [min, max]
    Bool,     // true or false
    Map,      // map
    Value,    // a property-list value (docs/protocol.md, "Property-list values")
};

constexpr qint64 kAnyMin = std::numeric_limits<qint64>::min();
constexpr qint64 kAnyMax = std::numeric_limits<qint64>::max();
// Counts and times are kept as int.
constexpr qint64 kCountMax = std::numeric_limits<int>::max();
// Statuses are the library's signed 32-bit codes.
constexpr qint64 kStatusMin = std::numeric_limits<int32_t>::min();
constexpr qint64 kStatusMax = std::numeric_limits<int32_t>::max();

struct Field {
    const char* name = nullptr;  // nullptr: no more fields
    Type type = Type::Text;
    bool required = false;
    qint64 min = kAnyMin;
    qint64 max = kAnyMax;
};

// The most fields one request has.
constexpr int kMaxFields = 8;

constexpr Field need(const char* name, Type type, qint64 min = kAnyMin, qint64 max = kAnyMax) {
    return Field{name, type, true, min, max};
}
constexpr Field may(const char* name, Type type, qint64 min = kAnyMin, qint64 max = kAnyMax) {
    return Field{name, type, false, min, max};
}

// Empty when the request has every required field and every field it carries of those listed
// has its type (and range); otherwise a message for people that names the first field wrong.
QString checkFields(const QCborMap& request, const Field (&fields)[kMaxFields]);

// The row of the table whose op equals the request's "op" (a text), or nullptr.
template <class Row, size_t N>
const Row* findRow(const Row (&table)[N], const QCborMap& request) {
    const QCborValue op = request.value(QStringLiteral("op"));
    if (!op.isString()) return nullptr;
    const QString name = op.toString();
    for (const Row& row : table)
        if (name == QLatin1String(row.op)) return &row;
    return nullptr;
}

// The request's "op" for messages: its text, or what it is instead.
QString opName(const QCborMap& request);

}  // namespace handlink::emu::req
