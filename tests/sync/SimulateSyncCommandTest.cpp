// The Simulate Sync command with the main event loop running: texts on the main thread, the
// state keys, and the run deferred until a device arrives.
#include <QLineEdit>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "SyncTestbed.h"
#include "platform/Defaults.h"
#include "platform/MainThread.h"
#include "platform/SystemLog.h"
#include "sync/SimulateSyncCommand.h"

using namespace synctest;

namespace {

const QString kActive = QStringLiteral("activeLinkDevActionSyncing");
const QString kInactive = QStringLiteral("appInactive");

// The window side: a status field, a defaults store and the current device.
class WindowHost : public SimulateSyncHost {
public:
    WindowHost() : store(dir.filePath(QStringLiteral("defaults.ini")))
    {
        field.setVisible(false);
        store.setBool(kInactive, false);  // as doIt: leaves it
    }
    std::shared_ptr<LinkDev> simulateSyncDevice() override
    {
        calledOffMain |= !platform::mainthread::isMainThread();
        return device;
    }
    platform::Defaults& simulateSyncDefaults() override
    {
        calledOffMain |= !platform::mainthread::isMainThread();
        return store;
    }
    void showSyncStatusText() override
    {
        calledOffMain |= !platform::mainthread::isMainThread();
        field.setVisible(true);
    }
    void setSyncStatusText(const QString& text) override
    {
        calledOffMain |= !platform::mainthread::isMainThread();
        field.setText(text);
        texts << text;
    }
    bool finished() const { return store.boolForKey(kInactive) && !store.boolForKey(kActive); }

    QTemporaryDir dir;
    platform::Defaults store;
    QLineEdit field;
    std::shared_ptr<LinkDev> device;
    QStringList texts;
    bool calledOffMain = false;
};

class SimulateSyncCommandTest : public DeviceTest {};

TEST_F(SimulateSyncCommandTest, StatusFieldFollowsTheSimulation)
{
    handlink::emu::HoldLockOptions exclusive;
    auto holder = device->holdLock(kLockPath, exclusive);
    ASSERT_TRUE(holder);
    WindowHost host;
    host.device = dev;
    SimulateSyncCommand command(host);
    ASSERT_TRUE(host.field.isHidden());

    command.simulateSync();
    EXPECT_TRUE(host.store.boolForKey(kActive));
    EXPECT_FALSE(host.field.isHidden());

    // The field shows the wait while the device's software keeps the lock...
    ASSERT_TRUE(waitFor([&] { return !host.texts.isEmpty(); }));
    EXPECT_EQ(host.field.text(), QStringLiteral("waiting to acquire lock...."));
    EXPECT_TRUE(host.store.boolForKey(kActive));
    EXPECT_FALSE(host.store.boolForKey(kInactive));
    EXPECT_TRUE(holder->holding());
    EXPECT_EQ(device->postCount(kDidStart), 0);

    // ...and "Done." once it let go and the sync ran.
    holder->release();
    ASSERT_TRUE(waitFor([&] { return host.finished(); }));
    EXPECT_EQ(host.texts, QStringList({QStringLiteral("waiting to acquire lock...."), QString(""), QStringLiteral("Done.")}));
    EXPECT_EQ(host.field.text(), QStringLiteral("Done."));
    EXPECT_FALSE(host.calledOffMain);
    EXPECT_EQ(device->postCount(kDidStart), 1);
    EXPECT_EQ(device->postCount(kDidFinish), 1);
    EXPECT_TRUE(syncLockIsFree());
}

TEST_F(SimulateSyncCommandTest, FailureTextStaysInTheField)
{
    device->addFault(handlink::emu::Fault{QStringLiteral("post-notification"), kHLDUndefinedError, 1, 0, kDidStart});
    WindowHost host;
    host.device = dev;
    host.store.setFloat(QStringLiteral("syncSim.duration"), 0.0f);
    SimulateSyncCommand command(host);
    command.simulateSync();
    ASSERT_TRUE(waitFor([&] { return host.finished(); }));
    EXPECT_EQ(host.field.text(), QStringLiteral("failure to: post kLumenDidStartSyncLinkDevNotificationName\n Bailing."));
    EXPECT_EQ(device->postCount(kFailedToStart), 1);
    EXPECT_FALSE(host.calledOffMain);
}

TEST_F(SimulateSyncCommandTest, DurationIsReadOnEachRun)
{
    WindowHost host;
    host.device = dev;
    SimulateSyncCommand command(host);
    platform::LogCapture log;

    // A duration of 0.05 s: the simulated sync pauses for some part of it.
    host.store.setFloat(QStringLiteral("syncSim.duration"), 0.05f);
    command.simulateSync();
    ASSERT_TRUE(waitFor([&] { return host.finished(); }));
    EXPECT_EQ(host.field.text(), QStringLiteral("Done."));
    EXPECT_GT(command.lastSyncPauseMicroseconds(), 0u);
    EXPECT_LT(command.lastSyncPauseMicroseconds(), 50000u);

    // The key gone: the next run reads no duration and does not pause.
    host.store.removeValue(QStringLiteral("syncSim.duration"));
    host.store.setBool(kInactive, false);
    host.texts.clear();
    command.simulateSync();
    ASSERT_TRUE(waitFor([&] { return host.finished(); }));
    EXPECT_EQ(host.texts.last(), QStringLiteral("Done."));
    EXPECT_EQ(command.lastSyncPauseMicroseconds(), 0u);
    EXPECT_EQ(log.lines().count(QStringLiteral("pausing to simulate a sync....")), 2) << "both runs reached the sync";
}

TEST(SimulateSyncCommandWithoutDevice, StateKeysReturnAtOnceAndTheRunWaitsForADevice)
{
    ASSERT_FALSE(LinkDev::lastAvailableDevice());
    WindowHost host;  // no current device, no "syncSim.duration"
    SimulateSyncCommand command(host);
    command.simulateSync();
    ASSERT_TRUE(waitFor([&] { return host.finished(); }));
    EXPECT_TRUE(host.texts.isEmpty()) << "nothing ran yet";

    auto device = Testbed::instance().attachNewDevice();
    ASSERT_TRUE(device);
    ASSERT_TRUE(waitFor([&] { return host.texts.contains(QStringLiteral("Done.")); }));
    EXPECT_EQ(host.texts, QStringList({QStringLiteral("waiting to acquire lock...."), QString(""), QStringLiteral("Done.")}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kDidStart, kDidFinish}));
    EXPECT_FALSE(host.calledOffMain);
    Testbed::instance().detach(device);
}

}  // namespace
