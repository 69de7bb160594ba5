// The device registry: subscription, the attached-device list, observers and events.
// Runs in a binary of its own: the first test needs a process that has not subscribed yet.
#include <QCoreApplication>
#include <QThread>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>
#include <vector>

#include "DeviceTestbed.h"
#include "platform/SystemLog.h"
#include "support/TestSupport.h"

using devicetest::CountingObserver;
using devicetest::Testbed;

namespace {

const bool installed = (devicetest::installEnvironment(false), true);

QString identifierOf(const std::shared_ptr<LinkDev>& device)
{
    return device ? HLDeviceCopyDeviceIdentifier(device->deviceRef()) : QString();
}

// A counting observer registered for as long as it lives.
class RegisteredObserver : public CountingObserver {
public:
    RegisteredObserver() { LinkDev::registerDeviceObserver(this); }
    ~RegisteredObserver() override { LinkDev::unregisterDeviceObserver(this); }
};

// An observer that unregisters another observer when told.
class UnregisteringObserver : public LinkDevObserver {
public:
    explicit UnregisteringObserver(LinkDevObserver* victim) : _victim(victim) {}
    void handlinkAvailabliltyDidChange() override
    {
        ++calls;
        LinkDev::unregisterDeviceObserver(_victim);
    }
    int calls = 0;

private:
    LinkDevObserver* _victim;
};

// Notes the thread of every handlinkAvailabliltyDidChange it receives.
class ThreadNotingObserver : public LinkDevObserver {
public:
    void handlinkAvailabliltyDidChange() override
    {
        std::lock_guard guard(_mutex);
        _threads.push_back(QThread::currentThread());
    }
    std::vector<QThread*> threads() const
    {
        std::lock_guard guard(_mutex);
        return _threads;
    }

private:
    mutable std::mutex _mutex;  // guards _threads
    std::vector<QThread*> _threads;
};

// When told, hands its own unregistration and destruction to a worker (as a sync simulator
// dropped on a worker does) and notes whether that unregistration returned while the call
// was still under way.
class SelfRetiringObserver : public LinkDevObserver {
public:
    void handlinkAvailabliltyDidChange() override
    {
        if (worker.joinable()) return;
        std::atomic<bool>& entered = unregistering;
        std::atomic<bool>& done = unregistered;
        worker = std::thread([this, &entered, &done] {
            entered = true;
            LinkDev::unregisterDeviceObserver(this);
            done = true;
            delete this;  // allowed once unregistration has returned
        });
        while (!entered) std::this_thread::yield();
        // Give the worker every chance to get through unregistration; it must wait for us.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        returnedDuringCall = done.load();
        workerOut = std::move(worker);
    }
    static inline std::atomic<bool> unregistering{false}, unregistered{false};
    static inline bool returnedDuringCall = false;
    static inline std::thread workerOut;

private:
    std::thread worker;
};

// Sends one event record to the library callback, the way the library does.
void deliver(HLDeviceRef device, uint32_t message)
{
    HLDeviceNotificationInfo info{device, message};
    HandleDeviceNotification(&info, nullptr);
}

}  // namespace

// Must run first: nothing has subscribed in this process yet.
TEST(Registry, FirstObserverLearnsOfAttachedDevicesThroughTheLibrary)
{
    ASSERT_TRUE(installed);
    Testbed& bed = Testbed::instance();
    const QString folder = bed.root() + QStringLiteral("/devices/early");
    handlink::emu::MakeDeviceOptions options;
    options.identifier = QStringLiteral("EARLY-DEVICE");
    ASSERT_TRUE(handlink::emu::makeDevice(folder, options));
    auto device = bed.emulator().attach(folder);
    ASSERT_TRUE(device);

    CountingObserver first;
    LinkDev::registerDeviceObserver(&first);
    EXPECT_EQ(first.calls, 0);  // not during registration
    ASSERT_TRUE(testsupport::runUntil([&] { return first.calls > 0; }));
    EXPECT_EQ(first.calls, 1);
    EXPECT_EQ(LinkDev::availableDeviceIdentifiers(), QStringList{"EARLY-DEVICE"});

    // A second registration of the same observer changes nothing in the set: it is told at
    // once (a device is listed), and told only once per later change.
    LinkDev::registerDeviceObserver(&first);
    EXPECT_EQ(first.calls, 2);
    bed.detach(device);
    EXPECT_EQ(first.calls, 3);
    LinkDev::unregisterDeviceObserver(&first);
}

