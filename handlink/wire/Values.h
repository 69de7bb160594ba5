#pragma once
// Property-list values on the wire: QVariant (platform/PropertyList.h types) <-> CBOR, keeping
// the type. string <-> text string; integer <-> integer; real <-> float; bool <-> simple
// true/false; date <-> tag 0 (date/time text with its zone, decoded as UTC to the millisecond;
// encodeFrame() writes it, see Frame.h); data <-> byte string; array <-> array; dictionary
// (QVariantMap or OrderedDict) <-> map with text keys (decoded as QVariantMap).
#include <QCborMap>
#include <QCborValue>
#include <QString>
#include <QVariant>

namespace handlink::wire {

// An invalid QVariant or a type outside the list encodes as CBOR undefined.
QCborValue toCbor(const QVariant& value);
// Undefined, null, and anything outside the list decode as an invalid QVariant.
QVariant fromCbor(const QCborValue& value);

// A value as a field of a request or answer. "No value" is the absence of the field: an invalid
// QVariant, or one of a type outside the list, leaves the map without it.
void insertValue(QCborMap* map, const QString& field, const QVariant& value);
// The field's value; an invalid QVariant when the field is absent (or holds no value).
QVariant valueField(const QCborMap& map, const QString& field);

}  // namespace handlink::wire
