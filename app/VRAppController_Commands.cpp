// VRAppController: the three commands and the debug-settings refresh.
//
// Each command marks its own state, runs its body (on a worker thread for Get Files and
// Simulate Sync, on the main thread for Check Status) and hands back to its completion method,
// which returns the window to idle. The bodies are where the retrieval, sync and settings
// subsystems plug in; until they do, a body only hands back.
#include <QLabel>
#include <thread>

#include "app/VRAppController.h"
#include "platform/Defaults.h"
#include "platform/MainThread.h"

// ---- Get Files ----

void VRAppController::getFiles()
{
    _defaults.setBool(QStringLiteral("activeLinkDevActionGetFiles"), true);
    std::thread([this] { _blockingGetFiles(); }).detach();
}

void VRAppController::_blockingGetFiles()
{
    // Worker thread. The copy itself belongs to the retrieval subsystem.
    platform::mainthread::post([this] { _getFilesDone(); });
}

void VRAppController::_getFilesDone()
{
    _defaults.setBool(QStringLiteral("activeLinkDevActionGetFiles"), false);
    _defaults.setBool(QStringLiteral("appInactive"), true);
}

// ---- Check Status ----

void VRAppController::checkStatus()
{
    if (_opStatusText) {
        _opStatusText->setText(QStringLiteral("Checking Status..."));
        _opStatusText->show();
    }
    _blockingCheckStatus();
}

void VRAppController::_blockingCheckStatus()
{
    // Main thread. The lock probe belongs to the retrieval subsystem.
    _checkStatusDone();
}

void VRAppController::_checkStatusDone()
{
    _defaults.setBool(QStringLiteral("appInactive"), true);
}

// ---- Simulate Sync ----

void VRAppController::simulateSync()
{
    _defaults.setBool(QStringLiteral("activeLinkDevActionSyncing"), true);
    if (_opStatusText)
        _opStatusText->show();
    std::thread([this] { _blockingSimulateSync(); }).detach();
}

void VRAppController::_blockingSimulateSync()
{
    // Worker thread. The simulated sync belongs to the sync subsystem.
    platform::mainthread::post([this] { _syncSimulateDone(); });
}

void VRAppController::updateSyncInfoText(const QString& text)
{
    if (_opStatusText)
        _opStatusText->setText(text);
}

void VRAppController::_syncSimulateDone()
{
    _defaults.setBool(QStringLiteral("activeLinkDevActionSyncing"), false);
    _defaults.setBool(QStringLiteral("appInactive"), true);
}

// ---- Debug settings ----

void VRAppController::_updateDebugSettingsUI()
{
    // Main thread. Rebuilding the settings for the current device belongs to the settings
    // subsystem; until it does, the settings window's controls stay disabled.
}
