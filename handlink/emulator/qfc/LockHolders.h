#pragma once
// Device-side lock holders: the device's own software holding a lock file in Media/.
#include "handlink/emulator/Emulator.h"

#include <QString>
#include <memory>

namespace handlink::emu {

class DeviceState;

// Takes the lock on path (relative to the media root, resolved like conduit paths) at once and
// keeps it until the holder's options let go, release() is called, or the holder is destroyed.
// nullptr with *error when the path is refused or the lock is held elsewhere. A holder that
// yields on a notification learns of posts through DeviceState::addPostListener.
std::unique_ptr<LockHolder> makeLockHolder(std::shared_ptr<DeviceState> device, const QString& path,
                                           const HoldLockOptions& options, QString* error);

}  // namespace handlink::emu
