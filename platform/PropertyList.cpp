#include "platform/PropertyList.h"

#include <QDateTime>
#include <QFile>
#include <QSaveFile>
#include <QTimeZone>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

namespace platform {

void OrderedDict::insert(const QString& key, const QVariant& value) {
    for (auto& item : _items) {
        if (item.first == key) {
            item.second = value;
            return;
        }
    }
    _items.append({key, value});
}

QVariant OrderedDict::value(const QString& key) const {
    for (const auto& item : _items)
        if (item.first == key) return item.second;
    return {};
}

bool OrderedDict::contains(const QString& key) const {
    return std::any_of(_items.begin(), _items.end(), [&](const auto& item) { return item.first == key; });
}

namespace plist {

namespace {

constexpr int kMaxDepth = 512;

void writeValue(QXmlStreamWriter& w, const QVariant& v) {
    switch (v.typeId()) {
    case QMetaType::Bool: w.writeEmptyElement(v.toBool() ? QStringLiteral("true") : QStringLiteral("false")); return;
    case QMetaType::Int: case QMetaType::LongLong: case QMetaType::Short: case QMetaType::Char:
    case QMetaType::Long: case QMetaType::SChar:
        w.writeTextElement(QStringLiteral("integer"), QString::number(v.toLongLong()));
        return;
    case QMetaType::UInt: case QMetaType::ULongLong: case QMetaType::UShort: case QMetaType::UChar:
    case QMetaType::ULong:
        w.writeTextElement(QStringLiteral("integer"), QString::number(v.toULongLong()));
        return;
    case QMetaType::Double: case QMetaType::Float:
        w.writeTextElement(QStringLiteral("real"), QString::number(v.toDouble(), 'g', 17));
        return;
    case QMetaType::QDateTime:
        w.writeTextElement(QStringLiteral("date"),
                           v.toDateTime().toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ssZ")));
        return;
    case QMetaType::QByteArray:
        w.writeTextElement(QStringLiteral("data"), QString::fromLatin1(v.toByteArray().toBase64()));
        return;
    case QMetaType::QVariantList: case QMetaType::QStringList:
        w.writeStartElement(QStringLiteral("array"));
        for (const QVariant& item : v.toList()) writeValue(w, item);
        w.writeEndElement();
        return;
    case QMetaType::QVariantMap: {
        w.writeStartElement(QStringLiteral("dict"));
        const QVariantMap map = v.toMap();
        for (auto it = map.begin(); it != map.end(); ++it) {
            w.writeTextElement(QStringLiteral("key"), it.key());
            writeValue(w, it.value());
        }
        w.writeEndElement();
        return;
    }
    default:
        break;
    }
    if (v.canConvert<OrderedDict>() && v.typeId() == qMetaTypeId<OrderedDict>()) {
        w.writeStartElement(QStringLiteral("dict"));
        for (const auto& [key, value] : v.value<OrderedDict>().items()) {
            w.writeTextElement(QStringLiteral("key"), key);
            writeValue(w, value);
        }
        w.writeEndElement();
        return;
    }
    w.writeTextElement(QStringLiteral("string"), v.toString());
}

class Reader {
public:
    Reader(const QByteArray& xml, bool keepOrder) : _r(xml), _keepOrder(keepOrder) {}

    std::optional<QVariant> read(QString* error) {
        std::optional<QVariant> result;
        if (!nextStart()) return fail(error, QStringLiteral("no <plist> element"));
        if (_r.name() != u"plist") return fail(error, QStringLiteral("root element is <%1>, not <plist>").arg(_r.name()));
        if (!nextStart()) return fail(error, QStringLiteral("<plist> holds no value"));
        result = value(0);
        if (!result) return fail(error, _message);
        // Only the end of <plist> and of the document may follow.
        while (!_r.atEnd()) {
            _r.readNext();
            if (_r.isStartElement()) return fail(error, QStringLiteral("more than one value in <plist>"));
            if (_r.isCharacters() && !_r.isWhitespace()) return fail(error, QStringLiteral("text after the value"));
        }
        if (_r.hasError()) return fail(error, _r.errorString());
        return result;
    }

private:
    std::nullopt_t fail(QString* error, const QString& message) {
        if (error) *error = QStringLiteral("line %1: %2").arg(QString::number(_r.lineNumber()), message);
        return std::nullopt;
    }

    // Moves to the next start element; false at an end element or the end of input.
    bool nextStart() {
        while (!_r.atEnd()) {
            _r.readNext();
            if (_r.isStartElement()) return true;
            if (_r.isEndElement()) return false;
            if (_r.isCharacters() && !_r.isWhitespace()) {
                _message = QStringLiteral("unexpected text");
                return false;
            }
        }
        return false;
    }

    std::optional<QVariant> bad(const QString& message) {
        _message = _r.hasError() ? _r.errorString() : message;
        return std::nullopt;
    }

    std::optional<QString> text() {
        const QString t = _r.readElementText(QXmlStreamReader::ErrorOnUnexpectedElement);
        if (_r.hasError()) return std::nullopt;
        return t;
    }

    // The reader stands on a start element; reads the value and its end element.
    std::optional<QVariant> value(int depth) {
        if (depth > kMaxDepth) return bad(QStringLiteral("nested too deeply"));
        const QString tag = _r.name().toString();
        if (tag == u"true" || tag == u"false") {
            if (!text()) return bad(QStringLiteral("bad <%1/>").arg(tag));
            return QVariant(tag == u"true");
        }
        if (tag == u"string" || tag == u"integer" || tag == u"real" || tag == u"date" || tag == u"data") {
            const auto t = text();
            if (!t) return bad(QStringLiteral("bad <%1>").arg(tag));
            return scalar(tag, *t);
        }
        if (tag == u"array") {
            QVariantList list;
            while (nextStart()) {
                auto item = value(depth + 1);
                if (!item) return std::nullopt;
                list << *item;
            }
            if (!_r.isEndElement()) return bad(QStringLiteral("unterminated <array>"));
            return QVariant(list);
        }
        if (tag == u"dict") return dict(depth);
        return bad(QStringLiteral("unknown element <%1>").arg(tag));
    }

    std::optional<QVariant> dict(int depth) {
        QVariantMap map;
        OrderedDict ordered;
        while (nextStart()) {
            if (_r.name() != u"key") return bad(QStringLiteral("<dict> expects <key>, found <%1>").arg(_r.name()));
            const auto key = text();
            if (!key) return bad(QStringLiteral("bad <key>"));
            if (!nextStart()) return bad(QStringLiteral("<key>%1</key> has no value").arg(*key));
            auto item = value(depth + 1);
            if (!item) return std::nullopt;
            if (_keepOrder) ordered.insert(*key, *item);
            else map.insert(*key, *item);
        }
        if (!_r.isEndElement()) return bad(QStringLiteral("unterminated <dict>"));
        return _keepOrder ? QVariant::fromValue(ordered) : QVariant(map);
    }

    std::optional<QVariant> scalar(const QString& tag, const QString& t) {
        bool ok = true;
        if (tag == u"string") return QVariant(t);
        if (tag == u"integer") {
            const QString s = t.trimmed();
            const qint64 n = s.toLongLong(&ok);
            if (ok) return QVariant(n);
            const quint64 u = s.toULongLong(&ok);
            if (ok) return QVariant(u);
            return bad(QStringLiteral("bad integer '%1'").arg(t));
        }
        if (tag == u"real") {
            const double d = t.trimmed().toDouble(&ok);
            if (ok) return QVariant(d);
            return bad(QStringLiteral("bad real '%1'").arg(t));
        }
        if (tag == u"date") {
            QDateTime dt = QDateTime::fromString(t.trimmed(), Qt::ISODate);
            if (!dt.isValid()) return bad(QStringLiteral("bad date '%1'").arg(t));
            return QVariant(dt.toUTC());
        }
        QByteArray raw = t.toLatin1();
        raw.replace('\n', "").replace('\t', "").replace(' ', "").replace('\r', "");
        auto decoded = QByteArray::fromBase64Encoding(raw, QByteArray::AbortOnBase64DecodingErrors);
        if (!decoded) return bad(QStringLiteral("bad base64 in <data>"));
        return QVariant(*decoded);
    }

    QXmlStreamReader _r;
    bool _keepOrder;
    QString _message;
};

}  // namespace

QByteArray toXml(const QVariant& value) {
    QByteArray out;
    QXmlStreamWriter w(&out);
    w.setAutoFormatting(true);
    w.setAutoFormattingIndent(-1);  // one tab per level
    w.writeStartDocument();
    w.writeDTD(QStringLiteral("<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">"));
    w.writeStartElement(QStringLiteral("plist"));
    w.writeAttribute(QStringLiteral("version"), QStringLiteral("1.0"));
    writeValue(w, value);
    w.writeEndElement();
    w.writeEndDocument();
    return out;
}

bool writeFile(const QString& path, const QVariant& value, QString* error) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        if (error) *error = file.errorString();
        return false;
    }
    file.write(toXml(value));
    if (!file.commit()) {
        if (error) *error = file.errorString();
        return false;
    }
    return true;
}

std::optional<QVariant> fromXml(const QByteArray& xml, QString* error, bool keepOrder) {
    return Reader(xml, keepOrder).read(error);
}

std::optional<QVariant> readFile(const QString& path, QString* error, bool keepOrder) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (error) *error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    return fromXml(file.readAll(), error, keepOrder);
}

bool isPropertyListValue(const QVariant& v) {
    switch (v.typeId()) {
    case QMetaType::Bool: case QMetaType::Int: case QMetaType::LongLong: case QMetaType::UInt:
    case QMetaType::ULongLong: case QMetaType::Double: case QMetaType::Float: case QMetaType::QString:
    case QMetaType::QDateTime: case QMetaType::QByteArray: case QMetaType::QStringList:
        return true;
    case QMetaType::QVariantList:
        for (const QVariant& item : v.toList())
            if (!isPropertyListValue(item)) return false;
        return true;
    case QMetaType::QVariantMap:
        for (const QVariant& item : v.toMap())
            if (!isPropertyListValue(item)) return false;
        return true;
    default:
        if (v.typeId() == qMetaTypeId<OrderedDict>()) {
            for (const auto& item : v.value<OrderedDict>().items())
                if (!isPropertyListValue(item.second)) return false;
            return true;
        }
        return false;
    }
}

}  // namespace plist
}  // namespace platform
