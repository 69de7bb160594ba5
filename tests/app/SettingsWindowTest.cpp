// The debug settings window against the emulator, through its real controls (found by object
// name, clicked and typed with QTest): the sync-debug switch answered both ways, no device, the
// custom item, two devices one after another, a device leaving while the question is open, and
// the question in the warning panel. The devices' counters judge every write.
#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <functional>
#include <optional>

#include "AppTestbed.h"
#include "app/AppInterface.h"
#include "app/SettingsWindow.h"
#include "app/VRAppController.h"
#include "app/WarningPanel.h"
#include "platform/Defaults.h"
#include "platform/SystemLog.h"
#include "settings/VRAdditions.h"
#include "settings/VRCustomDeviceSetting.h"
#include "settings/VRLMSyncDebugDeviceSetting.h"
#include "support/TestSupport.h"
#include "support/WidgetInput.h"

using apptest::AppTest;
using apptest::Testbed;
using handlink::emu::Device;
using testsupport::clickCheckbox;
using testsupport::typeAndReturn;

namespace {

const QString kDomain = QStringLiteral("com.corvid.mobiletamber");
const QString kEnabled = QStringLiteral("syncDebug.enabled_v2");
const QString kRemoval = QStringLiteral("syncDebug.dataNeedsRemoval");
const QString kCustom = QStringLiteral("syncDebug.custom");
const QString kChange = QStringLiteral("com.corvid.mobiletamber.syncDebugChange");

QVariant flag(bool on)
{
    return qint64(on ? 1 : 0);
}

// Clicks the panel's button of this title; a panel without one is closed instead.
bool answerWith(QWidget* panel, const QString& title)
{
    for (QPushButton* button : panel->findChildren<QPushButton*>()) {
        if (button->text() == title) {
            QTest::mouseClick(button, Qt::LeftButton);
            return true;
        }
    }
    panel->close();
    return false;
}

// The whole application with the settings window in front; alerts answered from a script.
class SettingsWindowTest : public AppTest {
protected:
    void SetUp() override
    {
        AppTest::SetUp();
        interface = std::make_unique<AppInterface>(platform::Defaults::standard());
        interface->show();
        controller().setAlertPresenter(&presenter);
        controller().orderFrontSettingsWindow();
        SettingsWindow& window = interface->settingsWindow();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
        checkbox = window.findChild<QCheckBox*>(QStringLiteral("syncDebugCheckBox"));
        keyField = window.findChild<QLineEdit*>(QStringLiteral("customKeyField"));
        valueField = window.findChild<QLineEdit*>(QStringLiteral("customValueField"));
        ASSERT_TRUE(checkbox && keyField && valueField);
    }
    void TearDown() override
    {
        interface.reset();
        AppTest::TearDown();
    }

    VRAppController& controller() { return interface->controller(); }

    // Attaches a device and waits until the window follows it.
    std::shared_ptr<Device> attach(const QString& name)
    {
        auto device = Testbed::instance().attachNewDevice(name);
        const QString identifier = device->identifier();
        EXPECT_TRUE(testsupport::runUntil([&] {
            const std::shared_ptr<LinkDev> current = controller().device();
            return current && HLDeviceCopyDeviceIdentifier(current->deviceRef()) == identifier;
        }));
        return device;
    }

    // Puts values on the device through a device object of its own, lets the window show them
    // (as after a device change) and zeroes the device's counters.
    void seed(Device& device, const QVariantMap& values)
    {
        const std::shared_ptr<LinkDev> dev = Testbed::linkDevFor(device.identifier());
        ASSERT_TRUE(dev);
        for (auto value = values.begin(); value != values.end(); ++value)
            dev->setLockdownValue(value.value(), value.key(), kDomain);
        controller().handlinkAvailabliltyDidChange();
        device.resetCounters();
    }

