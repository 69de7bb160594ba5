#include "device/HLDError.h"

#include <QFile>
#include <array>

namespace {

constexpr std::array<const char*, 20> kQFCNames = {
    "kQFCSuccess",            "kQFCUndefinedError",       "kQFCBadHeaderError",   "kQFCNoResourcesError",
    "kQFCReadError",          "kQFCWriteError",           "kQFCUnknownPacketError", "kQFCInvalidArgumentError",
    "kQFCNotFoundError",      "kQFCIsDirectoryError",     "kQFCPermissionError",  "kQFCNotConnectedError",
    "kQFCTimeOutError",       "kQFCOverrunError",         "kQFCEOFError",
    "kQFCFileExistsError",  // 15: the same name as 16, there is no other
    "kQFCFileExistsError",    "kQFCBusyError",            "kQFCNoSpaceError",     "kQFCWouldBlockError",
};

// Offsets from 0xE8000001; nullptr where the table has no row (0x25, 0x26).
constexpr std::array<const char*, 0x28> kHLDNames = {
    "kHLDUndefinedError",        "kHLDBadHeaderError",       "kHLDNoResourcesError",
    "kHLDReadError",             "kHLDWriteError",           "kHLDUnknownPacketError",
    "kHLDInvalidArgumentError",  "kHLDNotFoundError",        "kHLDIsDirectoryError",
    "kHLDPermissionError",       "kHLDNotConnectedError",    "kHLDTimeOutError",
    "kHLDOverrunError",          "kHLDEOFError",             "kHLDUnsupportedError",
    "kHLDFileExistsError",       "kHLDBusyError",            "kHLDCryptoError",
    "kHLDInvalidResponseError",  "kHLDMissingKeyError",      "kHLDMissingValueError",
    "kHLDGetProhibitedError",    "kHLDSetProhibitedError",   "kHLDRemoveProhibitedError",
    "kHLDImmutableValueError",   "kHLDPasswordProtectedError", "kHLDMissingHostIDError",
    "kHLDInvalidHostIDError",    "kHLDSessionActiveError",   "kHLDSessionInactiveError",
    "kHLDMissingSessionIDError", "kHLDInvalidSessionIDError", "kHLDMissingServiceError",
    "kHLDInvalidServiceError",   "kHLDInvalidCheckinError",  "kHLDCheckinTimeoutError",
    "kHLDMissingPairRecordError", nullptr,                   nullptr,
    "kHLDWrongDroidError",
};

}  // namespace

QString QFCStatusName(HLDStatus status)
{
    const uint32_t code = static_cast<uint32_t>(status);
    if (code >= kQFCNames.size()) return QString();
    return QString::fromLatin1(kQFCNames[code]);
}

QString HLDStatusName(HLDStatus status)
{
    QString name = QFCStatusName(status);
    if (!name.isNull()) return name;
    const uint32_t offset = static_cast<uint32_t>(status) + 0x17FFFFFFu;  // code - 0xE8000001
    if (offset <= 0x27u && kHLDNames[offset]) return QString::fromLatin1(kHLDNames[offset]);
    return QStringLiteral("Unknown Error (%1)").arg(status);
}

Error ErrorCopyFromHLDError(HLDStatus status, const QString& message)
{
    const QString description = QStringLiteral("HLDError: '%1', hld_error = %2 (%3).")
                                    .arg(message, QString::number(status), HLDStatusName(status));
    return Error(platform::kHLDErrorDomain, static_cast<qint64>(status), description);
}

Error ErrorFromHLDError(HLDStatus status, const QString& message)
{
    return ErrorCopyFromHLDError(status, message);
}

Error ErrorFromPOSIXError(const QString& path, int errorNumber)
{
    return Error(platform::kPOSIXErrorDomain, errorNumber, QString(), path);
}

HLDStatus QFCFileRefOpenChecked(QFCConnectionRef connection, const QString& path, uint64_t mode, QFCFileRef* outRef)
{
    const QByteArray encoded = QFile::encodeName(path);
    const HLDStatus status = QFCFileRefOpen(connection, encoded.constData(), mode, outRef);
    if (status != 0 && outRef) {
        if (*outRef != kQFCInvalidFileRef) QFCFileRefClose(connection, *outRef);
        *outRef = kQFCInvalidFileRef;
    }
    return status;
}
