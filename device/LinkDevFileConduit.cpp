// LinkDev: the counted file-conduit connection, file locks and the simple file operations.
#include <QDateTime>
#include <QFile>
#include <unistd.h>

#include "device/HLFileConduitProxy.h"
#include "device/LinkDev.h"
#include "platform/Describe.h"
#include "platform/SystemLog.h"

namespace {

double wallClockSeconds()
{
    return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

}  // namespace

bool LinkDev::_qfcConnectionOpen()
{
    std::lock_guard guard(_servicesLock);
    if (!_activeFileCounduitService) _activeFileCounduitService = std::make_shared<HLFileConduitProxy>(shared_from_this());
    const bool opened = _activeFileCounduitService->beginSession();
    _activeServiceSessions.insert(_activeFileCounduitService);  // also after a failed begin
    return opened;
}

void LinkDev::_qfcConnectionClose()
{
    // Declared before the guard so that the proxy (which owns this device) is let go after
    // the lock, and this object outlives the call.
    std::shared_ptr<LinkDev> self = shared_from_this();
    std::shared_ptr<HLFileConduitProxy> released;
    std::lock_guard guard(_servicesLock);
    if (!_activeFileCounduitService) return;
    if (!_activeFileCounduitService->endSession()) return;
    released = std::move(_activeFileCounduitService);
    _activeServiceSessions.erase(released);
}

QFCConnectionRef LinkDev::qfcConnectionRef() const
{
    std::lock_guard guard(_servicesLock);
    return _activeFileCounduitService ? _activeFileCounduitService->qfcConnectionRef() : nullptr;
}

std::shared_ptr<HLFileConduitProxy> LinkDev::activeFileCounduitService() const
{
    std::lock_guard guard(_servicesLock);
    return _activeFileCounduitService;
}

std::set<QFCFileRef> LinkDev::qfcLockedFiles() const
{
    std::lock_guard guard(_servicesLock);
    return _qfcLockedFiles ? *_qfcLockedFiles : std::set<QFCFileRef>();
}

std::set<std::shared_ptr<HLServiceProxy>> LinkDev::activeServiceSessions() const
{
    std::lock_guard guard(_servicesLock);
    return _activeServiceSessions;
}

QFCFileRef LinkDev::_qfcAcquireFilelockAtRelativePath(const QString& path, bool block, bool shared)
{
    QFCConnectionRef connection = qfcConnectionRef();
    QFCFileRef ref = kQFCInvalidFileRef;
    HLDStatus status = QFCFileRefOpenChecked(connection, path, kQFCModeReadWriteCreate, &ref);
    {
        std::lock_guard guard(_servicesLock);
        if (!_qfcLockedFiles) _qfcLockedFiles = std::make_unique<std::set<QFCFileRef>>();
    }
    if (status != 0) {
        platform::logMessage(
            QStringLiteral("ERROR: Attempt to attain file lock failed.  Could not create file '%1' on device. error = %2")
                .arg(platform::describeString(path),
                     ErrorFromHLDError(status, QStringLiteral("HL_QFCFileRefOpen()")).description()));
        return kQFCInvalidFileRef;
    }
    const int exclusive = shared ? 0 : 1;
    do {
        status = QFCFileRefLock(connection, ref, exclusive);
    } while (block && status == kQFCWouldBlockError);
    if (status != 0) {
        if (block) {
            platform::logMessage(
                QStringLiteral("ERROR: Attempt to ++ attain file lock failed.  Could not lock file '%1' on device. error = %2")
                    .arg(platform::describeString(path),
                         ErrorFromHLDError(status, QStringLiteral("QFCFileRefLock()")).description()));
        }
        QFCFileRefClose(connection, ref);
        return kQFCInvalidFileRef;
    }
    std::lock_guard guard(_servicesLock);
    _qfcLockedFiles->insert(ref);
    return ref;
}

void LinkDev::_qfcReleaseFilelockForFileRef(QFCFileRef ref)
{
    bool held = false;
    {
        std::lock_guard guard(_servicesLock);
        if (_qfcLockedFiles && !_qfcLockedFiles->empty() && _qfcLockedFiles->count(ref)) {
            _qfcLockedFiles->erase(ref);
            held = true;
        }
    }
    if (held) {
        QFCConnectionRef connection = qfcConnectionRef();
        const HLDStatus status = QFCFileRefUnlock(connection, ref);
        QFCFileRefClose(connection, ref);
        if (status != 0) {
            platform::logMessage(
                QStringLiteral("ERROR: Attempt to -- unlock file lock failed.  Could not unlock file device. error = %1")
                    .arg(ErrorFromHLDError(status, QStringLiteral("QFCFileRefUnlock()")).description()));
        }
    }
    // Given back whether or not the handle was known.
    _qfcConnectionClose();
}

int32_t LinkDev::acquireSharedFilelockAtRelativePath(const QString& path)
{
    if (!_qfcConnectionOpen()) {
        _qfcConnectionClose();  // the failed open left a proxy with no use: this discards it
        return -1;
    }
    const int32_t handle = static_cast<int32_t>(_qfcAcquireFilelockAtRelativePath(path, false, true));
    if (handle == -1) _qfcConnectionClose();
    return handle;
}

int32_t LinkDev::acquireExclusiveFilelockAtRelativePath(const QString& path)
{
    if (!_qfcConnectionOpen()) {
        _qfcConnectionClose();
        return -1;
    }
    const int32_t handle = static_cast<int32_t>(_qfcAcquireFilelockAtRelativePath(path, false, false));
    if (handle == -1) _qfcConnectionClose();
    return handle;
}

int32_t LinkDev::blockingAquireSharedFilelockAtRelativePath(const QString& path, const QString& notification, double timeout)
{
    return _blockingAquireFilelock(path, notification, timeout, true);
}

int32_t LinkDev::blockingAquireExclusiveFilelockAtRelativePath(const QString& path, const QString& notification,
                                                               double timeout)
{
    return _blockingAquireFilelock(path, notification, timeout, false);
}

int32_t LinkDev::_blockingAquireFilelock(const QString& path, const QString& notification, double timeout, bool shared)
{
    const double start = wallClockSeconds();
    double elapsed = 0.0;
    // This use keeps the connection alive across the attempts, each of which takes its own.
    if (!_qfcConnectionOpen()) return -1;
    auto attempt = [&] {
        return shared ? acquireSharedFilelockAtRelativePath(path) : acquireExclusiveFilelockAtRelativePath(path);
    };
    int32_t handle = attempt();
    while (handle == -1 && timeout > elapsed) {
        if (!notification.isNull()) postNotification(notification);  // asks the holder to let go
        usleep(100000);
        handle = attempt();
        elapsed = wallClockSeconds() - start;
    }
    _qfcConnectionClose();
    return handle;
}

void LinkDev::releaseFilelock(int32_t handle)
{
    _qfcReleaseFilelockForFileRef(static_cast<QFCFileRef>(static_cast<int64_t>(handle)));
}

bool LinkDev::makeEmptyFileOnDevice(const QString& path, std::optional<Error>* /*error*/)
{
    if (!_qfcConnectionOpen()) return false;
    QFCConnectionRef connection = qfcConnectionRef();
    QFCFileRef ref = kQFCInvalidFileRef;
    bool result = false;
    if (QFCFileRefOpenChecked(connection, path, kQFCModeReadWriteCreate, &ref) == 0 && ref != kQFCInvalidFileRef) {
        QFCFileRefClose(connection, ref);
        result = true;
    }
    _qfcConnectionClose();
    return result;
}

bool LinkDev::removeFileFromDevice(const QString& path, std::optional<Error>* /*error*/)
{
    if (!_qfcConnectionOpen()) return true;  // no connection: nothing left to remove
    const QByteArray encoded = QFile::encodeName(path);
    const HLDStatus status = QFCRemovePath(qfcConnectionRef(), encoded.constData());
    _qfcConnectionClose();
    return status == 0;
}
