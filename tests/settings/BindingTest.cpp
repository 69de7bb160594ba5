// Device settings bound to real controls: what the controls show with and without a device,
// the one refresh after property changes, the change notification, and what writes leave on
// the device and on the screen. The device's counters judge every read and write.
#include <QApplication>
#include <QImage>
#include <functional>
#include <gtest/gtest.h>

#include "SettingsTestbed.h"
#include "device/HLDError.h"
#include "platform/NotificationCenter.h"
#include "platform/SystemLog.h"
#include "settings/VRBooleanDeviceSetting.h"
#include "settings/VRCustomDeviceSetting.h"
#include "support/WidgetInput.h"

using namespace settingstest;
using handlink::emu::Fault;

namespace {

QImage picture(QWidget* widget)
{
    return widget->grab().toImage();
}

}  // namespace

TEST_F(SettingsTest, ControlsFollowTheDevice)
{
    seed(QStringLiteral("syncDebug.custom"), QStringLiteral("hello"));
    seed(QStringLiteral("flag"), qint64(1));
    controls.keyField->setText(QStringLiteral("syncDebug.custom"));
    auto custom = VRCustomDeviceSetting::settingWithDevice(dev, kDomain, controls.keyField, controls.valueField);
    auto flag = VRBooleanDeviceSetting::settingWithDevice(dev, kDomain, QStringLiteral("flag"), controls.checkbox);
    EXPECT_EQ(reads(), 0) << "creating a setting does not read the device";

    const struct {
        const char* name;
        std::shared_ptr<LinkDev> device;
        QString value;
        Qt::CheckState state;
    } cases[] = {
        {"with the device", dev, QStringLiteral("hello"), Qt::Checked},
        {"device removed", nullptr, QString(), Qt::PartiallyChecked},
        {"device back", dev, QStringLiteral("hello"), Qt::Checked},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        custom->setDevice(c.device);
        flag->setDevice(c.device);
        ASSERT_TRUE(settle(*custom));
        ASSERT_TRUE(settle(*flag));
        const bool enabled = c.device != nullptr;
        for (QLineEdit* field : {controls.keyField, controls.valueField}) {
            EXPECT_EQ(field->isEnabled(), enabled);
            const QPalette::ColorGroup group = enabled ? QPalette::Active : QPalette::Disabled;
            EXPECT_EQ(field->palette().color(group, QPalette::Text),
                      enabled ? QApplication::palette(field).color(QPalette::Active, QPalette::Text)
                              : QColor(Qt::transparent));
        }
        EXPECT_EQ(controls.valueField->text(), c.value);
        EXPECT_EQ(controls.keyField->text(), QStringLiteral("syncDebug.custom")) << "the key is kept, only hidden";
        EXPECT_EQ(controls.checkbox->isEnabled(), enabled);
        EXPECT_EQ(controls.checkbox->isTristate(), !enabled) << "the mixed state only without a device";
        EXPECT_EQ(controls.checkbox->checkState(), c.state);
    }

    EXPECT_EQ(writes(), 0) << "showing the device's values never writes them back";

    // What a user sees of the disabled key field: the same as an empty field.
    custom->setDevice(nullptr);
    ASSERT_TRUE(settle(*custom));
    const QImage withHiddenKey = picture(controls.keyField);
    controls.keyField->clear();
    EXPECT_EQ(withHiddenKey, picture(controls.keyField));
}

