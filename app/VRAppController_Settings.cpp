// VRAppController: the debug settings, which live in the settings subsystem; the controller
// hosts them and forwards.
#include "app/VRAppController.h"

void VRAppController::loadDebugSettingsMap()
{
    _debugSettingMap.loadDebugSettingsMap();
}

void VRAppController::_updateDebugSettingsUI()
{
    _debugSettingMap._updateDebugSettingsUI();
}

DebugSettingControls VRAppController::debugSettingsControls()
{
    return {_debugSetting_SyncDebugCheckbox, _debugSetting_CustomItemKeyField, _debugSetting_CustomItemValueField};
}
