#pragma once
// The Simulate Sync command: one simulated sync on a worker thread against the current
// device, its status texts shown in the window, the window's state keys set around it.
//
// How the application controller uses it:
//
//     class VRAppController : ..., public SimulateSyncHost {
//         std::shared_ptr<LinkDev> simulateSyncDevice() override { return _device; }   // main thread
//         platform::Defaults& simulateSyncDefaults() override { return platform::Defaults::standard(); }
//         void showSyncStatusText() override { _opStatusText->setVisible(true); }     // main thread
//         void setSyncStatusText(const QString& t) override { _opStatusText->setText(t); }  // main thread
//         SimulateSyncCommand _simulateSyncCommand{*this};
//         void simulateSync() { _simulateSyncCommand.simulateSync(); }   // main thread
//     };
//
// The command and its host must outlive every run they started, a pending one included
// (a simulation that waits for a device keeps the command as its delegate): the controller
// lives for the process, so it qualifies.
//
// Threads: simulateSync, updateSyncInfoText and _syncSimulateDone on the main thread;
// _blockingSimulateSync on the command's own detached worker; syncSimulatorStatusUpdate on
// whichever thread runs the simulation (the worker, or the main thread for a pending run).
// Window changes from the worker are posted to the main thread without waiting.
#include <QString>
#include <atomic>
#include <cstdint>
#include <memory>

#include "device/LinkDev.h"
#include "sync/SyncSimulator.h"

namespace platform {
class Defaults;
}

// What the command needs of the application controller. All calls come on the main thread.
class SimulateSyncHost {
public:
    virtual ~SimulateSyncHost() = default;
    // The current device (the controller's _device); may be null.
    virtual std::shared_ptr<LinkDev> simulateSyncDevice() = 0;
    // The defaults store with "syncSim.duration", "activeLinkDevActionSyncing", "appInactive".
    virtual platform::Defaults& simulateSyncDefaults() = 0;
    // Makes the operation-status text field visible.
    virtual void showSyncStatusText() = 0;
    // Puts the text into the operation-status text field.
    virtual void setSyncStatusText(const QString& text) = 0;
};

class SimulateSyncCommand final : public SyncSimulatorDelegate {
public:
    explicit SimulateSyncCommand(SimulateSyncHost& host) : _host(host) {}

    // Main thread: sets "activeLinkDevActionSyncing", shows the status field, takes the current
    // device and the defaults store from the host and starts a detached worker running
    // _blockingSimulateSync with them; returns at once.
    void simulateSync();
    // Worker: runs one simulation with the duration read from "syncSim.duration" (no console, no
    // home-screen notification, no exit, the default lock timeout); without a device the
    // simulation stays pending until the next device-availability change. Then posts
    // _syncSimulateDone to the main thread.
    void _blockingSimulateSync(std::shared_ptr<LinkDev> device, platform::Defaults& defaults);
    // Main thread: "activeLinkDevActionSyncing" NO, "appInactive" YES.
    void _syncSimulateDone();
    // Any thread: posts updateSyncInfoText with the text to the main thread. The code is unused.
    void syncSimulatorStatusUpdate(SyncSimulator* simulator, int32_t status, const QString& text) override;
    // Main thread: shows the text in the status field.
    void updateSyncInfoText(const QString& text);

    // Any thread: the simulated sync's pause, in microseconds, of the last simulation that ran
    // inside _blockingSimulateSync (0 for one left pending for a device, or one that failed
    // before its sync).
    uint32_t lastSyncPauseMicroseconds() const { return _lastSyncPauseMicroseconds.load(); }

private:
    SimulateSyncHost& _host;
    std::atomic<uint32_t> _lastSyncPauseMicroseconds{0};
};
