// VRAppController: starting a command, the progress display and the error alerts.
#include <QLabel>
#include <QProgressBar>
#include <QTimer>
#include <algorithm>
#include <cmath>

#include "app/VRAppController.h"
#include "platform/Defaults.h"
#include "platform/MainThread.h"

namespace {

// The bar counts thousandths of the job: QProgressBar takes int, byte counts are unsigned
// 32-bit, so scaling both keeps jobs of 2 to 4 GiB right where a cast would go negative.
constexpr int kProgressScale = 1000;

// Code of the file conduit's "not found" status as error records carry it.
constexpr qint64 kNotFoundErrorCode = 8;

}  // namespace

void VRAppController::_setProgressIndeterminate()
{
    if (_progressBar)
        _progressBar->setRange(0, 0);
}

void VRAppController::_setStatusText(const QString& text)
{
    if (_opStatusText)
        _opStatusText->setText(text);
}

void VRAppController::_scheduleCommand(Command command)
{
    // Every call gets its own timer, so a second press while one waits starts both commands.
    // Precise timers with equal intervals fire in the order they were started.
    auto* timer = new QTimer(this);
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    timer->setInterval(kCommandDelayMs);
    connect(timer, &QTimer::timeout, this, [this, timer, command] {
        _commandTimers.erase(std::find(_commandTimers.begin(), _commandTimers.end(), timer));
        timer->deleteLater();
        (this->*command)();
    });
    _commandTimers.push_back(timer);
    timer->start();
}

QList<int> VRAppController::scheduledCommandDelays() const
{
    QList<int> delays;
    for (const QTimer* timer : _commandTimers)
        delays << timer->interval();
    return delays;
}

void VRAppController::doIt()
{
    _setProgressIndeterminate();
    _defaults.setBool(QStringLiteral("appInactive"), false);
    _setStatusText(QStringLiteral(""));

    switch (_defaults.integerForKey(QStringLiteral("linkDevAction"))) {
    case 0:
        _scheduleCommand(&VRAppController::getFiles);
        break;
    case 1:
        _scheduleCommand(&VRAppController::simulateSync);
        break;
    case 2:
        _scheduleCommand(&VRAppController::checkStatus);
        break;
    default:
        // Not a command: back to idle, without a word.
        _setProgressIndeterminate();
        _defaults.setBool(QStringLiteral("appInactive"), true);
        _setStatusText(QStringLiteral(""));
        break;
    }
}

void VRAppController::taskStatusDidChange(HLTaskStatus* status)
{
    // The sizing pass shows only the busy bar.
    if (status->taskPhase() != kHLTaskPhaseTransfer)
        return;
    platform::mainthread::postAndWait([this, status] { _mainThreadTaskStatusDidChange(status); });
}

void VRAppController::_mainThreadTaskStatusDidChange(HLTaskStatus* status)
{
    const uint32_t total = status->totalBytesToTransfer();
    if (total == 0)
        return;
    const double done = static_cast<double>(status->bytesTransfered());
    const double fraction = std::min(done / static_cast<double>(total), 1.0);
    if (_progressBar) {
        _progressBar->setRange(0, kProgressScale);
        _progressBar->setValue(static_cast<int>(std::lround(fraction * kProgressScale)));
    }
    const QString text = status->localizedStatusInfo();
    if (_opStatusText) {
        if (text.isEmpty()) {
            _opStatusText->hide();
        } else {
            _opStatusText->show();
            _opStatusText->setText(text);
        }
    }
}

bool VRAppController::taskStatusShouldIgnoreError(HLTaskStatus*, const platform::Error& error)
{
    if (_ignoreFileNotFoundErrors && error.code() == kNotFoundErrorCode)
        return true;
    _userCancelledForError = true;
    platform::mainthread::postAndWait([this, error] { _mainThreadPresentPossibleFatalErrorForTask(error); });
    return !_userCancelledForError;
}

void VRAppController::_mainThreadPresentPossibleFatalErrorForTask(const platform::Error& error)
{
    Alert alert = Alert::fromError(error);
    alert.buttons = {QStringLiteral("Stop"), QStringLiteral("Continue Anyways")};
    if (_runAlert(alert) == kAlertSecondButtonReturn)
        _userCancelledForError = false;
}

void VRAppController::_presentAlertForError(const platform::Error& error)
{
    QPointer<VRAppController> self(this);
    platform::mainthread::post([self, error] {
        if (self)
            self->_mainThreadPresentAlertForError(error);
    });
}

void VRAppController::_mainThreadPresentAlertForError(const platform::Error& error)
{
    _runAlert(Alert::fromError(error));
}

int VRAppController::_runAlert(const Alert& alert)
{
    // A controller without windows has nowhere to ask: the alert's own answer for a dismissal
    // (the first button, "Stop", unless the alert names a harmless one).
    if (!_alertPresenter)
        return alert.escapeAnswer;
    return _alertPresenter->runModal(alert);
}