    void expectControlsEnabled(bool enabled)
    {
        EXPECT_EQ(checkbox->isEnabled(), enabled);
        EXPECT_EQ(keyField->isEnabled(), enabled);
        EXPECT_EQ(valueField->isEnabled(), enabled);
        if (!enabled) {
            EXPECT_EQ(checkbox->checkState(), Qt::PartiallyChecked);
        }
    }

    apptest::ScriptedAlertPresenter presenter;  // outlives the interface
    std::unique_ptr<AppInterface> interface;
    QCheckBox* checkbox = nullptr;
    QLineEdit* keyField = nullptr;
    QLineEdit* valueField = nullptr;
};

}  // namespace

TEST_F(SettingsWindowTest, SyncDebugSwitchTickedAndUntickedBothWays)
{
    const struct {
        const char* name;
        bool before;
        std::optional<int> answer;  // none: the question is closed without a button
        bool enabled;
        bool removal;
    } cases[] = {
        {"ticked", false, std::nullopt, true, false},
        {"unticked, Keep", true, kAlertAlternateReturn, false, false},
        {"unticked, Delete Files", true, kAlertDefaultReturn, false, true},
        {"unticked, question closed", true, std::nullopt, false, false},
    };
    auto device = attach(QStringLiteral("Debug Tamber"));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        seed(*device, {{kEnabled, flag(c.before)}, {kRemoval, flag(!c.removal)}});
        ASSERT_EQ(checkbox->checkState(), c.before ? Qt::Checked : Qt::Unchecked);
        if (c.answer)
            presenter.answer(*c.answer);
        const size_t asked = presenter.shown().size();

        clickCheckbox(checkbox);

        EXPECT_EQ(device->value(kDomain, kEnabled), flag(c.enabled));
        EXPECT_EQ(device->value(kDomain, kRemoval), flag(c.removal));
        EXPECT_EQ(device->count(QStringLiteral("set-value")), 2);
        EXPECT_EQ(device->postedNotifications(), QStringList{kChange}) << "posted exactly once";
        EXPECT_EQ(checkbox->checkState(), c.enabled ? Qt::Checked : Qt::Unchecked);
        EXPECT_TRUE(checkbox->isEnabled());
        const auto shown = presenter.shown();
        ASSERT_EQ(shown.size(), asked + (c.before ? 1 : 0)) << "only unticking asks";
        if (c.before) {
            const Alert& question = shown.back().alert;
            EXPECT_EQ(question.messageText, QStringLiteral("Delete Sync Data Files"));
            EXPECT_EQ(question.informativeText,
                      QStringLiteral("While sync debugging is on, Tamber app backs up additional folders and files you "
                                     "may not want to keep around."));
            EXPECT_EQ(question.buttons, (QStringList{QStringLiteral("Delete Files"), QStringLiteral("Keep")}));
            EXPECT_TRUE(shown.back().onMainThread);
        }
    }
}

TEST_F(SettingsWindowTest, WithoutADeviceNothingCanBeChangedUntilOneComes)
{
    ASSERT_EQ(controller().device(), nullptr);
    expectControlsEnabled(false);
    clickCheckbox(checkbox);
    typeAndReturn(keyField, kCustom);
    EXPECT_EQ(checkbox->checkState(), Qt::PartiallyChecked);
    EXPECT_TRUE(keyField->text().isEmpty()) << "a disabled field takes no typing";

    // The switch's own write does nothing without a device: no question either.
    const DebugSettingMap& map = controller().debugSettingMap();
    ASSERT_EQ(map.count(), 2u);
    auto* syncDebug = dynamic_cast<VRLMSyncDebugDeviceSetting*>(map.settingForValueControl(checkbox));
    ASSERT_TRUE(syncDebug);
    syncDebug->setSettingObjectValue(qint64(0));
    EXPECT_TRUE(presenter.shown().empty());

    // A device comes: the controls are enabled and show its values; each control drives the
    // setting the map holds for it.
    auto device = attach(QStringLiteral("Late Tamber"));
    expectControlsEnabled(true);
    EXPECT_EQ(checkbox->checkState(), Qt::Unchecked);
    EXPECT_FALSE(checkbox->isTristate());
    auto* custom = dynamic_cast<VRCustomDeviceSetting*>(map.settingForValueControl(valueField));
    ASSERT_TRUE(custom);
    EXPECT_EQ(custom->domain(), kDomain);
    EXPECT_EQ(VRAdditions::target(checkbox), map.settingForValueControl(checkbox));
    EXPECT_EQ(VRAdditions::target(keyField), custom);
    EXPECT_EQ(VRAdditions::target(valueField), custom);
}

