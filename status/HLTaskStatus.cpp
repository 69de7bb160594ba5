#include "status/HLTaskStatus.h"

#include "platform/Assert.h"

namespace {

// Identity of two texts: the same shared buffer (QString::isSharedWith), or the same static
// data (literals and raw data carry no shared header, so isSharedWith alone calls them
// different even when they are one and the same literal).
bool isSameString(const QString& a, const QString& b)
{
    if (a.isSharedWith(b))
        return true;
    return a.isNull() == b.isNull() && a.size() == b.size() && a.constData() == b.constData();
}

}  // namespace

bool HLTaskStatusDelegate::taskStatusShouldIgnoreError(HLTaskStatus*, const platform::Error&)
{
    return false;
}

HLTaskStatus::HLTaskStatus(HLTaskStatusDelegate* delegate)
{
    _phase = kHLTaskPhaseSizing;
    setDelegate(delegate);
}

HLTaskStatus::~HLTaskStatus() = default;

void HLTaskStatus::setDelegate(HLTaskStatusDelegate* delegate)
{
    VR_ASSERT(delegate == nullptr || delegate->respondsToTaskStatusDidChange(),
              QStringLiteral("HLTaskStatus::setDelegate"), QStringLiteral("Vireo/HLTaskStatus"), 35,
              QStringLiteral("Invalid delegate"));
    _delegate = delegate;
}

void HLTaskStatus::setTaskPhase(int32_t phase)
{
    if (phase == _phase)
        return;
    _bytesTransfered = 0;
    _phase = phase;
}

void HLTaskStatus::_postUpdate()
{
    if (_postUpdateDisabledCount != 0) {
        _postUpdateSkipped = true;
        return;
    }
    _postUpdateSkipped = false;
    if (_delegate)
        _delegate->taskStatusDidChange(this);
}

void HLTaskStatus::disableChangeNotifications()
{
    ++_postUpdateDisabledCount;
}

void HLTaskStatus::enableChangeNotifications()
{
    --_postUpdateDisabledCount;
    if (_postUpdateDisabledCount == 0 && _postUpdateSkipped)
        _postUpdate();
}

void HLTaskStatus::willBeginSubtask(const QString& statusText, uint32_t bytes)
{
    if (_phase != kHLTaskPhaseTransfer) {
        incrementBytesTransfered(bytes);
        return;
    }
    auto subtask = std::make_unique<HLTaskStatus>(nullptr);
    subtask->setTaskPhase(kHLTaskPhaseNone);
    subtask->_setTotalBytesToTransfer(bytes);
    subtask->_setLocalizedStatusInfo(statusText);
    _subtask = std::move(subtask);
}

void HLTaskStatus::didEndSubtask()
{
    if (_phase == kHLTaskPhaseTransfer)
        incrementBytesTransfered(_subtask ? _subtask->remainingBytesToTransfer() : 0);
    _subtask.reset();
}

void HLTaskStatus::didFailWithError(const platform::Error& error)
{
    if (_delegate && _delegate->respondsToShouldIgnoreError()
        && _delegate->taskStatusShouldIgnoreError(this, error))
        return;
    _subtask.reset();
    _bxerror = error;
}

uint32_t HLTaskStatus::incrementBytesTransfered(uint32_t bytes)
{
    const uint32_t counted = _subtask ? _subtask->incrementBytesTransfered(bytes) : bytes;
    if (counted == 0)
        return 0;
    _bytesTransfered += counted;
    if (_phase == kHLTaskPhaseSizing)
        _totalBytesToTransfer += counted;
    _postUpdate();
    return counted;
}

uint32_t HLTaskStatus::remainingBytesToTransfer() const
{
    return _bytesTransfered >= _totalBytesToTransfer ? 0 : _totalBytesToTransfer - _bytesTransfered;
}

void HLTaskStatus::_setTotalBytesToTransfer(uint32_t total)
{
    if (total == _totalBytesToTransfer)
        return;
    _totalBytesToTransfer = total;
    _postUpdate();
}

void HLTaskStatus::_setLocalizedStatusInfo(const QString& text)
{
    if (isSameString(text, _localizedStatusInfo))
        return;
    _localizedStatusInfo = text;
    _postUpdate();
}

QString HLTaskStatus::localizedStatusInfo() const
{
    return _subtask ? _subtask->localizedStatusInfo() : _localizedStatusInfo;
}
