#pragma once
// Per-user defaults store: typed values by key on top of QSettings.
//
// Thread affinity: any thread may read or write. The QSettings object is guarded by a
// std::mutex. valueChanged() is always emitted on the main thread (a write from a worker
// is handed over through the main-thread dispatcher), so widgets can follow keys.
// An unset key reads false / 0 / 0.0 / empty; hasValue() tells unset from set-to-false.
// A value of the wrong type (say, text under a flag key) reads as the unset value.
#include <QObject>
#include <QString>
#include <QVariant>
#include <memory>
#include <mutex>

class QSettings;

namespace platform {

class Defaults : public QObject {
    Q_OBJECT
public:
    // The process-wide store, in the user's configuration folder (organisation "Corvid",
    // application "Vireo"), unless setStandardFile() pointed it elsewhere.
    static Defaults& standard();
    // Points the process-wide store at an INI file (tests, demo); call before first use or
    // at any time on the main thread to switch files.
    static void setStandardFile(const QString& iniPath);

    explicit Defaults(const QString& iniPath, QObject* parent = nullptr);
    ~Defaults() override;

    bool hasValue(const QString& key) const;
    // True when the key holds a value that boolForKey reads as a flag (not the unset fallback).
    bool holdsFlag(const QString& key) const;
    bool boolForKey(const QString& key) const;
    qint64 integerForKey(const QString& key) const;
    float floatForKey(const QString& key) const;
    QString stringForKey(const QString& key) const;
    QVariant objectForKey(const QString& key) const;  // invalid when unset

    void setBool(const QString& key, bool value);
    void setInteger(const QString& key, qint64 value);
    void setFloat(const QString& key, float value);
    void setString(const QString& key, const QString& value);
    void removeValue(const QString& key);
    void sync();

signals:
    // Emitted on the main thread after every write of the key (also when the value is equal).
    void valueChanged(const QString& key);

private:
    void write(const QString& key, const QVariant& value);
    void announce(const QString& key);

    mutable std::mutex _mutex;  // guards _settings
    std::unique_ptr<QSettings> _settings;
};

}  // namespace platform
