#include "handlink/wire/Values.h"

#include "platform/PropertyList.h"

#include <QCborArray>
#include <QCborMap>
#include <QDateTime>
#include <QTimeZone>
#include <limits>

namespace handlink::wire {

QCborValue toCbor(const QVariant& value) {
    if (!value.isValid()) return QCborValue(QCborSimpleType::Undefined);
    if (value.userType() == qMetaTypeId<platform::OrderedDict>()) {
        QCborMap map;
        const platform::OrderedDict dict = value.value<platform::OrderedDict>();  // items() refers into it
        for (const auto& item : dict.items()) map.insert(item.first, toCbor(item.second));
        return map;
    }
    switch (value.typeId()) {
    case QMetaType::QString: return QCborValue(value.toString());
    case QMetaType::Bool: return QCborValue(value.toBool());
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::Char:
    case QMetaType::SChar:
        return QCborValue(static_cast<qint64>(value.toLongLong()));
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::UShort:
    case QMetaType::UChar:
        return QCborValue(static_cast<qint64>(value.toULongLong()));
    case QMetaType::ULongLong: {
        const quint64 u = value.toULongLong();
        // CBOR can carry the full range, QCborValue only signed 64 bits: keep what fits.
        return QCborValue(u > quint64(std::numeric_limits<qint64>::max()) ? std::numeric_limits<qint64>::max()
                                                                          : static_cast<qint64>(u));
    }
    case QMetaType::Double:
    case QMetaType::Float:
        return QCborValue(value.toDouble());
    case QMetaType::QDateTime: return QCborValue(value.toDateTime().toUTC());
    case QMetaType::QByteArray: return QCborValue(value.toByteArray());
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        QCborArray array;
        for (const QVariant& item : value.toList()) array.append(toCbor(item));
        return array;
    }
    case QMetaType::QVariantMap: {
        QCborMap map;
        const QVariantMap m = value.toMap();
        for (auto it = m.begin(); it != m.end(); ++it) map.insert(it.key(), toCbor(it.value()));
        return map;
    }
    default: return QCborValue(QCborSimpleType::Undefined);
    }
}

QVariant fromCbor(const QCborValue& value) {
    switch (value.type()) {
    case QCborValue::String: return value.toString();
    case QCborValue::Integer: return QVariant::fromValue<qint64>(value.toInteger());
    case QCborValue::Double: return value.toDouble();
    case QCborValue::True: return true;
    case QCborValue::False: return false;
    case QCborValue::DateTime: {
        // A date text must say its zone ("Z" or an offset); one without would be read in the
        // local time of whoever reads it.
        const QDateTime date = value.toDateTime();
        if (!date.isValid() || date.timeSpec() == Qt::LocalTime) return QVariant();
        return date.toUTC();
    }
    case QCborValue::ByteArray: return value.toByteArray();
    case QCborValue::Array: {
        QVariantList list;
        const QCborArray array = value.toArray();
        for (const QCborValue& item : array) list.append(fromCbor(item));
        return list;
    }
    case QCborValue::Map: {
        QVariantMap map;
        const QCborMap m = value.toMap();
        for (auto it = m.begin(); it != m.end(); ++it) {
            if (!it.key().isString()) continue;  // property-list dictionaries have text keys
            map.insert(it.key().toString(), fromCbor(it.value()));
        }
        return map;
    }
    default: return QVariant();
    }
}

void insertValue(QCborMap* map, const QString& field, const QVariant& value) {
    const QCborValue encoded = toCbor(value);
    if (encoded.isUndefined()) return;
    map->insert(field, encoded);
}

QVariant valueField(const QCborMap& map, const QString& field) {
    return map.contains(field) ? fromCbor(map.value(field)) : QVariant();
}

}  // namespace handlink::wire