TEST_F(SettingsWindowTest, CustomItemShowsAndWritesTheTypedKey)
{
    auto device = attach(QStringLiteral("Custom Tamber"));
    seed(*device, {{kCustom, QStringLiteral("before")}});

    typeAndReturn(keyField, kCustom);
    EXPECT_TRUE(testsupport::runUntil([&] { return valueField->text() == u"before"; }));

    device->resetCounters();
    typeAndReturn(valueField, QStringLiteral("after"));
    EXPECT_EQ(device->value(kDomain, kCustom), QStringLiteral("after"));
    EXPECT_EQ(device->count(QStringLiteral("set-value")), 1);
    EXPECT_EQ(valueField->text(), QStringLiteral("after"));

    typeAndReturn(keyField, QStringLiteral("syncDebug.absent"));
    EXPECT_TRUE(testsupport::runUntil([&] { return valueField->text().isEmpty(); })) << "a missing key shows nothing";
}

TEST_F(SettingsWindowTest, TwoDevicesOneAfterAnother)
{
    auto first = attach(QStringLiteral("First Tamber"));
    seed(*first, {{kCustom, QStringLiteral("from first")}, {kEnabled, flag(false)}});
    typeAndReturn(keyField, kCustom);
    ASSERT_TRUE(testsupport::runUntil([&] { return valueField->text() == u"from first"; }));

    auto second = attach(QStringLiteral("Second Tamber"));
    seed(*second, {{kCustom, QStringLiteral("from second")}, {kEnabled, flag(true)}});
    EXPECT_EQ(valueField->text(), QStringLiteral("from second")) << "the typed key, read from the second device";
    EXPECT_EQ(checkbox->checkState(), Qt::Checked);
    first->resetCounters();

    presenter.answer(kAlertDefaultReturn);
    clickCheckbox(checkbox);
    typeAndReturn(valueField, QStringLiteral("typed"));

    EXPECT_EQ(second->value(kDomain, kEnabled), flag(false));
    EXPECT_EQ(second->value(kDomain, kRemoval), flag(true));
    EXPECT_EQ(second->value(kDomain, kCustom), QStringLiteral("typed"));
    EXPECT_EQ(second->postedNotifications(), QStringList{kChange});
    for (const char* operation : {"connect", "get-value", "set-value", "start-service", "post-notification"})
        EXPECT_EQ(first->count(QString::fromLatin1(operation)), 0) << operation << " on the first device";
    EXPECT_EQ(first->value(kDomain, kCustom), QStringLiteral("from first"));
    EXPECT_EQ(first->value(kDomain, kEnabled), flag(false));
}

TEST_F(SettingsWindowTest, DeviceLeavesWhileTheQuestionIsOpen)
{
    auto device = attach(QStringLiteral("Leaving Tamber"));
    seed(*device, {{kEnabled, flag(true)}, {kRemoval, flag(false)}});
    // The settings are rebuilt for no device while the question waits for its answer.
    presenter.whileOpen([&] { Testbed::instance().detach(device); });
    presenter.answer(kAlertDefaultReturn);
    platform::LogCapture log;

    clickCheckbox(checkbox);

    ASSERT_EQ(presenter.shown().size(), 1u);
    EXPECT_EQ(controller().device(), nullptr);
    expectControlsEnabled(false);
    EXPECT_EQ(device->value(kDomain, kEnabled), flag(true)) << "the device was gone before the answer";
    EXPECT_FALSE(log.linesStartingWith(QStringLiteral("ERROR: ")).isEmpty()) << "the failed writes are logged";
}

