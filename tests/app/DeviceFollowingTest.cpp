// Following the current device: attach and detach one after another, with the window loaded.
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <cstddef>
#include <new>

#include "AppTestbed.h"
#include "app/AppInterface.h"
#include "app/MainWindow.h"
#include "app/VRAppController.h"
#include "platform/Defaults.h"
#include "support/TestSupport.h"

using apptest::AppTest;
using apptest::Testbed;
using platform::Defaults;

namespace {

QString identifierOf(const std::shared_ptr<LinkDev>& device)
{
    return device ? HLDeviceCopyDeviceIdentifier(device->deviceRef()) : QString();
}

// Waits until the controller's current device is the given one (or none).
bool waitForCurrent(VRAppController& controller, const QString& identifier)
{
    return testsupport::runUntil([&] { return identifierOf(controller.device()) == identifier; });
}

}  // namespace

TEST_F(AppTest, FollowsDevicesAsTheyComeAndGo)
{
    Defaults& store = Defaults::standard();
    AppInterface interface(store);
    interface.show();
    VRAppController& controller = interface.controller();
    MainWindow& main = interface.mainWindow();
    QLineEdit* answer = main.checkStatusField();

    EXPECT_FALSE(store.boolForKey(QStringLiteral("connected")));
    EXPECT_EQ(controller.device(), nullptr);

    answer->setText(QStringLiteral("No one is holding the lock file."));
    auto first = Testbed::instance().attachNewDevice(QStringLiteral("First Tamber"));
    ASSERT_TRUE(waitForCurrent(controller, first->identifier()));
    EXPECT_TRUE(store.boolForKey(QStringLiteral("connected")));
    EXPECT_EQ(store.stringForKey(QStringLiteral("activeConnectedLinkDevName")), QStringLiteral("First Tamber"));
    EXPECT_EQ(main.deviceNameLabel()->text(), QStringLiteral("First Tamber"));
    EXPECT_TRUE(answer->text().isEmpty()) << "a Check Status answer never outlives a device change";
    EXPECT_TRUE(main.runButton()->isEnabled());

    answer->setText(QStringLiteral("Lumen is likely holding the lock file."));
    auto second = Testbed::instance().attachNewDevice(QStringLiteral("Second Zephyr"));
    ASSERT_TRUE(waitForCurrent(controller, second->identifier())) << "the most recent device becomes current";
    EXPECT_EQ(main.deviceNameLabel()->text(), QStringLiteral("Second Zephyr"));
    EXPECT_TRUE(answer->text().isEmpty());

    answer->setText(QStringLiteral("Zephyr is likely holding the lock file."));
    Testbed::instance().detach(second);
    ASSERT_TRUE(waitForCurrent(controller, first->identifier())) << "the first device is current again";
    EXPECT_EQ(main.deviceNameLabel()->text(), QStringLiteral("First Tamber"));
    EXPECT_TRUE(store.boolForKey(QStringLiteral("connected")));
    EXPECT_TRUE(answer->text().isEmpty());

    answer->setText(QStringLiteral("No one is holding the lock file."));
    Testbed::instance().detach(first);
    ASSERT_TRUE(waitForCurrent(controller, QString()));
    EXPECT_FALSE(store.boolForKey(QStringLiteral("connected")));
    EXPECT_EQ(store.stringForKey(QStringLiteral("activeConnectedLinkDevName")), QStringLiteral("No Device Connected"));
    EXPECT_EQ(main.deviceNameLabel()->text(), QStringLiteral("No Device Connected"));
    EXPECT_TRUE(answer->text().isEmpty());
    EXPECT_FALSE(main.runButton()->isEnabled());
}

TEST_F(AppTest, EveryChangeGivesAFreshDeviceObject)
{
    VRAppController controller(Defaults::standard());
    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Tamber"));
    ASSERT_TRUE(waitForCurrent(controller, device->identifier()));
    const std::shared_ptr<LinkDev> before = controller.device();

    // Another device comes and goes: the same device is current again, as a new object.
    auto other = Testbed::instance().attachNewDevice(QStringLiteral("Other"));
    ASSERT_TRUE(waitForCurrent(controller, other->identifier()));
    Testbed::instance().detach(other);
    ASSERT_TRUE(waitForCurrent(controller, device->identifier()));
    EXPECT_NE(controller.device().get(), before.get());
    EXPECT_EQ(Defaults::standard().stringForKey(QStringLiteral("activeConnectedLinkDevName")), QStringLiteral("Tamber"));
}

