#include "handlink/emulator/RequestTable.h"

#include "handlink/wire/Values.h"

#include <QCborValue>

namespace handlink::emu::req {

namespace {

bool hasType(const QCborValue& value, const Field& field) {
    switch (field.type) {
    case Type::Text: return value.isString();
    case Type::Bytes: return value.isByteArray();
    case Type::Integer: return value.isInteger() && value.toInteger() >= field.min && value.toInteger() <= field.max;
    case Type::Bool: return value.isBool();
    case Type::Map: return value.isMap();
    case Type::Value: return wire::fromCbor(value).isValid();
    }
    return false;
}

QString expected(const Field& field) {
    switch (field.type) {
    case Type::Text: return QStringLiteral("a text");
    case Type::Bytes: return QStringLiteral("a byte string");
    case Type::Integer:
        if (field.min == kAnyMin && field.max == kAnyMax) return QStringLiteral("an integer");
        if (field.max == kAnyMax) return QStringLiteral("an integer of at least %1").arg(field.min);
        return QStringLiteral("an integer from %1 to %2").arg(field.min).arg(field.max);
    case Type::Bool: return QStringLiteral("true or false");
    case Type::Map: return QStringLiteral("a map");
    case Type::Value: return QStringLiteral("a property-list value");
    }
    return QString();
}

}  // namespace

QString checkFields(const QCborMap& request, const Field (&fields)[kMaxFields]) {
    for (const Field& field : fields) {
        if (!field.name) break;
        const QString name = QLatin1String(field.name);
        if (!request.contains(name)) {
            if (field.required) return QStringLiteral("\"%1\" needs \"%2\"").arg(opName(request), name);
            continue;
        }
        if (!hasType(request.value(name), field))
            return QStringLiteral("\"%1\" of \"%2\" must be %3").arg(name, opName(request), expected(field));
    }
    return QString();
}

QString opName(const QCborMap& request) {
    const QCborValue op = request.value(QStringLiteral("op"));
    if (op.isString()) return op.toString();
    return request.contains(QStringLiteral("op")) ? QStringLiteral("(op that is not a text)") : QStringLiteral("(no op)");
}

}  // namespace handlink::emu::req
