#include "settings/VRLMSyncDebugDeviceSetting.h"

#include "settings/LMSyncDebug.h"

std::unique_ptr<VRLMSyncDebugDeviceSetting> VRLMSyncDebugDeviceSetting::settingWithDevice(
    std::shared_ptr<LinkDev> device, QCheckBox* valueCheckbox, AlertPresenter* presenter)
{
    return std::make_unique<VRLMSyncDebugDeviceSetting>(std::move(device), valueCheckbox, presenter);
}

VRLMSyncDebugDeviceSetting::VRLMSyncDebugDeviceSetting(std::shared_ptr<LinkDev> device, QCheckBox* valueCheckbox,
                                                       AlertPresenter* presenter)
    : VRBooleanDeviceSetting(std::move(device), QString(), QString(), valueCheckbox), _presenter(presenter)
{
}

Alert VRLMSyncDebugDeviceSetting::deleteSyncDataQuestion()
{
    return Alert::question(QStringLiteral("Delete Sync Data Files"),
                           QStringLiteral("While sync debugging is on, Tamber app backs up additional folders and "
                                          "files you may not want to keep around."),
                           QStringLiteral("Delete Files"), QStringLiteral("Keep"));
}

QVariant VRLMSyncDebugDeviceSetting::settingObjectValue()
{
    if (!_device)
        return qint64(-1);
    return qint64(LMSyncDebugEnabled(_device) ? 1 : 0);
}

void VRLMSyncDebugDeviceSetting::setSettingObjectValue(const QVariant& value)
{
    if (!_device)
        return;
    // The device asked about, kept across the question: the settings may be rebuilt for
    // another device while it is open, and the answer belongs to this one.
    const std::shared_ptr<LinkDev> device = _device;
    if (value.toLongLong() != 0) {
        setLMSyncDebugEnabled(device);
        return;
    }
    const Alert question = deleteSyncDataQuestion();
    const int answer = _presenter ? _presenter->runModal(question) : question.escapeAnswer;
    setLMSyncDebugDisabled(device, answer == kAlertDefaultReturn);
}
