// Check Status: probe the sync lock, exclusive first, then shared.
#include "retrieval/CheckStatus.h"

#include "device/LinkDev.h"

namespace checkstatus {

// A missing device answers handle 0, which counts as acquired and whose release goes nowhere.
bool probeLock(const std::shared_ptr<LinkDev>& device, bool shared)
{
    if (!device) return true;
    const int32_t handle =
        shared ? device->blockingAquireSharedFilelockAtRelativePath(kSyncLockFilePath, QString(), kProbeTimeout)
               : device->blockingAquireExclusiveFilelockAtRelativePath(kSyncLockFilePath, QString(), kProbeTimeout);
    if (handle == -1) return false;
    device->releaseFilelock(handle);
    return true;
}

QString probeSyncLock(const std::shared_ptr<LinkDev>& device)
{
    const bool exclusive = probeLock(device, false);
    const bool shared = probeLock(device, true);  // made in every case
    if (exclusive) return kNoOneHolding;
    if (shared) return kZephyrHolding;
    return kLumenHolding;
}

void _blockingCheckStatus(const std::shared_ptr<LinkDev>& device, CheckStatusHost& host)
{
    host.setCheckStatusText(probeSyncLock(device));
    host.checkStatusDone();
}

}  // namespace checkstatus