TEST_F(AppTest, DevicesAlreadyAttachedAreFollowedFromTheStart)
{
    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Early Tamber"));
    AppInterface interface(Defaults::standard());
    ASSERT_TRUE(waitForCurrent(interface.controller(), device->identifier()));
    EXPECT_EQ(interface.mainWindow().deviceNameLabel()->text(), QStringLiteral("Early Tamber"));
    EXPECT_TRUE(Defaults::standard().boolForKey(QStringLiteral("connected")));
}

TEST_F(AppTest, DeviceThatRefusesASessionIsNamedZephyr)
{
    AppInterface interface(Defaults::standard());
    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Private Tamber"), QStringLiteral("refuse"));
    ASSERT_TRUE(waitForCurrent(interface.controller(), device->identifier()));
    EXPECT_EQ(interface.mainWindow().deviceNameLabel()->text(), QStringLiteral("Zephyr"));
    EXPECT_TRUE(Defaults::standard().boolForKey(QStringLiteral("connected")));
}

TEST_F(AppTest, DeviceChangeWritesStateBeforeClearingTheAnswer)
{
    Defaults& store = Defaults::standard();
    AppInterface interface(store);
    QLineEdit* answer = interface.mainWindow().checkStatusField();
    apptest::WriteRecorder writes;
    QObject::connect(answer, &QLineEdit::textChanged, answer,
                     [&](const QString& text) { writes.mark(QStringLiteral("answer=") + text); });
    const QStringList watched = {QStringLiteral("connected"), QStringLiteral("activeConnectedLinkDevName")};
    auto steps = [&] {
        QStringList order;
        for (const QString& entry : writes.entries())
            if (watched.contains(entry.section(u'=', 0, 0)) || entry.startsWith(u"answer="))
                order << entry;
        return order;
    };

    answer->setText(QStringLiteral("Lumen is likely holding the lock file."));
    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Ordered Tamber"));
    ASSERT_TRUE(waitForCurrent(interface.controller(), device->identifier()));
    answer->setText(QStringLiteral("No one is holding the lock file."));
    Testbed::instance().detach(device);
    ASSERT_TRUE(waitForCurrent(interface.controller(), QString()));

    EXPECT_EQ(steps(), (QStringList{QStringLiteral("answer=Lumen is likely holding the lock file."),
                                    QStringLiteral("connected=true"),
                                    QStringLiteral("activeConnectedLinkDevName=Ordered Tamber"), QStringLiteral("answer="),
                                    QStringLiteral("answer=No one is holding the lock file."),
                                    QStringLiteral("connected=false"),
                                    QStringLiteral("activeConnectedLinkDevName=No Device Connected"),
                                    QStringLiteral("answer=")}));
}

namespace {

// Counts the device changes it is told about, into a count that outlives it.
class CountingObserver : public LinkDevObserver {
public:
    explicit CountingObserver(int& told) : _told(told) {}
    void handlinkAvailabliltyDidChange() override { ++_told; }

private:
    int& _told;
};

}  // namespace

TEST_F(AppTest, DestroyedControllerIsNoLongerTold)
{
    // The controller lives in storage that outlives it. Once it is destroyed, a counting
    // observer takes the place where the registry knew the controller: should the registry
    // still hold that address, the change below reaches the counter instead of freed memory.
    alignas(VRAppController) std::byte storage[sizeof(VRAppController)];
    auto* controller = new (storage) VRAppController(Defaults::standard());
    auto* const registered = static_cast<LinkDevObserver*>(controller);
    controller->~VRAppController();

    int told = 0;
    const auto offset = reinterpret_cast<std::byte*>(registered) - storage;
    ASSERT_LE(offset + sizeof(CountingObserver), sizeof storage);
    auto* standIn = new (registered) CountingObserver(told);
    ASSERT_EQ(static_cast<LinkDevObserver*>(standIn), registered);

    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Later"));
    Testbed::instance().detach(device);
    EXPECT_EQ(told, 0) << "the registry still told the destroyed controller";
    EXPECT_FALSE(Defaults::standard().boolForKey(QStringLiteral("connected")));

    // Whatever happened, the storage must not stay registered past this test.
    LinkDev::unregisterDeviceObserver(registered);
    standIn->~CountingObserver();

    // The counter does count when the registry tells it.
    told = 0;
    CountingObserver listening(told);
    LinkDev::registerDeviceObserver(&listening);
    device = Testbed::instance().attachNewDevice(QStringLiteral("Heard"));
    LinkDev::unregisterDeviceObserver(&listening);
    EXPECT_EQ(told, 1);
}
