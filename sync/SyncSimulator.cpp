// SyncSimulator: construction, delegate, timeout and the pending run.
#include "sync/SyncSimulator.h"

#include "platform/SystemLog.h"

const QString SyncSimulator::kLumenWillStartSyncLinkDevNotificationName =
    QStringLiteral("com.corvid.lumen-linkdev.syncWillStart");
const QString SyncSimulator::kHSUnblockedSyncingNotificationName =
    QStringLiteral("com.corvid.homeshell.syncingUnblocked");
const QString SyncSimulator::kLumenDidStartSyncLinkDevNotificationName =
    QStringLiteral("com.corvid.lumen-linkdev.syncDidStart");
const QString SyncSimulator::kLumenDidFinishSyncLinkDevNotificationName =
    QStringLiteral("com.corvid.lumen-linkdev.syncDidFinish");
const QString SyncSimulator::kLumenSyncFailedToStartLinkDevNotificationName =
    QStringLiteral("com.corvid.lumen-linkdev.syncFailedToStart");
const QString SyncSimulator::kSyncLockFilePath = QStringLiteral("com.corvid.lumen.lock_sync");
const QString SyncSimulator::kSyncFailureIndicationFilePath = QStringLiteral("com.corvid.lumen.syncing");

namespace {
constexpr double kDefaultTimeout = 100000000.0;
}

std::shared_ptr<SyncSimulator> SyncSimulator::create(std::shared_ptr<LinkDev> linkdev, float duration,
                                                     bool interactive, bool simulateHSNotifications,
                                                     bool exitWhenDone)
{
    auto simulator = std::make_shared<SyncSimulator>(Private{}, std::move(linkdev), duration, interactive,
                                                     simulateHSNotifications, exitWhenDone);
    // Registered once fully made: the registry may call back at once on this thread.
    LinkDev::registerDeviceObserver(simulator.get());
    return simulator;
}

SyncSimulator::SyncSimulator(Private, std::shared_ptr<LinkDev> linkdev, float duration, bool interactive,
                             bool simulateHSNotifications, bool exitWhenDone)
    : _interactive(interactive),
      _exitWhenDone(exitWhenDone),
      _syncSimulateDuration(duration),
      _simulateHSNotifications(simulateHSNotifications ? 1.0f : 0.0f),
      _timeout(kDefaultTimeout),
      _linkdev(std::move(linkdev))
{
}

SyncSimulator::~SyncSimulator()
{
    LinkDev::unregisterDeviceObserver(this);
    // A pending action holds this simulator, so none can be left here; the device goes with
    // the members.
}

void SyncSimulator::setDelegate(SyncSimulatorDelegate* delegate)
{
    if (!delegate || !delegate->respondsToSyncSimulatorStatusUpdate()) {
        platform::logMessage(QStringLiteral("invalid delegate"));
        return;
    }
    _delegate.store(delegate);
}

double SyncSimulator::timeout() const
{
    return _timeout.load();
}

void SyncSimulator::setTimeout(double timeout)
{
    _timeout.store(timeout);
}

std::shared_ptr<LinkDev> SyncSimulator::linkdev() const
{
    std::lock_guard guard(_mutex);
    return _linkdev;
}

void SyncSimulator::runSimulationForFirstAttachedDevice()
{
    {
        std::unique_lock guard(_mutex);
        if (!_linkdev) {
            guard.unlock();
            _setPendingAction([self = shared_from_this()] { self->_simulateSync(); });
            return;
        }
    }
    _simulateSync();
}

void SyncSimulator::runSimulationForFirstAttachedDeviceWithSyncBlock(Block sync, Block syncFailedToStart)
{
    {
        std::unique_lock guard(_mutex);
        if (!_linkdev) {
            guard.unlock();
            _setPendingAction([self = shared_from_this(), sync = std::move(sync),
                               failed = std::move(syncFailedToStart)] {
                self->_simulateSyncWithSyncBlock(sync, failed);
            });
            return;
        }
    }
    _simulateSyncWithSyncBlock(sync, syncFailedToStart);
}

void SyncSimulator::_setPendingAction(Block action)
{
    Block older;
    {
        std::lock_guard guard(_mutex);
        older = std::exchange(_nextDeviceSyncBlock, std::move(action));
    }
    // The older action (and what it holds) goes here, outside the lock.
}

void SyncSimulator::handlinkAvailabliltyDidChange()
{
    bool adopt = false;
    {
        std::lock_guard guard(_mutex);
        adopt = !_linkdev && _nextDeviceSyncBlock;
    }
    std::shared_ptr<LinkDev> arrived = adopt ? LinkDev::lastAvailableDevice() : nullptr;

    // The action may hold the last reference to this simulator: it is moved to a local, runs
    // from there, and is destroyed last. Nothing below may touch this object after that.
    Block action;
    {
        std::lock_guard guard(_mutex);
        if (!_linkdev && arrived) _linkdev = std::move(arrived);
        action = std::exchange(_nextDeviceSyncBlock, nullptr);
    }
    if (action) action();
}
