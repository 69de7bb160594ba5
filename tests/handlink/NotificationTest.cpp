// The notification proxy service: posts recorded in order, counted, printed, delivered to
// watchers and post listeners; faults; shutdown; the service connection's own lifetime.
#include <QCborMap>
#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>
#include <unistd.h>

#include "HandlinkTestbed.h"
#include "handlink/client/ControlClient.h"
#include "handlink/emulator/DeviceState.h"
#include "handlink/wire/Frame.h"
#include "support/TestSupport.h"

using namespace hltest;
using handlink::emu::Fault;

namespace {

const QString kProxy = QStringLiteral("com.corvid.mobile.notification_proxy");

class Notifications : public HandlinkTest {
protected:
    void SetUp() override {
        HandlinkTest::SetUp();
        emulator->setPrinter([this](const QString& line) {
            std::lock_guard lock(_printedMutex);
            _printed << line;
        });
        device = attachNewDevice();
        ASSERT_TRUE(device);
        ref = refFor(device->identifier());
        ASSERT_TRUE(ref);
        openSession(ref);
        ASSERT_EQ(HLDeviceStartService(ref, kProxy, &socket, nullptr), kHLDSuccess);
    }
    void TearDown() override {
        if (socket >= 0) ::close(socket);
        HandlinkTest::TearDown();
    }
    QStringList printed() {
        std::lock_guard lock(_printedMutex);
        return _printed;
    }

    std::shared_ptr<handlink::emu::Device> device;
    HLDeviceRef ref = nullptr;
    int socket = -1;

private:
    std::mutex _printedMutex;  // guards _printed (the printer runs on server threads)
    QStringList _printed;
};

}  // namespace

TEST_F(Notifications, PostsAreRecordedInOrderCountedAndPrinted) {
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.a"), nullptr), kHLDSuccess);
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.b"), nullptr), kHLDSuccess);
    QVariantMap info;
    info.insert(QStringLiteral("reason"), QStringLiteral("test"));
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.a"), &info), kHLDSuccess);
    EXPECT_EQ(device->postedNotifications(),
              (QStringList{QStringLiteral("com.example.a"), QStringLiteral("com.example.b"), QStringLiteral("com.example.a")}));
    EXPECT_EQ(device->postCount(QStringLiteral("com.example.a")), 2);
    EXPECT_EQ(device->postCount(QStringLiteral("com.example.b")), 1);
    EXPECT_EQ(device->count(QStringLiteral("post-notification")), 3);
    const QString id = device->identifier();
    EXPECT_EQ(printed().filter(QStringLiteral("posted")),
              (QStringList{QStringLiteral("posted %1 com.example.a").arg(id), QStringLiteral("posted %1 com.example.b").arg(id),
                           QStringLiteral("posted %1 com.example.a").arg(id)}));
    EXPECT_EQ(HLDPostNotification(socket, QString(), nullptr), kHLDInvalidArgumentError);
    EXPECT_EQ(HLDPostNotification(-1, QStringLiteral("x"), nullptr), kHLDInvalidArgumentError);

    device->resetCounters();
    EXPECT_TRUE(device->postedNotifications().isEmpty());
    EXPECT_EQ(device->count(QStringLiteral("post-notification")), 0);
}

TEST_F(Notifications, WatchersAndPostListenersReceiveEveryAcceptedPost) {
    auto state = std::dynamic_pointer_cast<handlink::emu::DeviceState>(device);
    ASSERT_TRUE(state);
    auto heard = std::make_shared<std::pair<std::mutex, QStringList>>();
    const int token = state->addPostListener([heard](const QString& name) {
        std::lock_guard lock(heard->first);
        heard->second << name;
    });

    handlink::client::ControlClient watcher;
    QString error;
    ASSERT_TRUE(watcher.open(socketPath(), &error)) << error.toStdString();
    QCborMap watch;
    watch.insert(QStringLiteral("op"), QStringLiteral("watch"));
    watch.insert(QStringLiteral("id"), device->identifier());
    ASSERT_TRUE(watcher.call(watch, nullptr, &error)) << error.toStdString();

    device->addFault(Fault{QStringLiteral("post-notification"), kHLDBusyError, 1, 0, QStringLiteral("com.example.struck")});
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.struck"), nullptr), kHLDBusyError);
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.one"), nullptr), kHLDSuccess);
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.struck"), nullptr), kHLDSuccess);

    QStringList watched;
    for (int i = 0; i < 2; ++i) {
        QCborMap event;
        ASSERT_EQ(handlink::wire::readFrame(watcher.fd(), &event), handlink::wire::ReadResult::Ok);
        EXPECT_EQ(event.value(QStringLiteral("event")).toString(), QStringLiteral("posted"));
        EXPECT_EQ(event.value(QStringLiteral("id")).toString(), device->identifier());
        watched << event.value(QStringLiteral("name")).toString();
    }
    const QStringList expected{QStringLiteral("com.example.one"), QStringLiteral("com.example.struck")};
    EXPECT_EQ(watched, expected);
    {
        std::lock_guard lock(heard->first);
        EXPECT_EQ(heard->second, expected);  // the struck post reached nobody
    }
    EXPECT_EQ(device->postedNotifications(), expected);
    EXPECT_EQ(device->count(QStringLiteral("post-notification")), 3);

    state->removePostListener(token);
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.two"), nullptr), kHLDSuccess);
    std::lock_guard lock(heard->first);
    EXPECT_EQ(heard->second.size(), 2);
}

