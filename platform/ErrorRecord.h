#pragma once
// The program's error record: an immutable value with a domain, a code, a localized
// description and, for local file failures, the failed path. Device failures use the domain
// "HLDError" (made by device/HLDError.h); local file failures the POSIX domain.
#include <QString>
#include <optional>

namespace platform {

inline const QString kHLDErrorDomain = QStringLiteral("HLDError");
inline const QString kPOSIXErrorDomain = QStringLiteral("NSPOSIXErrorDomain");

class ErrorRecord {
public:
    ErrorRecord(QString domain, qint64 code, QString localizedDescription,
                std::optional<QString> filePath = std::nullopt)
        : _domain(std::move(domain)), _code(code), _localizedDescription(std::move(localizedDescription)),
          _filePath(std::move(filePath)) {}

    const QString& domain() const { return _domain; }
    qint64 code() const { return _code; }
    // Empty for records that carry no description of their own (POSIX records).
    const QString& localizedDescription() const { return _localizedDescription; }
    const std::optional<QString>& filePath() const { return _filePath; }
    // The text used for "%@" in log lines and alerts: the localized description when there is
    // one, otherwise the domain, the code and the platform's text for it (and the path).
    QString description() const;

    bool operator==(const ErrorRecord& other) const = default;

private:
    QString _domain;
    qint64 _code;
    QString _localizedDescription;
    std::optional<QString> _filePath;
};

// Records are handed around as values; absent is std::nullopt.
using Error = ErrorRecord;

}  // namespace platform
