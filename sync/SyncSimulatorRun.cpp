// SyncSimulator: one simulated sync, step by step, and its status reports.
#include <cstdlib>

#include "platform/SystemLog.h"
#include "sync/SyncSimulator.h"

namespace {

const QString kStepPostWillStart = QStringLiteral("post kLumenWillStartSyncLinkDevNotificationName");
const QString kStepPostHSUnblocked = QStringLiteral("post kHSUnblockedSyncingNotificationName");
const QString kStepAcquireLock = QStringLiteral("acquire lock");
const QString kStepPostDidStart = QStringLiteral("post kLumenDidStartSyncLinkDevNotificationName");
const QString kStepCreateFailureFile =
    QStringLiteral("create Failure Indication File (to be deleted on successful sync)");
const QString kStepDeleteFailureFile = QStringLiteral("deleting Failure Indication File (to indicate success)");

QString pressReturnToPost(const QString& notification)
{
    return QStringLiteral("Press return to post '%1':").arg(notification);
}

}  // namespace

void SyncSimulator::_simulateSync()
{
    _simulateSyncWithSyncBlock(
        [this] {
            platform::logMessage(QStringLiteral("pausing to simulate a sync...."));
            _lastSyncPauseMicroseconds.store(syncsim::randomPause(_syncSimulateDuration));
        },
        [] {});
}

void SyncSimulator::_postStatus(int32_t status, const QString& localizedDescription)
{
    platform::logMessage(localizedDescription);
    if (SyncSimulatorDelegate* delegate = _delegate.load())
        delegate->syncSimulatorStatusUpdate(this, status, localizedDescription);
}

QString SyncSimulator::_promptOrPause(const QString& prompt) const
{
    if (_interactive) return syncsim::promptForLine(prompt);
    syncsim::randomPause(0.5f);
    return QString();
}

void SyncSimulator::_simulateSyncWithSyncBlock(const Block& sync, const Block& syncFailedToStart)
{
    // Step 1: drop the pending action. It may hold this simulator, so it is kept in this local
    // (destroyed last, when the run is over) rather than destroyed mid-run.
    Block dropped;
    std::shared_ptr<LinkDev> device;
    {
        std::lock_guard guard(_mutex);
        dropped = std::exchange(_nextDeviceSyncBlock, nullptr);
        device = _linkdev;
    }
    // Without a device every device operation counts as failed.
    auto post = [&device](const QString& name) { return device && device->postNotification(name); };

    QString step;             // description of the step under way
    int32_t lock = -1;
    QString finishing;        // the notification that ends the run
    bool failed = false;

    // Steps 2 to 5: everything up to the did-start post; false at the first failure.
    const bool started = [&] {
        step = kStepPostWillStart;
        _promptOrPause(QStringLiteral("Found a device.\nPress return to post '%1':")
                           .arg(kLumenWillStartSyncLinkDevNotificationName));
        if (!post(kLumenWillStartSyncLinkDevNotificationName)) return false;

        if (_simulateHSNotifications != 0.0f) {
            step = kStepPostHSUnblocked;
            _promptOrPause(pressReturnToPost(kHSUnblockedSyncingNotificationName));
            if (!post(kHSUnblockedSyncingNotificationName)) return false;
        }

        step = kStepAcquireLock;
        _postStatus(kSyncSimStatusWorking, QStringLiteral("waiting to acquire lock...."));
        const double lockTimeout = timeout();
        if (device)
            lock = device->blockingAquireExclusiveFilelockAtRelativePath(
                kSyncLockFilePath, kLumenWillStartSyncLinkDevNotificationName, lockTimeout);
        if (lock == -1) return false;

        step = kStepPostDidStart;
        _promptOrPause(pressReturnToPost(kLumenDidStartSyncLinkDevNotificationName));
        return post(kLumenDidStartSyncLinkDevNotificationName);
    }();

    if (started) {
        // Step 6: the failure-indication file, the sync, and (step 8) its removal.
        step = kStepCreateFailureFile;
        finishing = kLumenDidFinishSyncLinkDevNotificationName;
        if (device->makeEmptyFileOnDevice(kSyncFailureIndicationFilePath, nullptr)) {
            platform::logMessage(QStringLiteral("Making sync status file: %1").arg(kSyncFailureIndicationFilePath));
            _postStatus(kSyncSimStatusWorking, QString(""));
            if (sync) sync();

            _promptOrPause(pressReturnToPost(kLumenDidFinishSyncLinkDevNotificationName));
            step = kStepDeleteFailureFile;
            if (device->removeFileFromDevice(kSyncFailureIndicationFilePath, nullptr)) {
                platform::logMessage(QStringLiteral("Deleted sync status file (to indicate success): %1")
                                         .arg(kSyncFailureIndicationFilePath));
                _postStatus(kSyncSimStatusDone, QStringLiteral("Done."));
            } else {
                failed = true;
            }
        } else {
            failed = true;
        }
    } else {
        // Step 7: failed to start.
        failed = true;
        finishing = kLumenSyncFailedToStartLinkDevNotificationName;
        if (syncFailedToStart) syncFailedToStart();
    }

    // Steps 9 to 12.
    if (failed) _postStatus(kSyncSimStatusFailed, QStringLiteral("failure to: %1\n Bailing.").arg(step));
    post(finishing);
    if (_exitWhenDone) std::exit(0);  // the lock goes with the device connection
    if (lock != -1) device->releaseFilelock(lock);
}
