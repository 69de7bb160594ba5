#pragma once
// The sync and Check Status tests' device: one in-process emulator per test binary on one
// socket path (the registry subscribes once per process), a fresh device per test, and
// helpers to wait for the registry and to record what a simulator reports.
#include <QString>
#include <QStringList>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <vector>

#include "device/LinkDev.h"
#include "handlink/emulator/Emulator.h"
#include "support/EmulatorTestbed.h"
#include "sync/SyncSimulator.h"

namespace synctest {

inline const QString kWillStart = QStringLiteral("com.corvid.lumen-linkdev.syncWillStart");
inline const QString kHSUnblocked = QStringLiteral("com.corvid.homeshell.syncingUnblocked");
inline const QString kDidStart = QStringLiteral("com.corvid.lumen-linkdev.syncDidStart");
inline const QString kDidFinish = QStringLiteral("com.corvid.lumen-linkdev.syncDidFinish");
inline const QString kFailedToStart = QStringLiteral("com.corvid.lumen-linkdev.syncFailedToStart");
inline const QString kLockPath = QStringLiteral("com.corvid.lumen.lock_sync");
inline const QString kFailureFile = QStringLiteral("com.corvid.lumen.syncing");

class Testbed : public testsupport::EmulatorTestbed {
public:
    // Made by the test environment before the first test (emulator started, registry
    // subscribed from the main thread), stopped after the last.
    static Testbed& instance();
    // Stops the emulator and removes the temporary folder (the environment's tear-down, or the
    // way out of a child process that leaves with exit()).
    static void destroyInstance();
    // Starts the emulator; attach waits until the registry's last device is the new one,
    // detach until the registry has no device left.
    Testbed();
    ~Testbed() override;
};

// A fresh device for each test, and a device object for it.
class DeviceTest : public testsupport::AttachedDeviceTest<Testbed> {
protected:
    // The absolute path of a file in the device's media area.
    QString mediaPath(const QString& relative) const;
    // True when a device-side holder can take the sync lock exclusively right now.
    bool syncLockIsFree() const;
};

// Records the simulator's status updates (any thread) and on which thread they came.
class StatusRecorder : public SyncSimulatorDelegate {
public:
    struct Update {
        int32_t status;
        QString text;
        bool onMainThread;
    };
    void syncSimulatorStatusUpdate(SyncSimulator* simulator, int32_t status, const QString& text) override;
    std::vector<Update> updates() const;
    // "code:text" per update, for readable comparisons.
    QStringList summary() const;
    SyncSimulator* lastSimulator() const;

private:
    mutable std::mutex _mutex;  // guards the two fields below
    std::vector<Update> _updates;
    SyncSimulator* _lastSimulator = nullptr;
};

// Runs the main event loop until pred holds (a guard against hangs, not a timing check).
bool waitFor(const std::function<bool()>& pred);

}  // namespace synctest
