// The sync simulator against the emulated device: order of steps, statuses, failure paths,
// the lock-request answer, and the delegate and timeout.
#include <QFile>
#include <gtest/gtest.h>
#include <mutex>

#include "SyncTestbed.h"
#include "platform/SystemLog.h"
#include "sync/SyncSimulator.h"

using handlink::emu::Fault;
using handlink::emu::HoldLockOptions;
using namespace synctest;

namespace {

const QString kWaiting = QStringLiteral("1:waiting to acquire lock....");
const QString kSyncBegun = QStringLiteral("1:");
const QString kDone = QStringLiteral("3:Done.");

QString failure(const QString& step)
{
    return QStringLiteral("2:failure to: %1\n Bailing.").arg(step);
}

// What the caller-supplied actions saw.
struct Actions {
    int syncCalls = 0;
    int failedCalls = 0;
};

class SyncSimulatorTest : public DeviceTest {
protected:
    std::shared_ptr<SyncSimulator> makeSimulator(bool hsNotifications = false, float duration = 0.0f)
    {
        auto simulator = SyncSimulator::create(dev, duration, false, hsNotifications, false);
        simulator->setDelegate(&recorder);
        simulator->setTimeout(20.0);  // a lock left held fails the test instead of hanging it
        return simulator;
    }
    // Runs with counting actions; sync also calls duringSync.
    void run(const std::shared_ptr<SyncSimulator>& simulator, std::function<void()> duringSync = {})
    {
        simulator->runSimulationForFirstAttachedDeviceWithSyncBlock(
            [this, duringSync] {
                ++actions.syncCalls;
                if (duringSync) duringSync();
            },
            [this] { ++actions.failedCalls; });
    }
    bool failureFileExists() const { return QFile::exists(mediaPath(kFailureFile)); }

    StatusRecorder recorder;
    Actions actions;
    platform::LogCapture log;
};

TEST_F(SyncSimulatorTest, FullSyncSeenFromTheDevice)
{
    auto simulator = makeSimulator();
    bool sharedHolderRefused = false, fileExisted = false;
    QStringList postedDuringSync;
    run(simulator, [&] {
        HoldLockOptions shared;
        shared.exclusive = false;
        QString error;
        sharedHolderRefused = device->holdLock(kLockPath, shared, &error) == nullptr;
        fileExisted = failureFileExists();
        postedDuringSync = device->postedNotifications();
    });

    EXPECT_EQ(actions.syncCalls, 1);
    EXPECT_EQ(actions.failedCalls, 0);
    EXPECT_TRUE(sharedHolderRefused) << "the sync lock was not held exclusively during the sync";
    EXPECT_TRUE(fileExisted) << "no failure-indication file during the sync";
    EXPECT_EQ(postedDuringSync, QStringList({kWillStart, kDidStart}));

    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kDidStart, kDidFinish}));
    EXPECT_EQ(recorder.summary(), QStringList({kWaiting, kSyncBegun, kDone}));
    EXPECT_EQ(recorder.lastSimulator(), simulator.get());
    EXPECT_FALSE(failureFileExists());
    EXPECT_TRUE(syncLockIsFree());
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1);
    EXPECT_TRUE(dev->qfcLockedFiles().empty());

    // Status texts go to the log too, with the file lines around the sync.
    const QStringList lines = log.lines();
    const qsizetype making = lines.indexOf(QStringLiteral("Making sync status file: com.corvid.lumen.syncing"));
    const qsizetype deleted =
        lines.indexOf(QStringLiteral("Deleted sync status file (to indicate success): com.corvid.lumen.syncing"));
    ASSERT_GE(making, 0);
    ASSERT_GT(deleted, making);
    EXPECT_EQ(lines.indexOf(QStringLiteral("waiting to acquire lock....")), making - 1);
    EXPECT_EQ(lines.at(deleted + 1), QStringLiteral("Done."));
    EXPECT_TRUE(log.linesStartingWith(QStringLiteral("ERROR")).isEmpty()) << log.lines().join('\n').toStdString();
}

TEST_F(SyncSimulatorTest, StandardSyncLogsThePauseAndHonoursDurationZero)
{
    auto simulator = makeSimulator(false, 0.0f);
    simulator->runSimulationForFirstAttachedDevice();
    EXPECT_EQ(recorder.summary(), QStringList({kWaiting, kSyncBegun, kDone}));
    EXPECT_TRUE(log.lines().contains(QStringLiteral("pausing to simulate a sync....")));
    EXPECT_EQ(simulator->lastSyncPauseMicroseconds(), 0u);

    // A short duration pauses for less than that duration.
    auto timed = makeSimulator(false, 0.05f);
    timed->runSimulationForFirstAttachedDevice();
    EXPECT_GT(timed->lastSyncPauseMicroseconds(), 0u);
    EXPECT_LT(timed->lastSyncPauseMicroseconds(), 50000u);
}

