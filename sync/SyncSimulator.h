#pragma once
// SyncSimulator: plays the desktop media application's side of a sync against one device.
//
// How to use it (the Simulate Sync command and Get Files do this on a worker thread):
//
//     auto simulator = SyncSimulator::create(device, duration, /*interactive*/ false,
//                                            /*simulateHSNotifications*/ false, /*exitWhenDone*/ false);
//     simulator->setDelegate(delegate);             // optional; not owned
//     simulator->setTimeout(10.0);                  // optional; default 100000000.0 seconds
//     simulator->runSimulationForFirstAttachedDevice();           // or ...WithSyncBlock(sync, failed)
//     simulator.reset();                            // fine also while a run is still pending
//
// With a device the run happens inside runSimulation… on the calling thread. Without one it is
// stored as a pending action and runs on the thread that delivers the next device-availability
// change (the main thread in the app); the pending action keeps the simulator alive until that
// run has finished.
//
// A run, on the device: post "com.corvid.lumen-linkdev.syncWillStart"; post
// "com.corvid.homeshell.syncingUnblocked" (if enabled); take "com.corvid.lumen.lock_sync"
// exclusively (asking the holder with the will-start notification while waiting); post
// "com.corvid.lumen-linkdev.syncDidStart"; create "com.corvid.lumen.syncing"; run the sync
// action; remove "com.corvid.lumen.syncing"; post "com.corvid.lumen-linkdev.syncDidFinish"
// (or "…syncFailedToStart" when a step up to the did-start post failed); release the lock.
// Before each notification the simulator pauses up to 0.5 s, or in console mode prompts on
// standard output and waits for a line on standard input.
//
// Threads: create, setDelegate, setTimeout and runSimulation… may be called on any thread;
// the simulation runs on the thread that starts it, and the delegate is called there. The
// fields that two threads touch (device, pending action, delegate, timeout) are guarded.
#include <QString>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "device/LinkDev.h"

class SyncSimulator;

// Status codes passed to the delegate.
enum : int32_t {
    kSyncSimStatusWorking = 1,  // "waiting to acquire lock....", and "" once the sync has begun
    kSyncSimStatusFailed = 2,   // "failure to: <step>\n Bailing."
    kSyncSimStatusDone = 3,     // "Done."
};

// Receiver of the simulator's status updates; not owned by the simulator.
class SyncSimulatorDelegate {
public:
    virtual ~SyncSimulatorDelegate() = default;
    // Called on the thread that runs the simulation.
    virtual void syncSimulatorStatusUpdate(SyncSimulator* simulator, int32_t status,
                                           const QString& localizedDescription) = 0;
    // Whether this object answers syncSimulatorStatusUpdate; setDelegate refuses one that does not.
    virtual bool respondsToSyncSimulatorStatusUpdate() const { return true; }
};

class SyncSimulator final : public LinkDevObserver, public std::enable_shared_from_this<SyncSimulator> {
    struct Private {};

public:
    using Block = std::function<void()>;

    // Device names used by a run.
    static const QString kLumenWillStartSyncLinkDevNotificationName;  // "com.corvid.lumen-linkdev.syncWillStart"
    static const QString kHSUnblockedSyncingNotificationName;         // "com.corvid.homeshell.syncingUnblocked"
    static const QString kLumenDidStartSyncLinkDevNotificationName;   // "com.corvid.lumen-linkdev.syncDidStart"
    static const QString kLumenDidFinishSyncLinkDevNotificationName;  // "com.corvid.lumen-linkdev.syncDidFinish"
    static const QString kLumenSyncFailedToStartLinkDevNotificationName;  // "…syncFailedToStart"
    static const QString kSyncLockFilePath;               // "com.corvid.lumen.lock_sync"
    static const QString kSyncFailureIndicationFilePath;  // "com.corvid.lumen.syncing"

