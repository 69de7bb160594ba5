// Device events through HLDeviceNotificationSubscribe: present devices, attach, detach,
// re-attach, the daemon going away and coming back, and the thread of delivery.
#include <QFile>
#include <QThread>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "HandlinkTestbed.h"
#include "handlink/client/DeviceRef.h"
#include "handlink/wire/UniqueFd.h"
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
    // Until the daemon runs, something that is not a daemon holds the socket: it takes each
    // connection and closes it unanswered, and counts them. The library must keep trying.
    handlink::wire::UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_TRUE(listener.valid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(socketPath());
    ASSERT_LT(size_t(path.size()), sizeof address.sun_path);
    std::memcpy(address.sun_path, path.constData(), size_t(path.size()));
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener.get(), 8), 0);
    std::atomic<int> attempts{0};
    std::atomic<bool> stop{false};
    std::thread refuser([&] {
        while (!stop.load()) {
            pollfd fd{listener.get(), POLLIN, 0};
            if (::poll(&fd, 1, 50) <= 0) continue;
            handlink::wire::UniqueFd connection(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (connection) ++attempts;
        }
    });

    recorder = std::make_unique<EventRecorder>();
    const bool retried = testsupport::runUntil([&] { return attempts.load() >= 3; });
    stop = true;
    refuser.join();
    listener.reset();
    ::unlink(path.constData());
    ASSERT_TRUE(retried) << "the subscription gave up after " << attempts.load() << " attempts";
    EXPECT_TRUE(recorder->events().empty());  // an unanswered hello reports nothing

    ASSERT_TRUE(emulator->start());
    auto device = attachNewDevice();
    ASSERT_TRUE(recorder->waitForCount(1));
    EXPECT_EQ(recorder->events()[0].identifier, device->identifier());
    EXPECT_EQ(recorder->events()[0].msg, kHLDNotificationConnected);
    EXPECT_EQ(recorder->events().size(), 1u);
}

// The record the callback receives: the reference at offset 0, the message right behind it.
static_assert(offsetof(HLDeviceNotificationInfo, device) == 0);
static_assert(offsetof(HLDeviceNotificationInfo, msg) == sizeof(void*));
static_assert(sizeof(HLDeviceRef) == sizeof(void*) && sizeof(HLDeviceNotificationInfo::msg) == 4);

TEST_F(Events, AReferenceTheCallerRetainedOutlivesTheSubscription) {
    auto device = attachNewDevice(QStringLiteral("Kept"));
    struct State {
        HLDeviceRef kept = nullptr;
        bool layoutHolds = false;
    } state;
    auto callback = [](HLDeviceNotificationInfo* info, void* context) {
        auto* s = static_cast<State*>(context);
        // Read the record as raw memory, the way a caller that knows only the layout does.
        const char* raw = reinterpret_cast<const char*>(info);
        HLDeviceRef atZero;
        uint32_t behind;
        std::memcpy(&atZero, raw, sizeof atZero);
        std::memcpy(&behind, raw + sizeof(void*), sizeof behind);
        s->layoutHolds = atZero == info->device && behind == kHLDNotificationConnected;
        if (!s->kept) {
            HLDeviceRetain(info->device);
            s->kept = info->device;
        }
    };
    HLDeviceNotificationRef handle = nullptr;
    ASSERT_EQ(HLDeviceNotificationSubscribe(callback, 0, 1, &state, &handle), kHLDSuccess);
    ASSERT_TRUE(testsupport::runUntil([&] { return state.kept != nullptr; }));
    EXPECT_TRUE(state.layoutHolds);
    EXPECT_EQ(state.kept->references.load(), 2);  // the subscription's and ours
    ASSERT_EQ(HLDeviceNotificationUnsubscribe(handle), kHLDSuccess);

    // The subscription let go of its count; ours keeps the reference, which still names itself
    // and still reaches the device.
    EXPECT_EQ(state.kept->references.load(), 1);
    EXPECT_EQ(HLDeviceCopyDeviceIdentifier(state.kept), device->identifier());
    EXPECT_EQ(HLDeviceConnect(state.kept), kHLDSuccess);
    EXPECT_EQ(HLDeviceDisconnect(state.kept), kHLDSuccess);
    EXPECT_EQ(device->count(QStringLiteral("connect")), 1);
    HLDeviceRelease(state.kept);
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
