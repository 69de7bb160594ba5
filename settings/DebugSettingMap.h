#pragma once
// The settings window's map of device settings: the sync-debug checkbox and the custom item
// (a key field and a value field of "com.corvid.mobiletamber"), keyed by the identity of each
// setting's value control. The application controller owns it and forwards
// loadDebugSettingsMap and _updateDebugSettingsUI to it; it asks its host for the current
// device, the controls and the presenter of the sync-debug question.
//
// Every rebuild destroys the previous settings before it creates the new ones, so the old
// ones have let go of the controls (and of device changes) when the new ones bind: a control
// only ever drives the setting of the current device. Main thread only.
#include <QCheckBox>
#include <QLineEdit>
#include <cstddef>
#include <map>
#include <memory>

#include "device/LinkDev.h"
#include "platform/AlertPresenter.h"
#include "settings/VRDeviceSetting.h"

struct DebugSettingControls {
    QCheckBox* syncDebugCheckbox = nullptr;
    QLineEdit* customItemKeyField = nullptr;
    QLineEdit* customItemValueField = nullptr;
};

// What the map needs of its owner. Main thread.
class DebugSettingMapHost {
public:
    virtual ~DebugSettingMapHost() = default;
    // The current device; null when none is attached.
    virtual std::shared_ptr<LinkDev> debugSettingsDevice() = 0;
    // The settings window's controls; a missing one (a controller without windows) gets no setting.
    virtual DebugSettingControls debugSettingsControls() = 0;
    // Where the sync-debug question is asked; it must outlive the map.
    virtual AlertPresenter& debugSettingsAlertPresenter() = 0;
};

class DebugSettingMap {
public:
    explicit DebugSettingMap(DebugSettingMapHost& host) : _host(host) {}

    // Replaces the map (the previous settings are destroyed first) with new settings for the
    // current device: the sync-debug setting under the checkbox, the custom setting (its key
    // the key field's text now) under the value field.
    void loadDebugSettingsMap();
    // Rebuilds the map, then gives every setting the current device and shows its value.
    void _updateDebugSettingsUI();

    // The setting whose value control is this one, or null.
    VRDeviceSetting* settingForValueControl(const QObject* control) const;
    std::size_t count() const { return _debugSettingMap.size(); }

private:
    DebugSettingMapHost& _host;
    std::map<const QObject*, std::unique_ptr<VRDeviceSetting>> _debugSettingMap;
};
