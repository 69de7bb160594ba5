#include "platform/Defaults.h"

#include <QPointer>
#include <QSettings>

#include "platform/MainThread.h"

namespace platform {

namespace {

Defaults* g_standard = nullptr;
std::mutex g_standardMutex;  // guards g_standard creation

std::optional<bool> parseFlag(const QVariant& v) {
    switch (v.typeId()) {
    case QMetaType::Bool: return v.toBool();
    case QMetaType::Int: case QMetaType::LongLong: case QMetaType::UInt: case QMetaType::ULongLong:
        return v.toLongLong() != 0;
    case QMetaType::Double: case QMetaType::Float: return v.toDouble() != 0.0;
    case QMetaType::QString: {
        const QString s = v.toString().trimmed().toLower();
        if (s == u"true" || s == u"yes") return true;
        if (s == u"false" || s == u"no" || s.isEmpty()) return false;
        bool ok = false;
        const double d = s.toDouble(&ok);
        if (ok) return d != 0.0;
        return std::nullopt;
    }
    default: return std::nullopt;
    }
}

std::optional<double> parseNumber(const QVariant& v) {
    switch (v.typeId()) {
    case QMetaType::Bool: return v.toBool() ? 1.0 : 0.0;
    case QMetaType::Int: case QMetaType::LongLong: case QMetaType::UInt: case QMetaType::ULongLong:
    case QMetaType::Double: case QMetaType::Float: return v.toDouble();
    case QMetaType::QString: {
        const QString s = v.toString().trimmed();
        if (s == u"true") return 1.0;
        if (s == u"false") return 0.0;
        bool ok = false;
        const double d = s.toDouble(&ok);
        if (ok) return d;
        return std::nullopt;
    }
    default: return std::nullopt;
    }
}

}  // namespace

Defaults& Defaults::standard() {
    std::lock_guard lock(g_standardMutex);
    if (!g_standard) g_standard = new Defaults(QString());  // lives for the process
    return *g_standard;
}

void Defaults::setStandardFile(const QString& iniPath) {
    Defaults& store = standard();
    std::lock_guard lock(store._mutex);
    store._settings = std::make_unique<QSettings>(iniPath, QSettings::IniFormat);
}

Defaults::Defaults(const QString& iniPath, QObject* parent) : QObject(parent) {
    if (iniPath.isEmpty())
        _settings = std::make_unique<QSettings>(QSettings::IniFormat, QSettings::UserScope,
                                                QStringLiteral("Corvid"), QStringLiteral("Vireo"));
    else
        _settings = std::make_unique<QSettings>(iniPath, QSettings::IniFormat);
}

Defaults::~Defaults() = default;

QVariant Defaults::objectForKey(const QString& key) const {
    std::lock_guard lock(_mutex);
    return _settings->value(key);
}

bool Defaults::hasValue(const QString& key) const {
    std::lock_guard lock(_mutex);
    return _settings->contains(key);
}

bool Defaults::holdsFlag(const QString& key) const {
    return parseFlag(objectForKey(key)).has_value();
}

bool Defaults::boolForKey(const QString& key) const {
    return parseFlag(objectForKey(key)).value_or(false);
}

qint64 Defaults::integerForKey(const QString& key) const {
    const auto n = parseNumber(objectForKey(key));
    if (!n || *n != *n) return 0;
    if (*n >= 9.2e18 || *n <= -9.2e18) return 0;
    return static_cast<qint64>(*n);
}

float Defaults::floatForKey(const QString& key) const {
    return static_cast<float>(parseNumber(objectForKey(key)).value_or(0.0));
}

QString Defaults::stringForKey(const QString& key) const {
    const QVariant v = objectForKey(key);
    if (!v.isValid() || !v.canConvert<QString>()) return QString();
    return v.toString();
}

void Defaults::setBool(const QString& key, bool value) { write(key, value); }
void Defaults::setInteger(const QString& key, qint64 value) { write(key, value); }
void Defaults::setFloat(const QString& key, float value) { write(key, static_cast<double>(value)); }
void Defaults::setString(const QString& key, const QString& value) { write(key, value); }

void Defaults::removeValue(const QString& key) {
    {
        std::lock_guard lock(_mutex);
        _settings->remove(key);
        _settings->sync();
    }
    announce(key);
}

void Defaults::sync() {
    std::lock_guard lock(_mutex);
    _settings->sync();
}

void Defaults::write(const QString& key, const QVariant& value) {
    {
        std::lock_guard lock(_mutex);
        _settings->setValue(key, value);
        _settings->sync();  // written at once, so a crash keeps the user's choices
    }
    announce(key);
}

void Defaults::announce(const QString& key) {
    if (mainthread::isMainThread()) {
        emit valueChanged(key);
        return;
    }
    QPointer<Defaults> self(this);
    mainthread::post([self, key] {
        if (self) emit self->valueChanged(key);
    });
}

}  // namespace platform
