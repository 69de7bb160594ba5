// The Simulate Sync command.
#include "sync/SimulateSyncCommand.h"

#include <thread>

#include "platform/Defaults.h"
#include "platform/MainThread.h"

namespace {
const QString kActiveSyncingKey = QStringLiteral("activeLinkDevActionSyncing");
const QString kAppInactiveKey = QStringLiteral("appInactive");
const QString kDurationKey = QStringLiteral("syncSim.duration");
}  // namespace

void SimulateSyncCommand::simulateSync()
{
    platform::Defaults& defaults = _host.simulateSyncDefaults();
    defaults.setBool(kActiveSyncingKey, true);
    _host.showSyncStatusText();
    std::thread([this, device = _host.simulateSyncDevice(), &defaults]() mutable {
        _blockingSimulateSync(std::move(device), defaults);
    }).detach();
}

void SimulateSyncCommand::_blockingSimulateSync(std::shared_ptr<LinkDev> device, platform::Defaults& defaults)
{
    const float duration = defaults.floatForKey(kDurationKey);
    std::shared_ptr<SyncSimulator> simulator =
        SyncSimulator::create(std::move(device), duration, false, false, false);
    simulator->setDelegate(this);
    simulator->runSimulationForFirstAttachedDevice();
    _lastSyncPauseMicroseconds.store(simulator->lastSyncPauseMicroseconds());
    // A pending simulation keeps its simulator alive by itself.
    simulator.reset();
    platform::mainthread::post([this] { _syncSimulateDone(); });
}

void SimulateSyncCommand::syncSimulatorStatusUpdate(SyncSimulator* /*simulator*/, int32_t /*status*/,
                                                    const QString& text)
{
    platform::mainthread::post([this, text] { updateSyncInfoText(text); });
}

void SimulateSyncCommand::updateSyncInfoText(const QString& text)
{
    _host.setSyncStatusText(text);
}

void SimulateSyncCommand::_syncSimulateDone()
{
    platform::Defaults& defaults = _host.simulateSyncDefaults();
    defaults.setBool(kActiveSyncingKey, false);
    defaults.setBool(kAppInactiveKey, true);
}