TEST_F(SyncSimulatorTest, HomeScreenNotificationOnlyWhenAsked)
{
    run(makeSimulator(true));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kHSUnblocked, kDidStart, kDidFinish}));
    EXPECT_EQ(recorder.summary(), QStringList({kWaiting, kSyncBegun, kDone}));

    device->resetCounters();
    run(makeSimulator(false));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kDidStart, kDidFinish}));
    EXPECT_EQ(device->postCount(kHSUnblocked), 0);
}

TEST_F(SyncSimulatorTest, WillStartPostFails)
{
    device->addFault(Fault{QStringLiteral("post-notification"), kHLDUndefinedError, 1, 0, kWillStart});
    run(makeSimulator());
    EXPECT_EQ(actions.failedCalls, 1);
    EXPECT_EQ(actions.syncCalls, 0);
    EXPECT_EQ(recorder.summary(), QStringList({failure(QStringLiteral("post kLumenWillStartSyncLinkDevNotificationName"))}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kFailedToStart}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-lock")), 0);
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 0);
    EXPECT_FALSE(failureFileExists());
}

TEST_F(SyncSimulatorTest, HomeScreenPostFails)
{
    device->addFault(Fault{QStringLiteral("post-notification"), kHLDUndefinedError, 1, 0, kHSUnblocked});
    run(makeSimulator(true));
    EXPECT_EQ(actions.failedCalls, 1);
    EXPECT_EQ(actions.syncCalls, 0);
    EXPECT_EQ(recorder.summary(), QStringList({failure(QStringLiteral("post kHSUnblockedSyncingNotificationName"))}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kFailedToStart}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-lock")), 0);
}

TEST_F(SyncSimulatorTest, LockNotAcquiredWithinTheTimeout)
{
    HoldLockOptions exclusive;
    auto holder = device->holdLock(kLockPath, exclusive);
    ASSERT_TRUE(holder);
    auto simulator = makeSimulator();
    simulator->setTimeout(0.0);  // one attempt, no lock request
    run(simulator);

    EXPECT_EQ(actions.failedCalls, 1);
    EXPECT_EQ(actions.syncCalls, 0);
    EXPECT_EQ(recorder.summary(), QStringList({kWaiting, failure(QStringLiteral("acquire lock"))}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kFailedToStart}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 0);
    EXPECT_TRUE(holder->holding());
    EXPECT_TRUE(dev->qfcLockedFiles().empty());
    EXPECT_FALSE(failureFileExists());
}

TEST_F(SyncSimulatorTest, DidStartPostFailsAfterTheLockWasTaken)
{
    device->addFault(Fault{QStringLiteral("post-notification"), kHLDUndefinedError, 1, 0, kDidStart});
    run(makeSimulator());
    EXPECT_EQ(actions.failedCalls, 1);
    EXPECT_EQ(actions.syncCalls, 0);
    EXPECT_EQ(recorder.summary(),
              QStringList({kWaiting, failure(QStringLiteral("post kLumenDidStartSyncLinkDevNotificationName"))}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kFailedToStart}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1);
    EXPECT_TRUE(syncLockIsFree());
    EXPECT_FALSE(failureFileExists());
}

TEST_F(SyncSimulatorTest, FailureIndicationFileCannotBeMade)
{
    device->addFault(Fault{QStringLiteral("qfc-open"), kQFCPermissionError, 1, 0, kFailureFile});
    run(makeSimulator());
    EXPECT_EQ(actions.failedCalls, 0);
    EXPECT_EQ(actions.syncCalls, 0);
    EXPECT_EQ(recorder.summary(),
              QStringList({kWaiting, failure(QStringLiteral("create Failure Indication File (to be deleted on successful sync)"))}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kDidStart, kDidFinish}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1);
    EXPECT_TRUE(syncLockIsFree());
    EXPECT_FALSE(failureFileExists());
}

TEST_F(SyncSimulatorTest, FailureIndicationFileCannotBeRemoved)
{
    device->addFault(Fault{QStringLiteral("qfc-remove"), kQFCPermissionError, 1, 0, kFailureFile});
    run(makeSimulator());
    EXPECT_EQ(actions.failedCalls, 0);
    EXPECT_EQ(actions.syncCalls, 1);
    EXPECT_EQ(recorder.summary(),
              QStringList({kWaiting, kSyncBegun, failure(QStringLiteral("deleting Failure Indication File (to indicate success)"))}));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kDidStart, kDidFinish}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1);
    EXPECT_TRUE(syncLockIsFree());
    EXPECT_TRUE(failureFileExists()) << "the removal was refused, so the file stays";
    EXPECT_FALSE(log.lines().contains(QStringLiteral("Done.")));
}