TEST_F(Notifications, ShutdownEndsTheProtocolButLeavesTheDescriptorOpen) {
    device->addFault(Fault{QStringLiteral("shutdown-notifications"), kHLDUndefinedError, 1, 0, QString()});
    EXPECT_EQ(HLDShutdownNotificationProxy(socket), kHLDUndefinedError);
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.still"), nullptr), kHLDSuccess);  // still serving
    EXPECT_EQ(HLDShutdownNotificationProxy(socket), kHLDSuccess);
    EXPECT_EQ(device->count(QStringLiteral("shutdown-notifications")), 2);
    EXPECT_NE(::fcntl(socket, F_GETFD), -1);  // the descriptor is the caller's to close
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.late"), nullptr), kHLDNotConnectedError);
    EXPECT_EQ(device->postedNotifications(), QStringList{QStringLiteral("com.example.still")});
}

TEST_F(Notifications, TheServiceOutlivesTheSessionAndTheLockdownConnection) {
    closeSession(ref);
    EXPECT_FALSE(HLDeviceIsPaired(ref));  // the lockdown connection is closed
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.after"), nullptr), kHLDSuccess);
    EXPECT_EQ(device->postCount(QStringLiteral("com.example.after")), 1);
}

TEST_F(Notifications, DetachClosesTheServiceWithoutSigpipe) {
    ASSERT_TRUE(emulator->detach(device->identifier()));
    // Both the send and the answer fail; no SIGPIPE kills the test.
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.gone"), nullptr), kHLDNotConnectedError);
    EXPECT_EQ(HLDPostNotification(socket, QStringLiteral("com.example.gone"), nullptr), kHLDNotConnectedError);
    EXPECT_EQ(HLDShutdownNotificationProxy(socket), kHLDNotConnectedError);
    EXPECT_EQ(device->postCount(QStringLiteral("com.example.gone")), 0);
}

TEST_F(Notifications, ThreadsSharingOneDescriptorTakeTurns) {
    constexpr int kPosts = 100;
    auto work = [&](const QString& name) {
        for (int i = 0; i < kPosts; ++i) EXPECT_EQ(HLDPostNotification(socket, name, nullptr), kHLDSuccess);
    };
    std::thread a(work, QStringLiteral("com.example.left")), b(work, QStringLiteral("com.example.right"));
    a.join();
    b.join();
    EXPECT_EQ(device->postCount(QStringLiteral("com.example.left")), kPosts);
    EXPECT_EQ(device->postCount(QStringLiteral("com.example.right")), kPosts);
    EXPECT_EQ(device->count(QStringLiteral("post-notification")), 2 * kPosts);
}

TEST_F(Notifications, ADelayedPostEndsPromptlyWhenTheDeviceDetaches) {
    device->delay(QStringLiteral("post-notification"), 600000);
    std::atomic<HLDStatus> status{kHLDSuccess};
    std::thread worker([&] { status = HLDPostNotification(socket, QStringLiteral("com.example.slow"), nullptr); });
    ASSERT_TRUE(testsupport::runUntil([&] { return device->count(QStringLiteral("post-notification")) == 1; }));
    ASSERT_TRUE(emulator->detach(device->identifier()));
    worker.join();
    EXPECT_EQ(status.load(), kHLDNotConnectedError);
    EXPECT_TRUE(device->postedNotifications().isEmpty());
}

namespace {

// A descriptor that is not a service socket (0 after a close, a pipe, a file) is refused
// before a byte is written, so a stale number never talks to standard input or a file.
TEST(ServiceDescriptors, NonSocketsAreRefusedWithoutWriting) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    EXPECT_EQ(HLDPostNotification(fds[1], QStringLiteral("com.corvid.test"), nullptr), kHLDInvalidArgumentError);
    EXPECT_EQ(HLDShutdownNotificationProxy(fds[1]), kHLDInvalidArgumentError);
    QFCConnectionRef connection = nullptr;
    EXPECT_EQ(QFCConnectionOpen(fds[1], 0, &connection), kQFCInvalidArgumentError);
    EXPECT_EQ(connection, nullptr);
    ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
    char byte;
    EXPECT_EQ(::read(fds[0], &byte, 1), -1);  // nothing was written
    EXPECT_EQ(errno, EAGAIN);
    ::close(fds[0]);
    ::close(fds[1]);
    EXPECT_EQ(HLDPostNotification(-1, QStringLiteral("x"), nullptr), kHLDInvalidArgumentError);
}

}  // namespace
