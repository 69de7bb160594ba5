#pragma once
// VRBooleanDeviceSetting: a device setting shown in a checkbox. Its value is an integer
// number: 1 on, 0 off, -1 the mixed state, which the checkbox allows only while there is no
// device. Main thread only.
#include <QCheckBox>

#include "settings/VRDeviceSetting.h"

class VRBooleanDeviceSetting : public VRDeviceSetting {
    Q_OBJECT
public:
    // settingWithDevice:domain:key:valueCheckbox:, with no key control.
    static std::unique_ptr<VRBooleanDeviceSetting> settingWithDevice(std::shared_ptr<LinkDev> device,
                                                                     const QString& domain, const QString& key,
                                                                     QCheckBox* valueCheckbox);
    VRBooleanDeviceSetting(std::shared_ptr<LinkDev> device, const QString& domain, const QString& key,
                           QCheckBox* valueCheckbox);

    QCheckBox* _valueCheckbox() const { return qobject_cast<QCheckBox*>(_valueControl); }

    // With a device its flag as 1 or 0 (a missing value reads as 0); without one -1.
    QVariant settingObjectValue() override;
    // The checkbox's state as 1, 0 or -1.
    QVariant settingObjectValueFromControl() override;
    // Enables the checkbox and allows the mixed state only without a device, then shows the value.
    void updateValueControlFromDevice() override;
};
