#pragma once
// VRAppController: the one controller of the application. It owns the current device, writes
// the window state that the controls are bound to, follows devices as they come and go, runs
// one user command at a time (Get Files, Simulate Sync, Check Status), shows their progress and
// asks the user about errors.
//
// Thread affinity: created, awoken and destroyed on the main thread; every control is touched
// there only. taskStatusDidChange and taskStatusShouldIgnoreError arrive on the command's
// worker thread and hand over to the main thread through platform::mainthread.
#include <QCheckBox>
#include <QList>
#include <QLabel>
#include <QLineEdit>
#include <QObject>
#include <QPointer>
#include <QProgressBar>
#include <QTabWidget>
#include <QString>
#include <QTimer>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "device/LinkDev.h"
#include "platform/AlertPresenter.h"
#include "platform/ErrorRecord.h"
#include "retrieval/CheckStatus.h"
#include "settings/DebugSettingMap.h"
#include "status/HLTaskStatus.h"
#include "sync/SimulateSyncCommand.h"

namespace platform {
class Defaults;
}

class VRAppController : public QObject,
                        public LinkDevObserver,
                        public HLTaskStatusDelegate,
                        public CheckStatusHost,
                        public SimulateSyncHost,
                        public DebugSettingMapHost,
                        public AlertPresenter {
    Q_OBJECT
public:
    // The controls and windows the controller works with; the interface loader hands them
    // over before awakeFromNib. Any of them may be absent (a controller without windows).
    struct Outlets {
        QProgressBar* progressBar = nullptr;
        QLabel* opStatusText = nullptr;
        QWidget* warningWindow = nullptr;
        QTabWidget* tabView = nullptr;
        QWidget* tabViewItem2 = nullptr;
        QLineEdit* checkStatusField = nullptr;
        QCheckBox* debugSetting_SyncDebugCheckbox = nullptr;
        QLineEdit* debugSetting_CustomItemKeyField = nullptr;
        QLineEdit* debugSetting_CustomItemValueField = nullptr;
        QWidget* mainWindow = nullptr;
        QWidget* settingsWindow = nullptr;
    };

    // init: writes the window state keys (always) and the preference defaults (when absent),
    // then registers as a device observer. Main thread.
    explicit VRAppController(platform::Defaults& defaults, QObject* parent = nullptr);
    // Unregisters the device observer. Main thread.
    ~VRAppController() override;

    void connectOutlets(const Outlets& outlets);
    // Puts the options view into tab "2", floats the warning panel one level above the main
    // window and refreshes the debug settings. Once, after connectOutlets.
    void awakeFromNib();

    // "Version: <short version> (<build>)" from the application's information.
    QString displayBundleVersionNumber() const;
    static QString versionText(const QString& shortVersion, const QString& buildVersion);

    // Takes the most recently attached device as the current one (a fresh object every
    // time), writes "connected" and "activeConnectedLinkDevName", clears the Check Status
    // answer and rebuilds the debug settings for the new device. Main thread.
    void handlinkAvailabliltyDidChange() override;

    void orderFrontMainWindow();
    void orderFrontSettingsWindow();

    // ---- commands (main thread) ----
    // Marks the window busy and starts the command chosen by "linkDevAction" 0.1 s later:
    // 0 Get Files, 1 Simulate Sync, 2 Check Status; any other value returns to idle at once.
    void doIt();
    void getFiles();
    void _getFilesDone();
    void checkStatus();
    void _checkStatusDone();
    void simulateSync();
    void _syncSimulateDone();
    void updateSyncInfoText(const QString& text);

    // ---- what the commands ask of the controller (main thread) ----
    void setCheckStatusText(const QString& text) override;
    void checkStatusDone() override { _checkStatusDone(); }
    std::shared_ptr<LinkDev> simulateSyncDevice() override { return device(); }
    platform::Defaults& simulateSyncDefaults() override { return _defaults; }
    void showSyncStatusText() override;
    void setSyncStatusText(const QString& text) override;

    // ---- debug settings (main thread) ----
    // The settings window's settings for the current device, built by settings/DebugSettingMap.
    void loadDebugSettingsMap();
    void _updateDebugSettingsUI();
    const DebugSettingMap& debugSettingMap() const { return _debugSettingMap; }
    std::shared_ptr<LinkDev> debugSettingsDevice() override { return device(); }
    DebugSettingControls debugSettingsControls() override;
    AlertPresenter& debugSettingsAlertPresenter() override { return *this; }
    // The controller is the presenter the settings ask: it hands each alert to the presenter
    // installed at the time it is asked.
    int runModal(const Alert& alert) override { return _runAlert(alert); }

    // ---- progress and errors ----
    // Worker thread: in the transfer phase, shows the status on the main thread and waits.
    void taskStatusDidChange(HLTaskStatus* status) override;
    // Main thread: the bar (in thousandths of the job, so 2-4 GiB jobs fit an int) and text.
    void _mainThreadTaskStatusDidChange(HLTaskStatus* status);
    // Worker thread: skips a not-found failure (code 8) while those are ignored; otherwise asks
    // the user "Stop" / "Continue Anyways" on the main thread and waits for the answer.
    bool respondsToShouldIgnoreError() const override { return true; }
    bool taskStatusShouldIgnoreError(HLTaskStatus* status, const platform::Error& error) override;
    void _mainThreadPresentPossibleFatalErrorForTask(const platform::Error& error);
    // Any thread: shows the error on the main thread without waiting.
    void _presentAlertForError(const platform::Error& error);
    void _mainThreadPresentAlertForError(const platform::Error& error);

    // ---- state shared with the commands ----
    std::shared_ptr<LinkDev> device() const;
    platform::Defaults& defaults() const { return _defaults; }
    bool ignoreFileNotFoundErrors() const { return _ignoreFileNotFoundErrors; }
    void setIgnoreFileNotFoundErrors(bool ignore) { _ignoreFileNotFoundErrors = ignore; }
    bool userCancelledForError() const { return _userCancelledForError; }
    QProgressBar* progressBar() const { return _progressBar; }
    QLabel* opStatusText() const { return _opStatusText; }
    QLineEdit* checkStatusField() const { return _checkStatusField; }

    // The presenter of every alert (not owned); tests install one that answers by itself.
    void setAlertPresenter(AlertPresenter* presenter) { _alertPresenter = presenter; }
    AlertPresenter* alertPresenter() const { return _alertPresenter; }
    // How long doIt waits before the chosen command starts.
    static constexpr int kCommandDelayMs = 100;
    // True while a command started by doIt waits for its delay.
    bool hasScheduledCommand() const { return !_commandTimers.empty(); }
    // The intervals (ms) of the commands still waiting, in the order doIt scheduled them.
    QList<int> scheduledCommandDelays() const;

private:
    using Command = void (VRAppController::*)();

    void _scheduleCommand(Command command);
    void _setProgressIndeterminate();
    void _setStatusText(const QString& text);
    int _runAlert(const Alert& alert);

    // Command bodies: Get Files runs on a worker thread, Check Status on the main thread.
    void _blockingGetFiles();
    void _blockingCheckStatus();

    platform::Defaults& _defaults;

    mutable std::mutex _deviceMutex;  // guards _device (workers read it while devices change)
    std::shared_ptr<LinkDev> _device;
    QPointer<QProgressBar> _progressBar;
    QPointer<QLabel> _opStatusText;
    QPointer<QWidget> _warningWindow;
    QPointer<QTabWidget> _tabView;
    QPointer<QWidget> _tabViewItem2;
    QPointer<QLineEdit> _checkStatusField;
    // Written by the Get Files worker and the main thread (the waiting hand-over orders them).
    std::atomic<bool> _ignoreFileNotFoundErrors{false};
    std::atomic<bool> _userCancelledForError{false};
    QPointer<QCheckBox> _debugSetting_SyncDebugCheckbox;
    QPointer<QLineEdit> _debugSetting_CustomItemKeyField;
    QPointer<QLineEdit> _debugSetting_CustomItemValueField;
    DebugSettingMap _debugSettingMap{*this};
    QPointer<QWidget> _mainWindow;
    QPointer<QWidget> _settingsWindow;

    // Runs Simulate Sync; lives as long as the controller (a pending simulation keeps it as
    // its delegate, and the controller lives for the process).
    SimulateSyncCommand _simulateSyncCommand{*this};
    AlertPresenter* _alertPresenter = nullptr;
    // One single-shot timer (a child of the controller) per command doIt scheduled and that
    // has not started yet, oldest first; each removes and deletes itself when it fires.
    std::vector<QTimer*> _commandTimers;
};
