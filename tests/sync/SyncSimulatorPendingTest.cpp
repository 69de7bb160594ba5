// The simulator's pending run: waiting for a device, staying alive without its creator,
// replacement of a pending run, and a change that brings no device.
#include <gtest/gtest.h>
#include <thread>

#include "SyncTestbed.h"
#include "platform/MainThread.h"
#include "sync/SyncSimulator.h"

using namespace synctest;

namespace {

const QString kWaiting = QStringLiteral("1:waiting to acquire lock....");
const QString kDone = QStringLiteral("3:Done.");

// Tells whether it is still alive (captured by a pending action).
struct Token {
    explicit Token(std::atomic<int>& destroyed) : destroyed(destroyed) {}
    ~Token() { ++destroyed; }
    std::atomic<int>& destroyed;
};

TEST(SyncSimulatorPending, RunsWhenADeviceArrivesAndOutlivesItsCreator)
{
    ASSERT_FALSE(LinkDev::lastAvailableDevice()) << "a device from another test is still attached";
    StatusRecorder recorder;
    std::weak_ptr<SyncSimulator> watch;
    std::atomic<int> syncCalls{0};
    std::atomic<bool> syncOnMainThread{false};

    // Created, set up and dropped on a worker, the way the commands do it.
    std::thread([&] {
        auto simulator = SyncSimulator::create(nullptr, 0.0f, false, false, false);
        simulator->setDelegate(&recorder);
        simulator->runSimulationForFirstAttachedDeviceWithSyncBlock(
            [&] {
                ++syncCalls;
                syncOnMainThread = platform::mainthread::isMainThread();
            },
            {});
        watch = simulator;
    }).join();
    EXPECT_FALSE(watch.expired()) << "the pending action keeps the simulator";
    EXPECT_TRUE(recorder.summary().isEmpty());

    // The attach event reaches the simulator on the main thread, which runs the sync there.
    auto device = Testbed::instance().attachNewDevice();
    ASSERT_TRUE(device);
    ASSERT_TRUE(waitFor([&] { return watch.expired(); }));
    EXPECT_EQ(syncCalls.load(), 1);
    EXPECT_TRUE(syncOnMainThread.load());
    EXPECT_EQ(recorder.summary(), QStringList({kWaiting, QStringLiteral("1:"), kDone}));
    for (const auto& update : recorder.updates()) EXPECT_TRUE(update.onMainThread);
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kDidStart, kDidFinish}));

    // Later changes run nothing again.
    Testbed::instance().detach(device);
    EXPECT_EQ(syncCalls.load(), 1);
}

TEST(SyncSimulatorPending, ASecondRequestReplacesTheFirst)
{
    ASSERT_FALSE(LinkDev::lastAvailableDevice());
    StatusRecorder recorder;
    std::atomic<int> destroyed{0};
    int firstSyncs = 0, secondSyncs = 0;
    std::weak_ptr<SyncSimulator> watch;
    {
        auto simulator = SyncSimulator::create(nullptr, 0.0f, false, false, false);
        simulator->setDelegate(&recorder);
        auto firstToken = std::make_shared<Token>(destroyed);
        simulator->runSimulationForFirstAttachedDeviceWithSyncBlock([&firstSyncs, firstToken] { ++firstSyncs; }, {});
        firstToken.reset();
        EXPECT_EQ(destroyed.load(), 0);
        simulator->runSimulationForFirstAttachedDeviceWithSyncBlock([&secondSyncs] { ++secondSyncs; }, {});
        EXPECT_EQ(destroyed.load(), 1) << "the older pending action is dropped at once";
        watch = simulator;
    }
    auto device = Testbed::instance().attachNewDevice();
    ASSERT_TRUE(waitFor([&] { return watch.expired(); }));
    EXPECT_EQ(firstSyncs, 0);
    EXPECT_EQ(secondSyncs, 1);
    EXPECT_EQ(device->postCount(kDidStart), 1) << "one run only";
    Testbed::instance().detach(device);
}

TEST(SyncSimulatorPending, AChangeWithoutADeviceRunsWithoutOne)
{
    auto present = Testbed::instance().attachNewDevice();
    ASSERT_TRUE(present);
    StatusRecorder recorder;
    int failedCalls = 0, syncCalls = 0;
    std::weak_ptr<SyncSimulator> watch;
    {
        // Told of the attached device at registration, before anything is pending: no run.
        auto simulator = SyncSimulator::create(nullptr, 0.0f, false, false, false);
        simulator->setDelegate(&recorder);
        simulator->runSimulationForFirstAttachedDeviceWithSyncBlock([&] { ++syncCalls; }, [&] { ++failedCalls; });
        watch = simulator;
    }
    EXPECT_FALSE(watch.expired());
    // The next change is the detach: the run adopts no device and fails at the first post.
    Testbed::instance().detach(present);
    ASSERT_TRUE(waitFor([&] { return watch.expired(); }));
    EXPECT_EQ(syncCalls, 0);
    EXPECT_EQ(failedCalls, 1);
    EXPECT_EQ(recorder.summary(),
              QStringList({QStringLiteral("2:failure to: post kLumenWillStartSyncLinkDevNotificationName\n Bailing.")}));
    EXPECT_TRUE(present->postedNotifications().isEmpty());
}

TEST(SyncSimulatorPending, WithADeviceTheRunHappensInsideTheRequest)
{
    auto device = Testbed::instance().attachNewDevice();
    ASSERT_TRUE(device);
    StatusRecorder recorder;
    auto simulator = SyncSimulator::create(Testbed::linkDevFor(device->identifier()), 0.0f, false, false, false);
    simulator->setDelegate(&recorder);
    simulator->runSimulationForFirstAttachedDevice();
    EXPECT_EQ(recorder.summary().last(), kDone);
    EXPECT_EQ(simulator.use_count(), 1) << "nothing pending holds the simulator";
    simulator.reset();
    Testbed::instance().detach(device);
}

}  // namespace
