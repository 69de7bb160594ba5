#include "settings/DebugSettingMap.h"

#include <utility>

#include "settings/LMSyncDebug.h"
#include "settings/VRCustomDeviceSetting.h"
#include "settings/VRLMSyncDebugDeviceSetting.h"

void DebugSettingMap::loadDebugSettingsMap()
{
    // The previous settings go first: they let go of the controls before the new ones bind.
    std::exchange(_debugSettingMap, {}).clear();

    const std::shared_ptr<LinkDev> device = _host.debugSettingsDevice();
    const DebugSettingControls controls = _host.debugSettingsControls();
    if (controls.syncDebugCheckbox)
        _debugSettingMap[controls.syncDebugCheckbox] = VRLMSyncDebugDeviceSetting::settingWithDevice(
            device, controls.syncDebugCheckbox, &_host.debugSettingsAlertPresenter());
    if (controls.customItemKeyField && controls.customItemValueField)
        _debugSettingMap[controls.customItemValueField] = VRCustomDeviceSetting::settingWithDevice(
            device, kLMSyncDebugDomain, controls.customItemKeyField, controls.customItemValueField);
}

void DebugSettingMap::_updateDebugSettingsUI()
{
    loadDebugSettingsMap();
    const std::shared_ptr<LinkDev> device = _host.debugSettingsDevice();
    for (const auto& [control, setting] : _debugSettingMap) {
        setting->setDevice(device);
        setting->updateValueControlFromDevice();
    }
}

VRDeviceSetting* DebugSettingMap::settingForValueControl(const QObject* control) const
{
    const auto found = _debugSettingMap.find(control);
    return found == _debugSettingMap.end() ? nullptr : found->second.get();
}
