#pragma once
// XML property lists (the Apple plist 1.0 form) to and from QVariant.
//
// Types: dict  <-> QVariantMap (keys sorted) or platform::OrderedDict (keys in given order);
//        array <-> QVariantList; string <-> QString; integer <-> qint64 (quint64 written too);
//        real <-> double; true/false <-> bool; date <-> QDateTime (UTC, to the second);
//        data <-> QByteArray (base64).
// The reader returns QVariantMap for dict unless asked to keep order. It rejects malformed
// input with a message naming the line; it never crashes.
#include <QByteArray>
#include <QList>
#include <QMetaType>
#include <QPair>
#include <QString>
#include <QVariant>
#include <optional>

namespace platform {

// A dictionary that keeps its keys in the order they were added.
class OrderedDict {
public:
    void insert(const QString& key, const QVariant& value);  // replaces in place if present
    QVariant value(const QString& key) const;
    bool contains(const QString& key) const;
    qsizetype size() const { return _items.size(); }
    bool isEmpty() const { return _items.isEmpty(); }
    const QList<QPair<QString, QVariant>>& items() const { return _items; }
    bool operator==(const OrderedDict& other) const { return _items == other._items; }

private:
    QList<QPair<QString, QVariant>> _items;
};

namespace plist {

QByteArray toXml(const QVariant& value);
// Writes atomically (temporary file, then rename). On failure returns false and sets *error.
bool writeFile(const QString& path, const QVariant& value, QString* error = nullptr);

std::optional<QVariant> fromXml(const QByteArray& xml, QString* error = nullptr, bool keepOrder = false);
std::optional<QVariant> readFile(const QString& path, QString* error = nullptr, bool keepOrder = false);

// True when the value is one of the types above (recursively).
bool isPropertyListValue(const QVariant& value);

}  // namespace plist
}  // namespace platform

Q_DECLARE_METATYPE(platform::OrderedDict)