TEST_F(SettingsTest, DomainKeyAndDeviceChangesRefreshOnceAtTheNextTurn)
{
    seed(QStringLiteral("first"), QStringLiteral("one"));
    seed(QStringLiteral("second"), QStringLiteral("two"));
    const QString elsewhere = QStringLiteral("com.corvid.elsewhere");
    const struct {
        const char* name;
        std::function<void(VRDeviceSetting&)> change;
        QString shown;
    } cases[] = {
        {"domain then key",
         [&](VRDeviceSetting& s) {
             s.setDomain(kDomain);
             s.setKey(QStringLiteral("second"));
         },
         QStringLiteral("two")},
        {"key, domain, key",
         [&](VRDeviceSetting& s) {
             s.setKey(QStringLiteral("second"));
             s.setDomain(kDomain);
             s.setKey(QStringLiteral("first"));
         },
         QStringLiteral("one")},
        {"device then domain",
         [&](VRDeviceSetting& s) {
             s.setDevice(dev);
             s.setDomain(kDomain);
         },
         QStringLiteral("one")},
        {"the same key again", [&](VRDeviceSetting& s) { s.setKey(s.key()); }, QString()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto setting = VRDeviceSetting::settingWithDevice(dev, elsewhere, QStringLiteral("first"), controls.valueField,
                                                          nullptr);
        controls.valueField->setText(QStringLiteral("stale"));
        device->resetCounters();
        c.change(*setting);
        EXPECT_TRUE(setting->refreshPending());
        EXPECT_EQ(reads(), 0) << "nothing is read before the event loop turns";
        ASSERT_TRUE(settle(*setting));
        EXPECT_EQ(reads(), 1) << "one refresh for the whole run of changes";
        EXPECT_EQ(controls.valueField->text(), c.shown);
    }
}

TEST_F(SettingsTest, ChangeNotificationRefreshesOncePerMatchingKey)
{
    const std::shared_ptr<LinkDev> other = Testbed::linkDevFor(device->identifier());  // same device, another object
    ASSERT_TRUE(other);
    const QString key = QStringLiteral("syncDebug.custom");
    const struct {
        const char* name;
        std::shared_ptr<LinkDev> createdWith;  // fixes the sender filter
        std::shared_ptr<LinkDev> current;
        const LinkDev* sender;
        QStringList keys;
        int refreshes;
    } cases[] = {
        {"the key", dev, dev, dev.get(), {key}, 1},
        {"the key twice", dev, dev, dev.get(), {key, key}, 2},
        {"the key among others", dev, dev, dev.get(), {QStringLiteral("a"), key, QStringLiteral("b")}, 1},
        {"other keys only", dev, dev, dev.get(), {QStringLiteral("a"), QStringLiteral("b")}, 0},
        {"another sender", dev, dev, other.get(), {key}, 0},
        {"moved to another device, which posts", dev, other, other.get(), {key}, 0},
        {"moved to another device, the first posts", dev, other, dev.get(), {key}, 1},
        {"created without a device hears every sender", nullptr, dev, other.get(), {key}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto setting = VRDeviceSetting::settingWithDevice(c.createdWith, kDomain, key, controls.valueField, nullptr);
        setting->setDevice(c.current);
        ASSERT_TRUE(settle(*setting));
        device->resetCounters();
        QVariantList keys;
        for (const QString& k : c.keys)
            keys << k;
        platform::NotificationCenter::defaultCenter().post(LinkDevLockdownValueDidChange, c.sender,
                                                           {{QStringLiteral("keys"), keys}});
        EXPECT_EQ(reads(), c.refreshes);
        EXPECT_FALSE(setting->refreshPending()) << "the notification refreshes at once";
    }
}

TEST_F(SettingsTest, WritesLeaveTheDevicesValueOnScreen)
{
    const QString key = QStringLiteral("syncDebug.custom");
    const QString errorLine =
        QStringLiteral("ERROR: Attempt to set lockdown domain=com.corvid.mobiletamber, key=%1, value=%2, failed.  error = ") +
        ErrorFromHLDError(kHLDBusyError, QStringLiteral("HLDeviceSetValue()")).description();
    const struct {
        const char* name;
        bool checkbox;     // the flag's checkbox, or the text field
        QVariant before;   // on the device
        bool fail;         // set-value answers busy
        QVariant after;    // on the device afterwards
        QString written;   // the value's text in the log
    } cases[] = {
        {"text typed", false, QStringLiteral("off"), false, QStringLiteral("on"), QStringLiteral("on")},
        {"text typed, write fails", false, QStringLiteral("off"), true, QStringLiteral("off"), QStringLiteral("on")},
        {"ticked", true, qint64(0), false, qint64(1), QStringLiteral("1")},
        {"unticked", true, qint64(1), false, qint64(0), QStringLiteral("0")},
        {"ticked, write fails", true, qint64(0), true, qint64(0), QStringLiteral("1")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        seed(key, c.before);
        std::unique_ptr<VRDeviceSetting> setting;
        if (c.checkbox)
            setting = VRBooleanDeviceSetting::settingWithDevice(dev, kDomain, key, controls.checkbox);
        else
            setting = VRDeviceSetting::settingWithDevice(dev, kDomain, key, controls.valueField, nullptr);
        setting->updateValueControlFromDevice();
        if (c.fail)
            device->addFault(Fault{QStringLiteral("set-value"), kHLDBusyError, 1, 0, QString()});
        device->resetCounters();
        platform::LogCapture log;

        if (c.checkbox)
            testsupport::clickCheckbox(controls.checkbox);
        else
            testsupport::typeAndReturn(controls.valueField, QStringLiteral("on"));

        EXPECT_EQ(writes(), 1);
        EXPECT_EQ(device->value(kDomain, key), c.after);
        EXPECT_EQ(device->value(kDomain, key).typeId(), c.before.typeId()) << "integers stay integers";
        // Read back after the write; a successful one is also announced, which reads once more.
        EXPECT_EQ(reads(), c.fail ? 1 : 2);
        if (c.checkbox)
            EXPECT_EQ(controls.checkbox->checkState(), c.after.toLongLong() ? Qt::Checked : Qt::Unchecked);
        else
            EXPECT_EQ(controls.valueField->text(), c.after.toString());
        const QStringList errors = log.linesStartingWith(QStringLiteral("ERROR: "));
        if (c.fail) {
            ASSERT_EQ(errors.size(), 1);
            EXPECT_EQ(errors[0], errorLine.arg(key, c.written));
        } else {
            EXPECT_TRUE(errors.isEmpty()) << errors.join(u'\n').toStdString();
        }
        device->clearFaults();
    }
}
