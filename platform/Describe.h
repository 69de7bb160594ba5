#pragma once
// Text of an object argument in a log line or message ("%@"): an absent object writes
// "(null)". Property-list values are described the way a property-list dump prints them.
#include <QString>
#include <QVariant>

namespace platform {

// Describes a property-list value: a string as itself, numbers in decimal, a flag as 1 or 0,
// a date as "YYYY-MM-DD hh:mm:ss +0000", data as <0a0b0c0d 0e>, arrays as ( a, b ),
// dictionaries as { key = value; }. An invalid QVariant gives "(null)".
QString describe(const QVariant& value);
// A null QString gives "(null)"; any other string is itself.
QString describeString(const QString& text);

}  // namespace platform
