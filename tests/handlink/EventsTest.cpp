// Device events through HLDeviceNotificationSubscribe: present devices, attach, detach,
// re-attach, the daemon going away and coming back, and the thread of delivery.
#include <QThread>
#include <gtest/gtest.h>
#include <mutex>

#include "HandlinkTestbed.h"
#include "support/TestSupport.h"

using namespace hltest;

namespace {

class Events : public HandlinkTest {};

}  // namespace

TEST_F(Events, DevicesPresentBeforeSubscribingAreReportedFromTheEventLoop) {
    auto first = attachNewDevice(QStringLiteral("One"));
    auto second = attachNewDevice(QStringLiteral("Two"));
    recorder = std::make_unique<EventRecorder>();
    EXPECT_TRUE(recorder->events().empty());  // never during the subscribe call
    ASSERT_TRUE(recorder->waitForCount(2));
    const auto& events = recorder->events();
    EXPECT_EQ(events[0].identifier, first->identifier());
    EXPECT_EQ(events[1].identifier, second->identifier());
    EXPECT_EQ(events[0].msg, kHLDNotificationConnected);
    EXPECT_EQ(events[1].msg, kHLDNotificationConnected);
    EXPECT_NE(events[0].device, events[1].device);
}

TEST_F(Events, AttachDetachAndReattachUnderANewReference) {
    recorder = std::make_unique<EventRecorder>();
    auto device = attachNewDevice();
    ASSERT_TRUE(recorder->waitForCount(1));
    HLDeviceRef firstRef = recorder->events()[0].device;
    EXPECT_EQ(recorder->events()[0].msg, kHLDNotificationConnected);

    const QString folder = device->folder();
    ASSERT_TRUE(emulator->detach(device->identifier()));
    ASSERT_TRUE(recorder->waitForCount(2));
    EXPECT_EQ(recorder->events()[1].msg, kHLDNotificationDisconnected);
    EXPECT_EQ(recorder->events()[1].device, firstRef);  // the reference that was attached

    auto again = emulator->attach(folder);
    ASSERT_TRUE(again);
    ASSERT_TRUE(recorder->waitForCount(3));
    const Event& reattached = recorder->events()[2];
    EXPECT_EQ(reattached.msg, kHLDNotificationConnected);
    EXPECT_NE(reattached.device, firstRef);
    EXPECT_EQ(HLDeviceCopyDeviceIdentifier(reattached.device), HLDeviceCopyDeviceIdentifier(firstRef));

    // The old reference names itself still, but reaches nothing; the new one reaches the device.
    EXPECT_EQ(HLDeviceConnect(firstRef), kHLDNotConnectedError);
    EXPECT_EQ(HLDeviceConnect(reattached.device), kHLDSuccess);
    EXPECT_EQ(HLDeviceDisconnect(reattached.device), kHLDSuccess);
    EXPECT_EQ(again->count(QStringLiteral("connect")), 1);
    EXPECT_EQ(recorder->events().size(), 3u);
}

TEST_F(Events, DaemonGoingAwayEndsEveryDeviceAndItsReturnReportsThemAgain) {
    auto one = attachNewDevice(QStringLiteral("One"));
    auto two = attachNewDevice(QStringLiteral("Two"));
    const QString folderOne = one->folder(), folderTwo = two->folder();
    recorder = std::make_unique<EventRecorder>();
    ASSERT_TRUE(recorder->waitForCount(2));

    emulator->stop();
    ASSERT_TRUE(recorder->waitForCount(4));
    const auto& events = recorder->events();
    EXPECT_EQ(events[2].msg, kHLDNotificationUnsubscribed);
    EXPECT_EQ(events[3].msg, kHLDNotificationUnsubscribed);
    EXPECT_EQ(events[2].device, events[0].device);
    EXPECT_EQ(events[3].device, events[1].device);

    // A new daemon on the same socket: the library reconnects by itself.
    emulator = std::make_unique<handlink::emu::Emulator>(socketPath());
    ASSERT_TRUE(emulator->start());
    ASSERT_TRUE(emulator->attach(folderTwo));
    ASSERT_TRUE(emulator->attach(folderOne));
    ASSERT_TRUE(recorder->waitForCount(6));
    EXPECT_EQ(recorder->events()[4].identifier, two->identifier());
    EXPECT_EQ(recorder->events()[5].identifier, one->identifier());
    EXPECT_EQ(recorder->events()[4].msg, kHLDNotificationConnected);
    EXPECT_EQ(recorder->events()[5].msg, kHLDNotificationConnected);
}

TEST_F(Events, SubscribingBeforeTheDaemonRuns) {
    emulator->stop();
    recorder = std::make_unique<EventRecorder>();
    // Let a few reconnect attempts fail.
    for (int i = 0; i < 5; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    EXPECT_TRUE(recorder->events().empty());
    ASSERT_TRUE(emulator->start());
    auto device = attachNewDevice();
    ASSERT_TRUE(recorder->waitForCount(1));
    EXPECT_EQ(recorder->events()[0].identifier, device->identifier());
    EXPECT_EQ(recorder->events()[0].msg, kHLDNotificationConnected);
}

TEST_F(Events, UnsubscribeEndsDeliveryAlsoFromInsideTheCallback) {
    struct State {
        HLDeviceNotificationRef handle = nullptr;
        int calls = 0;
    } state;
    attachNewDevice(QStringLiteral("One"));
    attachNewDevice(QStringLiteral("Two"));
    auto callback = [](HLDeviceNotificationInfo*, void* context) {
        auto* s = static_cast<State*>(context);
        ++s->calls;
        HLDeviceNotificationUnsubscribe(s->handle);
    };
    ASSERT_EQ(HLDeviceNotificationSubscribe(callback, 0, 1, &state, &state.handle), kHLDSuccess);
    ASSERT_TRUE(testsupport::runUntil([&] { return state.calls > 0; }));
    // The second device would come in the same batch; it must not be delivered.
    attachNewDevice(QStringLiteral("Three"));
    recorder = std::make_unique<EventRecorder>();
    ASSERT_TRUE(recorder->waitForCount(3));  // a live subscription sees all three...
    EXPECT_EQ(state.calls, 1);               // ...the ended one saw only the first
}

TEST_F(Events, EventsArriveOnTheSubscribingThread) {
    struct Seen {
        std::mutex mutex;  // guards threads
        std::vector<QThread*> threads;
    } seen;
    class Subscriber : public QThread {
    public:
        explicit Subscriber(Seen* s) : _seen(s) {}
        void run() override {
            HLDeviceNotificationRef handle = nullptr;
            HLDeviceNotificationSubscribe(
                [](HLDeviceNotificationInfo*, void* context) {
                    auto* s = static_cast<Seen*>(context);
                    std::lock_guard lock(s->mutex);
                    s->threads.push_back(QThread::currentThread());
                },
                0, 1, _seen, &handle);
            exec();
            HLDeviceNotificationUnsubscribe(handle);
        }

    private:
        Seen* _seen;
    };
    attachNewDevice();
    Subscriber subscriber(&seen);
    subscriber.start();
    auto count = [&] {
        std::lock_guard lock(seen.mutex);
        return seen.threads.size();
    };
    ASSERT_TRUE(testsupport::runUntil([&] { return count() == 1; }));
    attachNewDevice(QStringLiteral("Second"));
    ASSERT_TRUE(testsupport::runUntil([&] { return count() == 2; }));
    subscriber.quit();
    subscriber.wait();
    std::lock_guard lock(seen.mutex);
    for (QThread* thread : seen.threads) EXPECT_EQ(thread, &subscriber);
}