TEST(Registry, LateObserverIsToldAtOnceAndOthersAreNotToldAgain)
{
    Testbed& bed = Testbed::instance();
    RegisteredObserver first;
    auto device = bed.attachNewDevice();
    ASSERT_TRUE(device);
    EXPECT_EQ(first.calls, 1);

    RegisteredObserver late;
    EXPECT_EQ(late.calls, 1);
    EXPECT_EQ(first.calls, 1);

    // With no device listed, a registration tells nobody.
    bed.detach(device);
    CountingObserver quiet;
    LinkDev::registerDeviceObserver(&quiet);
    EXPECT_EQ(quiet.calls, 0);
    LinkDev::unregisterDeviceObserver(&quiet);
}

TEST(Registry, FirstAndLastFollowTheOrderOfArrival)
{
    Testbed& bed = Testbed::instance();
    RegisteredObserver observer;
    EXPECT_EQ(LinkDev::firstAvailableDevice(), nullptr);
    EXPECT_EQ(LinkDev::lastAvailableDevice(), nullptr);

    auto a = bed.attachNewDevice();
    auto b = bed.attachNewDevice();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(observer.calls, 2);
    EXPECT_EQ(identifierOf(LinkDev::firstAvailableDevice()), a->identifier());
    EXPECT_EQ(identifierOf(LinkDev::lastAvailableDevice()), b->identifier());
    // A new object on every request.
    EXPECT_NE(LinkDev::lastAvailableDevice(), LinkDev::lastAvailableDevice());

    bed.detach(b);
    EXPECT_EQ(observer.calls, 3);
    EXPECT_EQ(identifierOf(LinkDev::firstAvailableDevice()), a->identifier());
    EXPECT_EQ(identifierOf(LinkDev::lastAvailableDevice()), a->identifier());

    bed.detach(a);
    EXPECT_EQ(observer.calls, 4);
    EXPECT_EQ(LinkDev::firstAvailableDevice(), nullptr);
    EXPECT_EQ(LinkDev::lastAvailableDevice(), nullptr);
}

TEST(Registry, ReattachedDeviceIsTheSameDeviceUnderANewReference)
{
    Testbed& bed = Testbed::instance();
    RegisteredObserver observer;
    auto device = bed.attachNewDevice();
    ASSERT_TRUE(device);
    std::shared_ptr<LinkDev> before = LinkDev::lastAvailableDevice();  // keeps the old reference alive
    const QString folder = device->folder();
    bed.detach(device);
    EXPECT_EQ(identifierOf(before), device->identifier());  // a detached reference still names itself

    auto again = bed.attachFolder(folder);
    ASSERT_TRUE(again);
    std::shared_ptr<LinkDev> after = LinkDev::lastAvailableDevice();
    EXPECT_NE(after->deviceRef(), before->deviceRef());
    EXPECT_EQ(identifierOf(after), device->identifier());
    EXPECT_EQ(observer.calls, 3);

    // An attach event for a listed device (by identifier) changes nothing and tells no one.
    deliver(before->deviceRef(), kHLDNotificationConnected);
    EXPECT_EQ(observer.calls, 3);
    EXPECT_EQ(LinkDev::availableDeviceIdentifiers(), QStringList{device->identifier()});
    EXPECT_EQ(LinkDev::lastAvailableDevice()->deviceRef(), after->deviceRef());

    bed.detach(again);
    // A detach event for a device not listed changes nothing and tells no one.
    deliver(after->deviceRef(), kHLDNotificationDisconnected);
    EXPECT_EQ(observer.calls, 4);
}

TEST(Registry, EndOfSubscriptionRemovesAndUnknownMessagesAreReported)
{
    Testbed& bed = Testbed::instance();
    RegisteredObserver observer;
    auto device = bed.attachNewDevice();
    ASSERT_TRUE(device);
    std::shared_ptr<LinkDev> listed = LinkDev::lastAvailableDevice();

    platform::StderrCapture err;
    deliver(listed->deviceRef(), 4);
    EXPECT_EQ(err.text(), "Unknown action: 4\n");
    EXPECT_EQ(observer.calls, 1);
    EXPECT_EQ(LinkDev::availableDeviceIdentifiers().size(), 1);

    deliver(listed->deviceRef(), kHLDNotificationUnsubscribed);
    EXPECT_EQ(observer.calls, 2);
    EXPECT_TRUE(LinkDev::availableDeviceIdentifiers().isEmpty());
    deliver(listed->deviceRef(), kHLDNotificationConnected);
    EXPECT_EQ(observer.calls, 3);
    bed.detach(device);
    EXPECT_EQ(observer.calls, 4);
}

