// QFCFileInfo: the file information record of one device path, and the human size text.
#include "device/QFCFileInfo.h"

#include <QFile>
#include <array>

#include "platform/Describe.h"

namespace {

// Leading blanks, an optional sign, then decimal digits up to the first other character,
// accumulated modulo 2^64; no digits read as 0.
int64_t parseDecimal(QStringView text)
{
    qsizetype i = 0;
    while (i < text.size() && text[i].isSpace()) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == u'-' || text[i] == u'+')) negative = text[i++] == u'-';
    uint64_t value = 0;
    for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i) value = value * 10 + (text[i].unicode() - u'0');
    return static_cast<int64_t>(negative ? 0 - value : value);
}

// The device's sizes and block counts are read through a signed 32-bit integer.
int32_t parseInt32(QStringView text)
{
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(parseDecimal(text))));
}

struct TypeName {
    const char16_t* name;
    uint32_t bits;
};

constexpr std::array<TypeName, 8> kTypeNames = {{
    {u"S_IFCHR", 0x2000},
    {u"S_IFDIR", 0x4000},
    {u"S_IFBLK", 0x6000},
    {u"S_IFREG", 0x8000},
    {u"S_IFLNK", 0xA000},
    {u"S_IFSOCK", 0xC000},
    {u"S_IFWHT", 0xE000},
    {u"S_IFXATTR", 0x10000},
}};

// The type bits of a comma list of names: exact names OR-ed together, empty items skipped,
// unknown names adding nothing.
uint32_t typeMask(QStringView list)
{
    uint32_t mask = 0;
    for (const QStringView item : list.tokenize(u',', Qt::SkipEmptyParts)) {
        for (const TypeName& type : kTypeNames) {
            if (item == QStringView(type.name)) {
                mask |= type.bits;
                break;
            }
        }
    }
    return mask;
}

enum class Key { Size, Blocks, Type, Birth, Modification };

struct KeyParse {
    const char16_t* name;
    Key key;
};

constexpr std::array<KeyParse, 5> kKeys = {{
    {u"st_size", Key::Size},
    {u"st_blocks", Key::Blocks},
    {u"st_ifmt", Key::Type},
    {u"st_birthtime", Key::Birth},
    {u"st_mtime", Key::Modification},
}};

const char* const kSizeUnits[] = {"B", "KB", "MB", "GB", "TB", "PB", "EB", "ZB", "YB", nullptr};

}  // namespace

QFCFileInfo::QFCFileInfo(const QString& path, QFCConnectionRef connection, std::optional<Error>* error)
{
    const std::optional<RawInfo> info = _gatherInfoForPath(path, connection, error);
    if (!info) return;
    _path = path;
    _updateStateForRawInfo(*info);
}

std::optional<QFCFileInfo::RawInfo> QFCFileInfo::_gatherInfoForPath(const QString& path, QFCConnectionRef connection,
                                                                    std::optional<Error>* error)
{
    const QByteArray encoded = QFile::encodeName(path);
    QFCKeyValueRef iterator = nullptr;
    HLDStatus status = QFCFileInfoOpen(connection, encoded.constData(), &iterator);
    if (status != 0) {
        if (error) {
            *error = ErrorCopyFromHLDError(
                status, QStringLiteral("unable to get file info for: %1.").arg(platform::describeString(path)));
        }
        return std::nullopt;
    }
    RawInfo info;
    for (;;) {
        const char* key = nullptr;
        const char* value = nullptr;
        status = QFCKeyValueRead(iterator, &key, &value);
        if (status != 0 || !key || !value) break;
        info.insert(QString::fromUtf8(key), QString::fromUtf8(value));
    }
    std::optional<Error> brokenOff;
    if (status != 0) {
        brokenOff = ErrorCopyFromHLDError(
            status, QStringLiteral("Reading KVC key/values from: %1.").arg(platform::describeString(path)));
    }
    QFCKeyValueClose(iterator);
    if (brokenOff && error) *error = std::move(brokenOff);
    return info;
}

void QFCFileInfo::_updateStateForRawInfo(const RawInfo& info)
{
    for (auto it = info.cbegin(); it != info.cend(); ++it) {
        for (const KeyParse& parse : kKeys) {
            if (it.key() != QStringView(parse.name)) continue;
            switch (parse.key) {
            case Key::Size: _fileSize = static_cast<uint64_t>(static_cast<int64_t>(parseInt32(it.value()))); break;
            case Key::Blocks: _blockSize = static_cast<uint32_t>(parseInt32(it.value())); break;
            case Key::Type: _fmtMask = typeMask(it.value()); break;
            case Key::Birth: _creationDate = _dateFromQFCTSpecValue(it.value()); break;
            case Key::Modification: _modificationDate = _dateFromQFCTSpecValue(it.value()); break;
            }
            break;
        }
    }
}

QDateTime QFCFileInfo::_dateFromQFCTSpecValue(const QString& value) const
{
    const uint64_t nanoseconds = static_cast<uint64_t>(parseDecimal(value));
    return QDateTime::fromSecsSinceEpoch(static_cast<qint64>(nanoseconds / 1000000000u), Qt::UTC);
}

bool QFCFileInfo::isDirectory() const
{
    return (_fmtMask & 0xF000u) == 0x4000u;
}

QString QFCFileInfo::basePath() const
{
    return QStringLiteral("/var/mobile/Media/");
}

QString QFCFileInfo::description() const
{
    return QStringLiteral("<QFCFileInfo: 0x%1> - path = %2")
        .arg(QString::number(reinterpret_cast<quintptr>(this), 16), platform::describeString(_path));
}

QString PathviewStyleFileSizeForSizeInBytes(uint64_t bytes)
{
    uint64_t value = bytes;
    uint64_t previous = 0;
    size_t unit = 0;
    while (kSizeUnits[unit] && value != 0 && value > 1023) {
        previous = value;
        value >>= 10;
        ++unit;
    }
    // Halves rounded away from zero; 1019 and more give 100, printed as it is.
    const int hundredths = static_cast<int>((200 * (previous & 1023) + 1024) / 2048);
    const QString name = QString::fromLatin1(kSizeUnits[unit]);
    if (hundredths != 0)
        return QStringLiteral("%1.%2 %3").arg(static_cast<qlonglong>(value)).arg(hundredths, 2, 10, QLatin1Char('0')).arg(name);
    return QStringLiteral("%1 %2").arg(static_cast<qlonglong>(value)).arg(name);
}
