#pragma once
// VRLMSyncDebugDeviceSetting: the sync-debug checkbox. It reads and writes through the
// sync-debug functions (its own domain and key stay empty). Ticking switches debugging on;
// unticking asks whether the device should delete the data kept while debugging ("Delete
// Files" or "Keep"), and switches it off either way. Main thread only.
#include "platform/AlertPresenter.h"
#include "settings/VRBooleanDeviceSetting.h"

class VRLMSyncDebugDeviceSetting : public VRBooleanDeviceSetting {
    Q_OBJECT
public:
    // settingWithDevice:valueCheckbox:. The question goes to presenter (not owned; it must
    // outlive the setting); without one it takes the question's dismissal answer, "Keep".
    static std::unique_ptr<VRLMSyncDebugDeviceSetting> settingWithDevice(std::shared_ptr<LinkDev> device,
                                                                         QCheckBox* valueCheckbox,
                                                                         AlertPresenter* presenter);
    VRLMSyncDebugDeviceSetting(std::shared_ptr<LinkDev> device, QCheckBox* valueCheckbox, AlertPresenter* presenter);

    // "Delete Sync Data Files": default "Delete Files", alternate "Keep".
    static Alert deleteSyncDataQuestion();

    // With a device whether sync debugging is on (1 or 0); without one -1.
    QVariant settingObjectValue() override;
    // Nothing without a device. A true value (ticked, or mixed) switches debugging on;
    // otherwise the user is asked, and debugging is switched off with the data removed when
    // the answer is "Delete Files".
    void setSettingObjectValue(const QVariant& value) override;

private:
    AlertPresenter* _presenter;
};
