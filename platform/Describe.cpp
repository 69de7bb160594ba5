#include "platform/Describe.h"

#include <QDateTime>
#include <QStringList>

#include "platform/PropertyList.h"

namespace platform {

namespace {

QString indent(int level) { return QString(level * 4, u' '); }

// Strings with characters other than letters, digits and a few safe marks are quoted in
// nested positions, the way a property-list dump shows them.
QString quoted(const QString& s) {
    bool plain = !s.isEmpty();
    for (QChar c : s)
        if (!(c.isLetterOrNumber() || c == u'_' || c == u'.' || c == u'$' || c == u'/' || c == u':')) plain = false;
    if (plain) return s;
    QString escaped = s;
    escaped.replace(u'\\', QStringLiteral("\\\\")).replace(u'"', QStringLiteral("\\\""));
    return QStringLiteral("\"%1\"").arg(escaped);
}

QString describeAt(const QVariant& v, int level, bool nested);

QString describeEntries(const QList<QPair<QString, QVariant>>& entries, int level) {
    QString out = QStringLiteral("{\n");
    for (const auto& [key, value] : entries)
        out += QStringLiteral("%1%2 = %3;\n").arg(indent(level + 1), quoted(key), describeAt(value, level + 1, true));
    return out + indent(level) + u'}';
}

QString describeAt(const QVariant& v, int level, bool nested) {
    if (!v.isValid()) return QStringLiteral("(null)");
    switch (v.typeId()) {
    case QMetaType::Bool: return v.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QMetaType::Int: case QMetaType::LongLong: return QString::number(v.toLongLong());
    case QMetaType::UInt: case QMetaType::ULongLong: return QString::number(v.toULongLong());
    case QMetaType::Double: case QMetaType::Float: return QString::number(v.toDouble(), 'g', 17);
    case QMetaType::QString: return nested ? quoted(v.toString()) : v.toString();
    case QMetaType::QDateTime:
        return v.toDateTime().toUTC().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) + QStringLiteral(" +0000");
    case QMetaType::QByteArray: {
        const QByteArray hex = v.toByteArray().toHex();
        QString out = QStringLiteral("<");
        for (qsizetype i = 0; i < hex.size(); i += 8) {
            if (i) out += u' ';
            out += QString::fromLatin1(hex.mid(i, 8));
        }
        return out + u'>';
    }
    case QMetaType::QVariantList: case QMetaType::QStringList: {
        const QVariantList list = v.toList();
        if (list.isEmpty()) return QStringLiteral("(\n%1)").arg(indent(level));
        QStringList items;
        for (const QVariant& item : list) items << indent(level + 1) + describeAt(item, level + 1, true);
        return QStringLiteral("(\n%1\n%2)").arg(items.join(QStringLiteral(",\n")), indent(level));
    }
    case QMetaType::QVariantMap: {
        QList<QPair<QString, QVariant>> entries;
        const QVariantMap map = v.toMap();
        for (auto it = map.begin(); it != map.end(); ++it) entries.append({it.key(), it.value()});
        return describeEntries(entries, level);
    }
    default:
        if (v.typeId() == qMetaTypeId<OrderedDict>()) return describeEntries(v.value<OrderedDict>().items(), level);
        return v.toString();
    }
}

}  // namespace

QString describe(const QVariant& value) { return describeAt(value, 0, false); }

QString describeString(const QString& text) { return text.isNull() ? QStringLiteral("(null)") : text; }

}  // namespace platform
