#pragma once
// The settings tests' world: one in-process emulator for the binary (the device registry
// subscribes once per process), a fresh device per test, and real controls like those of the
// settings window (a checkbox, a key field and a value field, found by object name) in a shown
// window.
#include <QCheckBox>
#include <QLineEdit>
#include <QString>
#include <QWidget>
#include <memory>

#include "device/LinkDev.h"
#include "settings/VRDeviceSetting.h"
#include "support/EmulatorTestbed.h"

namespace settingstest {

inline const QString kDomain = QStringLiteral("com.corvid.mobiletamber");

class Testbed : public testsupport::EmulatorTestbed {
public:
    static Testbed& instance();
    Testbed() : EmulatorTestbed(QStringLiteral("SETTINGS")) {}
};

void installEnvironment();

// A shown window with the three controls, named as in the settings window.
class Controls {
public:
    Controls();
    QWidget window;
    QCheckBox* checkbox;
    QLineEdit* keyField;
    QLineEdit* valueField;
};

class SettingsTest : public testsupport::AttachedDeviceTest<Testbed> {
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
