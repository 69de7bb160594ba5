#pragma once
// Property-list values on the wire: QVariant (platform/PropertyList.h types) <-> CBOR, keeping
// the type. string <-> text string; integer <-> integer; real <-> float; bool <-> simple
// true/false; date <-> tag 0 (date/time text); data <-> byte string; array <-> array;
// dictionary (QVariantMap or OrderedDict) <-> map with text keys (decoded as QVariantMap).
#include <QCborValue>
#include <QVariant>

namespace handlink::wire {

// An invalid QVariant or a type outside the list encodes as CBOR undefined.
QCborValue toCbor(const QVariant& value);
// Undefined, null, and anything outside the list decode as an invalid QVariant.
QVariant fromCbor(const QCborValue& value);

}  // namespace handlink::wire
