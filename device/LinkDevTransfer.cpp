// LinkDev: copying device files and folders to the computer, and walking device folders.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>
#include <cstring>
#include <memory>

#include "device/LinkDev.h"
#include "device/QFCFileInfo.h"
#include "platform/Describe.h"
#include "platform/PathJoin.h"
#include "platform/SystemLog.h"
#include "status/HLTaskStatus.h"

namespace {

// One buffer of this size per file copy; every read asks for this much.
constexpr uint64_t kReadChunk = 512000;

const QString kCopyFileOperation = QStringLiteral("copyFileFromDevice:toLocalDirectory:error:status:");
const QString kEnumerateOperation = QStringLiteral("enumerateDiretoryContentsFromDevice:error:status:visitItem:");

// A device call's failure with a context naming the path.
Error deviceError(HLDStatus status, const QString& context, const QString& path)
{
    return ErrorFromHLDError(status, context.arg(platform::describeString(path)));
}

bool isDirectory(const QByteArray& path)
{
    struct stat st {};
    return ::stat(path.constData(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Makes the folders above localPath one prefix at a time ("/" first for an absolute path),
// stopping at the first that cannot be made: its POSIX error, naming that prefix. A prefix
// that exists as a plain file is passed over here (opening the file then fails).
std::optional<Error> makeParentFolders(const QString& localPath)
{
    const qsizetype slash = localPath.lastIndexOf(u'/');
    if (slash < 0) return std::nullopt;
    QString prefix = localPath.startsWith(u'/') ? QStringLiteral("/") : QString();
    for (const QString& component : localPath.left(slash).split(u'/', Qt::SkipEmptyParts)) {
        prefix = platform::joinPath(prefix, component);
        const QByteArray encoded = QFile::encodeName(prefix);
        struct stat st {};
        if (::stat(encoded.constData(), &st) == 0) continue;
        if (::mkdir(encoded.constData(), 0777) == 0) continue;
        const int errorNumber = errno;
        if (errorNumber == EEXIST && isDirectory(encoded)) continue;  // made meanwhile
        return ErrorFromPOSIXError(prefix, errorNumber);
    }
    return std::nullopt;
}

// Writes a chunk to the local file. A write that takes nothing (or fails) logs the line,
// records the POSIX error and ends the file; the count to book is then 0.
uint64_t writeChunk(int fd, const char* data, uint64_t length, const QString& localPath, std::optional<Error>* failure)
{
    uint64_t remaining = length;
    const char* position = data;
    while (remaining != 0) {
        // What remains of the chunk, never more: offering the whole length again after a
        // short write would read past the chunk's end.
        const ssize_t taken = ::write(fd, position, remaining);
        if (taken > 0) {
            remaining -= static_cast<uint64_t>(taken);
            position += taken;
            continue;
        }
        if (taken < 0 && errno == EINTR) continue;
        const int errorNumber = taken < 0 ? errno : EIO;
        platform::logMessage(QStringLiteral("ERROR: Unexpected error writing to local file: %1").arg(localPath));
        *failure = ErrorFromPOSIXError(localPath, errorNumber);
        return 0;
    }
    return length;
}

}  // namespace

bool LinkDev::_qfcTransferConnectionOpen()
{
    if (_qfcConnectionOpen()) return true;
    _qfcConnectionClose();  // the failed open left a proxy with no use: this discards it
    return false;
}

bool LinkDev::_finishTransfer(const QString& operation, std::optional<Error> failure, std::optional<Error>* error,
                              HLTaskStatus* status)
{
    // The status decides: an error its delegate ignores is gone here (and without a status
    // every error is), unless the status already held an earlier one.
    if (failure && !(status && status->error())) {
        if (status) status->didFailWithError(*failure);
        failure = status ? status->error() : std::nullopt;
    }
    if (failure) {
        platform::logMessage(QStringLiteral("NOTICE: -[%1 %2] bxerror = %3")
                                 .arg(description(), operation, failure->description()));
        if (error) *error = *failure;
    }
    _qfcConnectionClose();
    return !failure;
}

bool LinkDev::copyFileFromDevice(const QString& path, const QString& localDirectory, std::optional<Error>* error,
                                 HLTaskStatus* status)
{
    if (!_qfcTransferConnectionOpen()) return false;
    std::optional<Error> failure;
    const bool sizing = status && status->taskPhase() == kHLTaskPhaseSizing;
    if (status) {
        const QFCFileInfo info(path, qfcConnectionRef(), &failure);
        const QString text = QStringLiteral("%1 %2").arg(sizing ? QStringLiteral("Sizing") : QStringLiteral("Uploading"),
                                                         platform::describeString(path));
        if (!failure) status->willBeginSubtask(text, static_cast<uint32_t>(info.sizeInBytes()));
    }
    if (!sizing && !failure) failure = _copyFileData(path, platform::joinPath(localDirectory, path), status);
    if (!failure && status) status->didEndSubtask();
    return _finishTransfer(kCopyFileOperation, std::move(failure), error, status);
}

std::optional<Error> LinkDev::_copyFileData(const QString& path, const QString& localPath, HLTaskStatus* status)
{
    QFCConnectionRef connection = qfcConnectionRef();
    QFCFileRef ref = kQFCInvalidFileRef;
    const HLDStatus opened = QFCFileRefOpenChecked(connection, path, kQFCModeReadWriteCreate, &ref);
    // A folder opened as a file is let through: its first read fails, leaving an empty file.
    if (opened != 0 && static_cast<HLDStatus>(static_cast<uint32_t>(opened) | 0xE8000000u) != kHLDIsDirectoryError)
        return deviceError(opened, QStringLiteral("Attempt open remote file: %1."), path);

    std::optional<Error> failure = makeParentFolders(localPath);
    const QByteArray localEncoded = QFile::encodeName(localPath);
    const int fd = ::open(localEncoded.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        failure = ErrorFromPOSIXError(localPath, errno);
    } else {
        const auto buffer = std::make_unique_for_overwrite<char[]>(kReadChunk);
        uint64_t count = 0;
        do {
            count = kReadChunk;
            const HLDStatus read = QFCFileRefRead(connection, ref, buffer.get(), &count);
            if (read != 0) {
                failure = deviceError(read, QStringLiteral("Reading Bytes from device path: %1"), path);
                break;
            }
            if (count == 0) break;  // end of the file
            count = writeChunk(fd, buffer.get(), count, localPath, &failure);
            if (status) status->incrementBytesTransfered(static_cast<uint32_t>(count));
        } while (count > 0);
        if (::close(fd) != 0 && !failure) failure = ErrorFromPOSIXError(localPath, errno);
    }
    QFCFileRefClose(connection, ref);  // also an invalid reference: its error is of no interest
    return failure;
}

bool LinkDev::enumerateDiretoryContentsFromDevice(const QString& path, std::optional<Error>* error,
                                                  HLTaskStatus* status, const VisitItem& visitItem)
{
    if (!_qfcTransferConnectionOpen()) return false;
    QFCConnectionRef connection = qfcConnectionRef();
    std::optional<Error> failure;
    QFCDirectoryRef directory = 0;
    HLDStatus listing = QFCDirectoryOpen(connection, QFile::encodeName(path).constData(), &directory);
    if (listing != 0) {
        failure = deviceError(listing, QStringLiteral("Attempt to open remote directory: %1"), path);
    } else {
        for (;;) {
            const char* name = nullptr;
            listing = QFCDirectoryRead(connection, directory, &name);
            if (listing != 0 || !name) break;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
            // Once an error is recorded the listing is still read to its end, unvisited.
            const QFCFileInfo item(platform::joinPath(path, QString::fromUtf8(name)), connection, &failure);
            if (failure || !visitItem) continue;
            if (!visitItem(item, status, &failure) && !failure)
                failure = ErrorFromHLDError(kHLDUndefinedError, QStringLiteral("Unknown Error reported by block"));
        }
        if (listing != 0) failure = deviceError(listing, QStringLiteral("Reading Directory Entries of: %1."), path);
        if (const HLDStatus closed = QFCDirectoryClose(connection, directory))
            failure = deviceError(closed, QStringLiteral("Attempt to close remote directory: %1."), path);
    }
    return _finishTransfer(kEnumerateOperation, std::move(failure), error, status);
}

bool LinkDev::copyDirectoryFromDevice(const QString& path, const QString& localDirectory, bool deepCopy,
                                      std::optional<Error>* error, HLTaskStatus* status)
{
    const VisitItem copyItem = [&](const QFCFileInfo& item, HLTaskStatus* walkStatus, std::optional<Error>* walkError) {
        if (!item.isDirectory())
            copyFileFromDevice(item.path(), localDirectory, walkError, walkStatus);
        else if (deepCopy)
            copyDirectoryFromDevice(item.path(), localDirectory, true, walkError, walkStatus);
        return !walkError->has_value();
    };
    return enumerateDiretoryContentsFromDevice(path, error, status, copyItem);
}
