// VRAppController: the three commands.
//
// Each command marks its own state, runs its body (on a worker thread for Get Files and
// Simulate Sync, on the main thread for Check Status) and hands back to its completion method,
// which returns the window to idle. Check Status and Simulate Sync live in the retrieval and
// sync subsystems; the controller is their host. Get Files plugs in the same way; until it
// does, Get Files only hands back.
#include <QLabel>
#include <QTabWidget>
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
    checkstatus::_blockingCheckStatus(device(), *this);
}

void VRAppController::setCheckStatusText(const QString& text)
{
    if (!_checkStatusField)
        return;
    _checkStatusField->setText(text);
    // Bring the answer's tab forward, so the answer is seen.
    if (_tabView) {
        for (int index = 0; index < _tabView->count(); ++index)
            if (_tabView->widget(index)->isAncestorOf(_checkStatusField))
                _tabView->setCurrentIndex(index);
    }
}

void VRAppController::_checkStatusDone()
{
    _defaults.setBool(QStringLiteral("appInactive"), true);
}

// ---- Simulate Sync ----

void VRAppController::simulateSync()
{
    _simulateSyncCommand.simulateSync();
}

void VRAppController::updateSyncInfoText(const QString& text)
{
    _simulateSyncCommand.updateSyncInfoText(text);
}

void VRAppController::_syncSimulateDone()
{
    _simulateSyncCommand._syncSimulateDone();
}

void VRAppController::showSyncStatusText()
{
    if (_opStatusText)
        _opStatusText->show();
}

void VRAppController::setSyncStatusText(const QString& text)
{
    if (_opStatusText)
        _opStatusText->setText(text);
}