    // initWithLinkDev:duration:interactive:simulateHSNotifications:exitWhenDone:. The device
    // may be null. Registers the simulator as a device observer (the registry may tell it of
    // an attached device at once, on this thread).
    static std::shared_ptr<SyncSimulator> create(std::shared_ptr<LinkDev> linkdev, float duration, bool interactive,
                                                 bool simulateHSNotifications, bool exitWhenDone);
    SyncSimulator(Private, std::shared_ptr<LinkDev> linkdev, float duration, bool interactive,
                  bool simulateHSNotifications, bool exitWhenDone);
    // Stops observing devices, drops the pending action and the device.
    ~SyncSimulator() override;
    SyncSimulator(const SyncSimulator&) = delete;
    SyncSimulator& operator=(const SyncSimulator&) = delete;

    // Stores a delegate that answers the status message; logs "invalid delegate" and keeps the
    // old one otherwise (also for null).
    void setDelegate(SyncSimulatorDelegate* delegate);
    SyncSimulatorDelegate* delegate() const { return _delegate.load(); }

    // Lock timeout in seconds, handed to the waiting lock acquisition.
    double timeout() const;
    void setTimeout(double timeout);

    // The device the simulation runs against (null until one is set or arrives).
    std::shared_ptr<LinkDev> linkdev() const;

    // Runs the standard simulation now when a device is set; otherwise leaves it pending for
    // the next device-availability change and returns at once. A second request while one is
    // pending replaces it.
    void runSimulationForFirstAttachedDevice();
    // The same with caller-supplied actions: sync runs while the lock is held and the
    // failure-indication file exists; syncFailedToStart runs once when a step up to the
    // did-start post fails. Either may be empty.
    void runSimulationForFirstAttachedDeviceWithSyncBlock(Block sync, Block syncFailedToStart);

    // Device observer: adopts the last available device when none is set and a run is
    // pending, then runs the pending action (on this thread).
    void handlinkAvailabliltyDidChange() override;

    // The standard simulation: the sync action logs "pausing to simulate a sync...." and
    // pauses up to the duration; the failed-to-start action does nothing.
    void _simulateSync();
    // One run, steps in the order above, on the calling thread.
    void _simulateSyncWithSyncBlock(const Block& sync, const Block& syncFailedToStart);
    // Logs the text, then tells the delegate (if any).
    void _postStatus(int32_t status, const QString& localizedDescription);

    // Microseconds of the standard sync action's last pause (0 before any).
    uint32_t lastSyncPauseMicroseconds() const { return _lastSyncPauseMicroseconds.load(); }

private:
    // Console mode: prompt and wait for a line; otherwise a random pause up to 0.5 s.
    QString _promptOrPause(const QString& prompt) const;
    // Stores action as the pending run, replacing (and dropping) any older one.
    void _setPendingAction(Block action);

    const bool _interactive;
    const bool _exitWhenDone;
    const float _syncSimulateDuration;
    // Kept a float (0.0 or 1.0) and tested against 0.0.
    const float _simulateHSNotifications;
    std::atomic<double> _timeout;
    std::atomic<SyncSimulatorDelegate*> _delegate{nullptr};
    std::atomic<uint32_t> _lastSyncPauseMicroseconds{0};

    mutable std::mutex _mutex;               // guards the two fields below; never held while running
    std::shared_ptr<LinkDev> _linkdev;       // kept once set
    Block _nextDeviceSyncBlock;              // the pending run; holds this simulator
};

namespace syncsim {

// Pauses the calling thread for a random time below seconds: m = random() mod 1,000,000,
// then usleep of the low 32 bits of the integer part of float(m) * seconds (in 32-bit float).
// 0 gives no pause. Returns the microseconds slept.
uint32_t randomPause(float seconds);
// The arithmetic of randomPause for a given random() value; a non-finite product gives 0.
uint32_t pauseMicroseconds(long randomValue, float seconds);

// Console prompt: writes "<prompt> " to standard output, flushes, reads one line from standard
// input (at most 1023 characters; the rest of a longer line is left for the next read) into a
// buffer shared by every prompt and returns it trimmed. At end of input the read returns at
// once and the buffer still holds the line read before.
QString promptForLine(const QString& prompt);

}  // namespace syncsim
