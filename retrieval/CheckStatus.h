#pragma once
// Check Status: who, if anybody, holds the device's sync lock file.
//
// How the application controller uses it (all on the main thread):
//
//     class VRAppController : ..., public CheckStatusHost {
//         void setCheckStatusText(const QString& t) override { _checkStatusField->setText(t); }
//         void checkStatusDone() override { _checkStatusDone(); }        // "appInactive" YES
//         void checkStatus() {                // scheduled by doIt:
//             _opStatusText->setText("Checking Status..."); _opStatusText->setVisible(true);
//             _blockingCheckStatus();
//         }
//         void _blockingCheckStatus() { checkstatus::_blockingCheckStatus(_device, *this); }
//     };
//
// The probe takes the lock exclusively, then shared, each with a 0.2 s timeout and no
// lock-request notification, and gives back at once whatever it got. It blocks the calling
// thread for up to about 0.4 s plus the conduit round trips.
#include <QString>
#include <memory>

class LinkDev;

// Receives the answer of a check.
class CheckStatusHost {
public:
    virtual ~CheckStatusHost() = default;
    // Writes the answer into the check-status field.
    virtual void setCheckStatusText(const QString& text) = 0;
    // The check is over (the controller's _checkStatusDone: "appInactive" YES).
    virtual void checkStatusDone() = 0;
};

namespace checkstatus {
inline const QString kSyncLockFilePath = QStringLiteral("com.corvid.lumen.lock_sync");
inline const QString kNoOneHolding = QStringLiteral("No one is holding the lock file.");
inline const QString kZephyrHolding = QStringLiteral("Zephyr is likely holding the lock file.");
inline const QString kLumenHolding = QStringLiteral("Lumen is likely holding the lock file.");
inline constexpr double kProbeTimeout = 0.2;

// One attempt: takes the lock file (shared or exclusively) waiting up to kProbeTimeout, with no
// lock-request notification, and gives it back at once when it got it. True when it got it;
// without a device object every request counts as acquired (handle 0).
bool probeLock(const std::shared_ptr<LinkDev>& device, bool shared);

// The probe alone: one of the three texts above. Without a device object each request
// counts as acquired (handle 0), so the answer is "No one is holding the lock file.".
QString probeSyncLock(const std::shared_ptr<LinkDev>& device);

// Probes the lock on device, writes the answer through the host, then tells it the check is over.
void _blockingCheckStatus(const std::shared_ptr<LinkDev>& device, CheckStatusHost& host);
}  // namespace checkstatus