TEST_F(SyncSimulatorTest, HolderThatAnswersTheLockRequestLetsTheSyncStart)
{
    // The device's software gives the lock up once the will-start notification has been posted
    // three times: once by the sync's first step, twice by the waiting acquisition.
    HoldLockOptions yielding;
    yielding.yieldOn = kWillStart;
    yielding.afterRequests = 3;
    auto holder = device->holdLock(kLockPath, yielding);
    ASSERT_TRUE(holder);
    bool heldWhileSyncing = false;
    run(makeSimulator(), [&] { heldWhileSyncing = !syncLockIsFree(); });

    EXPECT_FALSE(holder->holding());
    EXPECT_EQ(actions.syncCalls, 1);
    EXPECT_TRUE(heldWhileSyncing);
    EXPECT_EQ(device->postCount(kWillStart), 3);
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kWillStart, kWillStart, kDidStart, kDidFinish}));
    EXPECT_EQ(recorder.summary(), QStringList({kWaiting, kSyncBegun, kDone}));
    EXPECT_TRUE(syncLockIsFree());
}

TEST_F(SyncSimulatorTest, DelegateAndTimeout)
{
    // A delegate that does not answer the status message is refused; the old one stays.
    class Mute : public SyncSimulatorDelegate {
    public:
        void syncSimulatorStatusUpdate(SyncSimulator*, int32_t, const QString&) override { ++calls; }
        bool respondsToSyncSimulatorStatusUpdate() const override { return false; }
        int calls = 0;
    } mute;
    auto simulator = SyncSimulator::create(dev, 0.0f, false, false, false);
    EXPECT_DOUBLE_EQ(simulator->timeout(), 100000000.0);
    simulator->setDelegate(&recorder);
    simulator->setTimeout(10.0);
    EXPECT_DOUBLE_EQ(simulator->timeout(), 10.0);

    simulator->setDelegate(&mute);
    simulator->setDelegate(nullptr);
    EXPECT_EQ(log.lines().count(QStringLiteral("invalid delegate")), 2);
    EXPECT_EQ(simulator->delegate(), &recorder);
    simulator->runSimulationForFirstAttachedDevice();
    EXPECT_EQ(mute.calls, 0);
    EXPECT_EQ(recorder.summary(), QStringList({kWaiting, kSyncBegun, kDone}));

    // Without a delegate the run reports to the log only.
    auto silent = SyncSimulator::create(dev, 0.0f, false, false, false);
    log.clear();
    silent->runSimulationForFirstAttachedDevice();
    EXPECT_TRUE(log.lines().contains(QStringLiteral("Done.")));
    EXPECT_EQ(recorder.summary().size(), 3);
}

TEST_F(SyncSimulatorTest, DeviceGoneBeforeTheRunFailsAtTheFirstPost)
{
    auto simulator = makeSimulator();
    Testbed::instance().detach(device);
    run(simulator);
    EXPECT_EQ(actions.failedCalls, 1);
    EXPECT_EQ(recorder.summary(), QStringList({failure(QStringLiteral("post kLumenWillStartSyncLinkDevNotificationName"))}));
    EXPECT_EQ(simulator->linkdev(), dev) << "the device is kept once set";
    device = Testbed::instance().attachNewDevice();  // for TearDown
}

// One record, in order, of what the delegate was told, which action ran, and what the device
// saw posted (with how many unlocks it had seen by then). The emulator prints each post before
// it answers it, so the posts fall into place between the simulator's own events.
class EventLog : public SyncSimulatorDelegate {
public:
    void syncSimulatorStatusUpdate(SyncSimulator*, int32_t status, const QString& text) override
    {
        add(QStringLiteral("status %1:%2").arg(QString::number(status), text));
    }
    void add(const QString& event)
    {
        std::lock_guard guard(_mutex);
        _events << event;
    }
    QStringList events() const
    {
        std::lock_guard guard(_mutex);
        return _events;
    }

private:
    mutable std::mutex _mutex;  // guards _events (the emulator's threads and the test's)
    QStringList _events;
};

QString posted(const QString& name, int unlocks = 0)
{
    return QStringLiteral("posted %1 (unlocks %2)").arg(name, QString::number(unlocks));
}

class SyncEventOrderTest : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        Testbed::instance().emulator().setPrinter([log = log, device = device](const QString& line) {
            if (!line.startsWith(QLatin1String("posted "))) return;
            log->add(posted(line.section(u' ', 2), device->count(QStringLiteral("qfc-unlock"))));
        });
    }
    void TearDown() override
    {
        Testbed::instance().emulator().setPrinter([](const QString&) {});
        DeviceTest::TearDown();
    }
    QStringList run(bool hsNotifications = false, double timeout = 20.0)
    {
        auto simulator = SyncSimulator::create(dev, 0.0f, false, hsNotifications, false);
        simulator->setDelegate(log.get());
        simulator->setTimeout(timeout);
        simulator->runSimulationForFirstAttachedDeviceWithSyncBlock([this] { log->add(QStringLiteral("sync")); },
                                                                    [this] { log->add(QStringLiteral("failed to start")); });
        return log->events();
    }

    std::shared_ptr<EventLog> log = std::make_shared<EventLog>();
};

