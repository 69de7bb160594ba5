#pragma once
// The settings tests' world: the device tests' emulator (one for the binary, the registry
// subscribed before the first test), a fresh device per test, and real controls like those of
// the settings window (a checkbox, a key field and a value field) in a shown window.
#include <QCheckBox>
#include <QLineEdit>
#include <QString>
#include <QWidget>
#include <memory>

#include "device/DeviceTestbed.h"
#include "device/LinkDev.h"
#include "settings/VRDeviceSetting.h"

namespace settingstest {

inline const QString kDomain = QStringLiteral("com.corvid.mobiletamber");

using devicetest::Testbed;

// A shown window with the three controls, named as in the settings window.
class Controls {
public:
    Controls();
    QWidget window;
    QCheckBox* checkbox;
    QLineEdit* keyField;
    QLineEdit* valueField;
};

class SettingsTest : public devicetest::DeviceTest {
protected:
    // Puts a value on the device, then zeroes its counters, so a test counts only its own calls.
    void seed(const QString& key, const QVariant& value);
    int reads() const { return device->count(QStringLiteral("get-value")); }
    int writes() const { return device->count(QStringLiteral("set-value")); }

    Controls controls;
};

// Runs the event loop until the setting has no refresh waiting (false if it never got there).
bool settle(const VRDeviceSetting& setting);

}  // namespace settingstest