TEST_F(SettingsWindowTest, TheQuestionInTheWarningPanel)
{
    WarningPanel& panel = interface->warningPanel();
    const Alert question = VRLMSyncDebugDeviceSetting::deleteSyncDataQuestion();
    const struct {
        const char* name;
        std::function<void()> act;
        int answer;
    } cases[] = {
        {"Delete Files", [&] { QTest::mouseClick(panel.findChild<QPushButton*>(QStringLiteral("alertButton0")), Qt::LeftButton); },
         kAlertDefaultReturn},
        {"Keep", [&] { QTest::mouseClick(panel.findChild<QPushButton*>(QStringLiteral("alertButton1")), Qt::LeftButton); },
         kAlertAlternateReturn},
        {"Escape", [&] { QTest::keyClick(&panel, Qt::Key_Escape); }, kAlertAlternateReturn},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        QStringList seen;
        QTimer::singleShot(0, &panel, [&] {
            const auto* informative = panel.findChild<QLabel*>(QStringLiteral("informativeLabel"));
            if (informative->isVisible())
                seen << informative->text();
            for (const QPushButton* button : panel.findChildren<QPushButton*>())
                seen << button->objectName() + u'=' + button->text() + (button->isDefault() ? QStringLiteral("*") : QString());
            c.act();
        });
        EXPECT_EQ(panel.runModal(question), c.answer);
        seen.sort();
        EXPECT_EQ(seen, (QStringList{question.informativeText, QStringLiteral("alertButton0=Delete Files*"),
                                     QStringLiteral("alertButton1=Keep")}));
    }
}

TEST_F(SettingsWindowTest, AJobsQuestionWhileTheSyncDebugQuestionIsOpen)
{
    auto device = attach(QStringLiteral("Busy Tamber"));
    seed(*device, {{kEnabled, flag(true)}, {kRemoval, flag(false)}});
    WarningPanel& panel = interface->warningPanel();
    controller().setAlertPresenter(&panel);

    // While the sync-debug question waits, a running job asks "Stop" or "Continue Anyways":
    // it gets a panel of its own above the question, and each is answered by its own buttons.
    Alert jobQuestion;
    jobQuestion.messageText = QStringLiteral("HLDError: 'QFCFileRefRead()', hld_error = -402653173 (kHLDNotConnectedError).");
    jobQuestion.buttons = {QStringLiteral("Stop"), QStringLiteral("Continue Anyways")};
    std::optional<int> jobAnswer;
    QStringList seen;
    bool topLookedAt = false;
    QTimer::singleShot(0, &panel, [&] {
        QTimer::singleShot(0, &panel, [&] {
            QWidget* top = QApplication::activeModalWidget();
            if (top && top != &panel) {
                seen << top->findChild<QLabel*>(QStringLiteral("messageLabel"))->text();
                answerWith(top, QStringLiteral("Continue Anyways"));
            }
            topLookedAt = true;
        });
        jobAnswer = controller().runModal(jobQuestion);
        seen << panel.findChild<QLabel*>(QStringLiteral("messageLabel"))->text();
        EXPECT_TRUE(answerWith(&panel, QStringLiteral("Keep")));
    });

    clickCheckbox(checkbox);
    ASSERT_TRUE(testsupport::runUntil([&] { return topLookedAt; }));

    EXPECT_EQ(jobAnswer, kAlertSecondButtonReturn) << "the job's question waited for its own answer";
    EXPECT_EQ(seen, (QStringList{jobQuestion.messageText, QStringLiteral("Delete Sync Data Files")}))
        << seen.join(u'|').toStdString();
    EXPECT_EQ(device->value(kDomain, kEnabled), flag(false));
    EXPECT_EQ(device->value(kDomain, kRemoval), flag(false)) << "answered Keep: nothing is deleted";
}