const QString kWaitingEvent = QStringLiteral("status 1:waiting to acquire lock....");

QString failed(const QString& step)
{
    return QStringLiteral("status 2:failure to: %1\n Bailing.").arg(step);
}

TEST_F(SyncEventOrderTest, SuccessfulRun)
{
    EXPECT_EQ(run(true), QStringList({posted(kWillStart), posted(kHSUnblocked), kWaitingEvent, posted(kDidStart),
                                      QStringLiteral("status 1:"), QStringLiteral("sync"),
                                      QStringLiteral("status 3:Done."), posted(kDidFinish)}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1) << "released after the finishing post";
}

TEST_F(SyncEventOrderTest, WillStartPostFails)
{
    device->addFault(Fault{QStringLiteral("post-notification"), kHLDUndefinedError, 1, 0, kWillStart});
    EXPECT_EQ(run(), QStringList({QStringLiteral("failed to start"),
                                  failed(QStringLiteral("post kLumenWillStartSyncLinkDevNotificationName")),
                                  posted(kFailedToStart)}));
}

TEST_F(SyncEventOrderTest, HomeScreenPostFails)
{
    device->addFault(Fault{QStringLiteral("post-notification"), kHLDUndefinedError, 1, 0, kHSUnblocked});
    EXPECT_EQ(run(true), QStringList({posted(kWillStart), QStringLiteral("failed to start"),
                                      failed(QStringLiteral("post kHSUnblockedSyncingNotificationName")),
                                      posted(kFailedToStart)}));
}

TEST_F(SyncEventOrderTest, LockNotAcquired)
{
    auto holder = device->holdLock(kLockPath, HoldLockOptions{});
    ASSERT_TRUE(holder);
    EXPECT_EQ(run(false, 0.0), QStringList({posted(kWillStart), kWaitingEvent, QStringLiteral("failed to start"),
                                            failed(QStringLiteral("acquire lock")), posted(kFailedToStart)}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 0);
}

TEST_F(SyncEventOrderTest, DidStartPostFails)
{
    device->addFault(Fault{QStringLiteral("post-notification"), kHLDUndefinedError, 1, 0, kDidStart});
    EXPECT_EQ(run(), QStringList({posted(kWillStart), kWaitingEvent, QStringLiteral("failed to start"),
                                  failed(QStringLiteral("post kLumenDidStartSyncLinkDevNotificationName")),
                                  posted(kFailedToStart)}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1) << "released after the finishing post";
}

TEST_F(SyncEventOrderTest, FailureIndicationFileCannotBeMade)
{
    device->addFault(Fault{QStringLiteral("qfc-open"), kQFCPermissionError, 1, 0, kFailureFile});
    EXPECT_EQ(run(), QStringList({posted(kWillStart), kWaitingEvent, posted(kDidStart),
                                  failed(QStringLiteral("create Failure Indication File (to be deleted on successful sync)")),
                                  posted(kDidFinish)}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1);
}

TEST_F(SyncEventOrderTest, FailureIndicationFileCannotBeRemoved)
{
    device->addFault(Fault{QStringLiteral("qfc-remove"), kQFCPermissionError, 1, 0, kFailureFile});
    EXPECT_EQ(run(), QStringList({posted(kWillStart), kWaitingEvent, posted(kDidStart), QStringLiteral("status 1:"),
                                  QStringLiteral("sync"),
                                  failed(QStringLiteral("deleting Failure Indication File (to indicate success)")),
                                  posted(kDidFinish)}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1);
}

TEST(SyncPause, FloatArithmeticOfThePause)
{
    EXPECT_EQ(syncsim::pauseMicroseconds(999999, 0.5f), 499999u);
    EXPECT_EQ(syncsim::pauseMicroseconds(1000000, 0.5f), 0u);
    EXPECT_EQ(syncsim::pauseMicroseconds(123456789, 0.5f), 228394u);  // m = 456789
    EXPECT_EQ(syncsim::pauseMicroseconds(999999, 10.0f), 9999990u);
    EXPECT_EQ(syncsim::pauseMicroseconds(999999, 0.0f), 0u);
    // Multiplied in 32-bit float: double arithmetic would give 699992.
    EXPECT_EQ(syncsim::pauseMicroseconds(999990, 0.7f), 699993u);
    EXPECT_EQ(syncsim::randomPause(0.0f), 0u);
    EXPECT_LT(syncsim::randomPause(0.01f), 10000u);
}

}  // namespace