TEST(Registry, DaemonGoingAwayRemovesItsDevicesAndTheyComeBack)
{
    Testbed& bed = Testbed::instance();
    RegisteredObserver observer;
    auto device = bed.attachNewDevice();
    ASSERT_TRUE(device);
    bed.emulator().stop();
    ASSERT_TRUE(testsupport::runUntil([] { return LinkDev::availableDeviceIdentifiers().isEmpty(); }));
    EXPECT_EQ(observer.calls, 2);
    ASSERT_TRUE(bed.emulator().start());
    if (bed.emulator().attachedIdentifiers().isEmpty()) bed.emulator().attach(device->folder());
    ASSERT_TRUE(testsupport::runUntil(
        [&] { return LinkDev::availableDeviceIdentifiers() == QStringList{device->identifier()}; }));
    EXPECT_EQ(observer.calls, 3);
    bed.detach(bed.emulator().device(device->identifier()));
}

TEST(Registry, UnregisteredObserversAreNeverCalled)
{
    Testbed& bed = Testbed::instance();
    CountingObserver gone;
    LinkDev::registerDeviceObserver(&gone);
    LinkDev::unregisterDeviceObserver(&gone);
    LinkDev::unregisterDeviceObserver(&gone);  // unknown now: ignored

    // The first observer takes the second out while the change is being told.
    CountingObserver victim;
    UnregisteringObserver remover(&victim);
    LinkDev::registerDeviceObserver(&remover);
    LinkDev::registerDeviceObserver(&victim);
    auto device = bed.attachNewDevice();
    ASSERT_TRUE(device);
    EXPECT_EQ(remover.calls, 1);
    EXPECT_EQ(victim.calls, 0);
    EXPECT_EQ(gone.calls, 0);
    bed.detach(device);
    EXPECT_EQ(remover.calls, 2);
    EXPECT_EQ(victim.calls, 0);
    LinkDev::unregisterDeviceObserver(&remover);
}

TEST(Registry, ObserverRegisteredFromAWorkerIsToldAtOnce)
{
    Testbed& bed = Testbed::instance();
    auto device = bed.attachNewDevice();
    ASSERT_TRUE(device);
    CountingObserver observer;
    std::thread worker([&] { LinkDev::registerDeviceObserver(&observer); });
    worker.join();
    EXPECT_EQ(observer.calls, 1);
    std::thread leaver([&] { LinkDev::unregisterDeviceObserver(&observer); });
    leaver.join();
    bed.detach(device);
    EXPECT_EQ(observer.calls, 1);
}

TEST(Registry, UnregisteringOnAnotherThreadWaitsForTheCallUnderWay)
{
    Testbed& bed = Testbed::instance();
    LinkDev::registerDeviceObserver(new SelfRetiringObserver);  // deletes itself
    auto device = bed.attachNewDevice();
    ASSERT_TRUE(device);
    ASSERT_TRUE(SelfRetiringObserver::workerOut.joinable());
    SelfRetiringObserver::workerOut.join();
    EXPECT_TRUE(SelfRetiringObserver::unregistered);
    EXPECT_FALSE(SelfRetiringObserver::returnedDuringCall);
    bed.detach(device);  // the observer is gone and not told again
}

TEST(Registry, EventsReachObserversOnTheMainThread)
{
    Testbed& bed = Testbed::instance();
    QThread* mainThread = QCoreApplication::instance()->thread();
    ThreadNotingObserver observer;
    LinkDev::registerDeviceObserver(&observer);
    // The emulator attaches and detaches on threads of its own; the library hands the events
    // to the subscribing thread's event loop, which the testbed runs while it waits.
    auto device = bed.attachNewDevice();
    ASSERT_TRUE(device);
    bed.detach(device);
    LinkDev::unregisterDeviceObserver(&observer);
    EXPECT_EQ(observer.threads(), (std::vector<QThread*>{mainThread, mainThread}));
}

TEST(Registry, DeviceObjectsWrapARetainedReference)
{
    EXPECT_EQ(LinkDev::create(nullptr), nullptr);
    Testbed& bed = Testbed::instance();
    auto device = bed.attachNewDevice(QStringLiteral("Bench Zephyr"));
    ASSERT_TRUE(device);
    std::shared_ptr<LinkDev> dev = LinkDev::lastAvailableDevice();
    ASSERT_TRUE(dev);
    EXPECT_EQ(dev->lockdownSession() != nullptr, true);
    EXPECT_EQ(dev->name(), "Bench Zephyr");
    EXPECT_TRUE(dev->description().contains(device->identifier()));
    bed.detach(device);
    // The registry let its reference go; the device object's own keeps it valid.
    EXPECT_EQ(identifierOf(dev), device->identifier());
    EXPECT_EQ(dev->name(), "Zephyr");  // no session on a detached device
}
