#pragma once
// Device-side lock holders: the device's own software holding a lock file in Media/.
#include "handlink/emulator/Emulator.h"

#include <QString>
#include <cstdint>
#include <memory>

namespace handlink::emu {

class DeviceState;

// Takes the lock on path (relative to the media root, resolved like conduit paths) at once and
// keeps it until the holder's options let go, release() is called, or the holder is destroyed.
// nullptr with *error and *status when it cannot: the path's status when the path is refused
// (kQFCPermissionError for an escape, kQFCNotFoundError, kQFCInvalidArgumentError),
// kQFCIsDirectoryError for a folder, kQFCPermissionError for a file that is not a regular file,
// kQFCWouldBlockError when the lock is held elsewhere, kQFCNotConnectedError when the device is
// detached. A holder that yields on a notification learns of posts through
// DeviceState::addPostListener.
std::unique_ptr<LockHolder> makeLockHolder(std::shared_ptr<DeviceState> device, const QString& path,
                                           const HoldLockOptions& options, QString* error, int32_t* status = nullptr);

// The status of the last makeLockHolder() that failed on this thread (0 when the last one
// succeeded). The control connection gets its holders through DeviceState, which keeps only
// the message; it answers this status.
int32_t lastLockHolderFailure();

}  // namespace handlink::emu

namespace handlink::emu {

// The lock of `handlinkctl hold-lock`, held for as long as its control connection lasts:
// takes the lock (false with *error, nothing sent, when it cannot), answers status 0 on fd,
// then waits until the holder lets go by its options, the device detaches, or the client
// closes the connection or sends anything (interrupted: the lock is let go), and answers a
// last frame {"status": 0, "released": true}. Runs on the control connection's thread.
bool holdLockForConnection(int fd, std::shared_ptr<DeviceState> device, const QString& path,
                           const HoldLockOptions& options, QString* error, int32_t* status = nullptr);

}  // namespace handlink::emu
