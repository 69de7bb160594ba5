#pragma once
// QFCFileInfo: path, size, block count, file-type bits and dates of one device path, read
// through the file-conduit connection as text key/value pairs and parsed into typed fields.
//
// Made and read on the thread of the job that holds the connection; no lock of its own.
#include <QDateTime>
#include <QMap>
#include <QString>
#include <cstdint>
#include <optional>

#include "device/HLDError.h"
#include "handlink/Handlink.h"

class QFCFileInfo {
public:
    // The pairs as the device reported them, text by key (a repeated key keeps its last value).
    using RawInfo = QMap<QString, QString>;

    // A record in its zero state: no path, size 0, no type bits, no dates.
    QFCFileInfo() = default;

    // initForPath: reads and parses the information of path (relative to the media root). When
    // nothing could be read the record stays in its zero state (no path either); when the pair
    // list broke off it holds what arrived. Either way *error (if given) gets the error, and it
    // is the only sign of failure: callers test it, not the record.
    QFCFileInfo(const QString& path, QFCConnectionRef connection, std::optional<Error>* error);

    // The raw pairs of path, or nothing when the information could not be opened ("unable to
    // get file info for: <path>."); after a pair list that broke off, the pairs read so far
    // ("Reading KVC key/values from: <path>."). The error goes to *error when given.
    static std::optional<RawInfo> _gatherInfoForPath(const QString& path, QFCConnectionRef connection,
                                                     std::optional<Error>* error);

    // Parses the pairs into the fields: "st_size" (read through a signed 32-bit integer, then
    // widened with its sign), "st_blocks", "st_ifmt" (comma list of type names), "st_birthtime"
    // and "st_mtime" (nanoseconds since 1970). Other keys are ignored; missing keys leave their
    // fields as they were.
    void _updateStateForRawInfo(const RawInfo& info);
    // Whole seconds after 1970-01-01 00:00:00 UTC: the text read as a signed 64-bit count of
    // nanoseconds, divided as an unsigned 64-bit number (a negative value lands far in the
    // future). Text that is not a number reads as 0.
    QDateTime _dateFromQFCTSpecValue(const QString& value) const;

    const QString& path() const { return _path; }
    void setPath(const QString& path) { _path = path; }
    const std::optional<QDateTime>& creationDate() const { return _creationDate; }
    void setCreationDate(const std::optional<QDateTime>& date) { _creationDate = date; }
    const std::optional<QDateTime>& modificationDate() const { return _modificationDate; }
    void setModificationDate(const std::optional<QDateTime>& date) { _modificationDate = date; }
    uint64_t sizeInBytes() const { return _fileSize; }
    // Type bits AND 0xF000 equal 0x4000.
    bool isDirectory() const;
    // "/var/mobile/Media/": the device folder at which file-conduit paths are rooted.
    QString basePath() const;
    // "<QFCFileInfo: 0x…> - path = <path>" ("(null)" for no path).
    QString description() const;

    // The raw type bits and block count, read-only (for listings and diagnostics).
    uint32_t fmtMask() const { return _fmtMask; }
    uint32_t blockSize() const { return _blockSize; }

private:
    QString _path;
    std::optional<QDateTime> _creationDate;
    std::optional<QDateTime> _modificationDate;
    uint64_t _fileSize = 0;
    uint32_t _blockSize = 0;  // a count of blocks
    uint32_t _fmtMask = 0;
};

// A byte count for people: binary steps of 1024 with the unit names "B", "KB", … "YB", and two
// decimals from the low 10 bits of the last step, rounded without carrying ("1.50 KB",
// "1 MB"; 2047 bytes give "1.100 KB").
QString PathviewStyleFileSizeForSizeInBytes(uint64_t bytes);
