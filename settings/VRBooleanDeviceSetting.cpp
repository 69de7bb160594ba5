#include "settings/VRBooleanDeviceSetting.h"

std::unique_ptr<VRBooleanDeviceSetting> VRBooleanDeviceSetting::settingWithDevice(std::shared_ptr<LinkDev> device,
                                                                                  const QString& domain,
                                                                                  const QString& key,
                                                                                  QCheckBox* valueCheckbox)
{
    return std::make_unique<VRBooleanDeviceSetting>(std::move(device), domain, key, valueCheckbox);
}

VRBooleanDeviceSetting::VRBooleanDeviceSetting(std::shared_ptr<LinkDev> device, const QString& domain,
                                               const QString& key, QCheckBox* valueCheckbox)
    : VRDeviceSetting(std::move(device), domain, key, valueCheckbox, nullptr)
{
}

QVariant VRBooleanDeviceSetting::settingObjectValue()
{
    if (!_device)
        return qint64(-1);
    return qint64(_device->lockdownBoolValueForKey(_key, _domain, false) ? 1 : 0);
}

QVariant VRBooleanDeviceSetting::settingObjectValueFromControl()
{
    const QCheckBox* checkbox = _valueCheckbox();
    if (!checkbox)
        return QVariant();
    switch (checkbox->checkState()) {
    case Qt::Checked:
        return qint64(1);
    case Qt::Unchecked:
        return qint64(0);
    default:
        return qint64(-1);
    }
}

void VRBooleanDeviceSetting::updateValueControlFromDevice()
{
    if (QCheckBox* checkbox = _valueCheckbox()) {
        checkbox->setEnabled(_device != nullptr);
        checkbox->setTristate(_device == nullptr);
    }
    VRDeviceSetting::updateValueControlFromDevice();
}
