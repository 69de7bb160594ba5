// Check Status against the emulated device: free lock, shared and exclusive holders, no
// device object, and a device whose file conduit cannot be reached.
#include <gtest/gtest.h>

#include "../sync/SyncTestbed.h"
#include "retrieval/CheckStatus.h"

using handlink::emu::HoldLockOptions;
using namespace synctest;

namespace {

// Records what the check writes and when it says it is done.
class Field : public CheckStatusHost {
public:
    void setCheckStatusText(const QString& text) override { events << QStringLiteral("text:") + text; }
    void checkStatusDone() override { events << QStringLiteral("done"); }
    QStringList events;
};

class CheckStatusTest : public DeviceTest {
protected:
    QStringList check()
    {
        Field field;
        checkstatus::_blockingCheckStatus(dev, field);
        return field.events;
    }
};

TEST_F(CheckStatusTest, FreeLock)
{
    EXPECT_EQ(check(), QStringList({QStringLiteral("text:No one is holding the lock file."), QStringLiteral("done")}));
    // Both probes took the lock and gave it back; no lock request was posted.
    EXPECT_EQ(device->count(QStringLiteral("qfc-lock")), 2);
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 2);
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    EXPECT_TRUE(dev->qfcLockedFiles().empty());
    EXPECT_TRUE(syncLockIsFree());
}

TEST_F(CheckStatusTest, SharedHolderIsTheDevice)
{
    HoldLockOptions shared;
    shared.exclusive = false;
    auto holder = device->holdLock(kLockPath, shared);
    ASSERT_TRUE(holder);
    EXPECT_EQ(check(), QStringList({QStringLiteral("text:Zephyr is likely holding the lock file."), QStringLiteral("done")}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1) << "only the shared probe got the lock";
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    EXPECT_TRUE(holder->holding());
    holder.reset();
    EXPECT_TRUE(syncLockIsFree()) << "the shared probe was released";
}

TEST_F(CheckStatusTest, ExclusiveHolderIsLumen)
{
    auto holder = device->holdLock(kLockPath, HoldLockOptions{});
    ASSERT_TRUE(holder);
    EXPECT_EQ(check(), QStringList({QStringLiteral("text:Lumen is likely holding the lock file."), QStringLiteral("done")}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 0);
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    EXPECT_TRUE(dev->qfcLockedFiles().empty());
    EXPECT_TRUE(holder->holding());
}

// Each probe waits for the holder instead of giving up at once: the attempts are counted on
// the device (a wait of 0.2 s at 0.1 s steps makes at least two), and no lock request is posted.
TEST_F(CheckStatusTest, EachProbeWaitsForAHolderWithoutAskingIt)
{
    auto exclusiveHolder = device->holdLock(kLockPath, HoldLockOptions{});
    ASSERT_TRUE(exclusiveHolder);
    EXPECT_FALSE(checkstatus::probeLock(dev, false));
    EXPECT_GE(device->count(QStringLiteral("qfc-lock")), 2) << "the exclusive probe did not wait";
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    device->resetCounters();
    EXPECT_FALSE(checkstatus::probeLock(dev, true));
    EXPECT_GE(device->count(QStringLiteral("qfc-lock")), 2) << "the shared probe did not wait";
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 0);
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    device->resetCounters();
    EXPECT_EQ(checkstatus::probeSyncLock(dev), QStringLiteral("Lumen is likely holding the lock file."));
    EXPECT_GE(device->count(QStringLiteral("qfc-lock")), 4) << "both probes of the check wait";
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    exclusiveHolder.reset();

    HoldLockOptions shared;
    shared.exclusive = false;
    auto sharedHolder = device->holdLock(kLockPath, shared);
    ASSERT_TRUE(sharedHolder);
    device->resetCounters();
    EXPECT_FALSE(checkstatus::probeLock(dev, false));
    EXPECT_GE(device->count(QStringLiteral("qfc-lock")), 2);
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    device->resetCounters();
    EXPECT_TRUE(checkstatus::probeLock(dev, true));
    EXPECT_EQ(device->count(QStringLiteral("qfc-lock")), 1) << "a shared lock beside a shared holder comes at once";
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1) << "and is given back at once";
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    device->resetCounters();
    EXPECT_EQ(checkstatus::probeSyncLock(dev), QStringLiteral("Zephyr is likely holding the lock file."));
    EXPECT_GE(device->count(QStringLiteral("qfc-lock")), 3) << "the check's exclusive probe waits";
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    EXPECT_TRUE(dev->qfcLockedFiles().empty());
}

TEST_F(CheckStatusTest, UnreachableConduitReadsAsLumen)
{
    device->addFault(handlink::emu::Fault{QStringLiteral("start-service"), kHLDInvalidServiceError, 100, 0,
                                          QStringLiteral("com.corvid.qfc")});
    EXPECT_EQ(check(), QStringList({QStringLiteral("text:Lumen is likely holding the lock file."), QStringLiteral("done")}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-lock")), 0);
}

TEST(CheckStatusWithoutDevice, EveryRequestCountsAsAcquired)
{
    Field field;
    checkstatus::_blockingCheckStatus(nullptr, field);
    EXPECT_EQ(field.events, QStringList({QStringLiteral("text:No one is holding the lock file."), QStringLiteral("done")}));
}

}  // namespace
