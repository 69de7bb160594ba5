// Service connections: counted starts and stops, the hooks, sockets and failure paths.
#include <gtest/gtest.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include "DeviceTestbed.h"
#include "device/HLFileConduitProxy.h"
#include "device/HLLockdownSession.h"
#include "device/HLNotificationProxy.h"
#include "platform/Assert.h"
#include "platform/SystemLog.h"

using devicetest::DeviceTest;
using handlink::emu::Fault;

namespace {

Fault fault(const QString& operation, int32_t status)
{
    Fault f;
    f.operation = operation;
    f.status = status;
    return f;
}

// The identity of an open descriptor, to tell later whether that descriptor was closed
// (its number may be reused by another socket meanwhile).
ino_t inodeOf(int fd)
{
    struct stat info {};
    return fstat(fd, &info) == 0 ? info.st_ino : 0;
}

// A file-conduit proxy that notes the service socket its start hook was given, so that a
// test can tell afterwards whether that descriptor was closed.
class SocketNotingConduitProxy : public HLFileConduitProxy {
public:
    using HLFileConduitProxy::HLFileConduitProxy;
    bool serviceDidStart() override
    {
        startedSocket = serviceSocket();
        startedInode = inodeOf(startedSocket);
        return HLFileConduitProxy::serviceDidStart();
    }
    int startedSocket = 0;
    ino_t startedInode = 0;
};

// A service without hooks of its own.
class PlainServiceProxy : public HLServiceProxy {
public:
    explicit PlainServiceProxy(std::shared_ptr<LinkDev> device)
        : HLServiceProxy(std::move(device), QStringLiteral("com.corvid.mobile.notification_proxy"))
    {
    }
};

}  // namespace

using ServiceProxy = DeviceTest;

TEST_F(ServiceProxy, ServiceNamesByClass)
{
    EXPECT_EQ(HLFileConduitProxy::serviceName(), "com.corvid.qfc");
    EXPECT_EQ(HLNotificationProxy::serviceName(), "com.corvid.mobile.notification_proxy");
    EXPECT_EQ(HLFileConduitProxy(dev).serviceNameOfInstance(), "com.corvid.qfc");

    // Asked of the class, the failure names the class as its object.
    try {
        HLServiceProxy::serviceName();
        ADD_FAILURE() << "the base class named a service";
    } catch (const platform::AssertionFailure& failure) {
        EXPECT_EQ(failure.method(), "+[HLServiceProxy serviceName] HLServiceProxy");
        EXPECT_EQ(failure.file(), "Source/Tools/HLServiceProxy");
        EXPECT_EQ(failure.line(), 26);
        EXPECT_EQ(failure.message(), "Subclass must implement");
    }

    // Making a base-class proxy fails naming the object being made, at its address.
    alignas(HLServiceProxy) unsigned char storage[sizeof(HLServiceProxy)];
    const QString object = QStringLiteral("<HLServiceProxy: 0x%1>").arg(reinterpret_cast<quintptr>(storage), 0, 16);
    platform::LogCapture log;
    try {
        new (storage) HLServiceProxy(dev);
        ADD_FAILURE() << "the base class named a service";
    } catch (const platform::AssertionFailure& failure) {
        EXPECT_EQ(failure.method(), "+[HLServiceProxy serviceName] " + object);
        EXPECT_EQ(failure.file(), "Source/Tools/HLServiceProxy");
        EXPECT_EQ(failure.line(), 26);
        EXPECT_EQ(failure.message(), "Subclass must implement");
    }
    EXPECT_EQ(log.lines(), QStringList{"*** Assertion failure in +[HLServiceProxy serviceName] " + object +
                                       ", Source/Tools/HLServiceProxy:26: Subclass must implement"});
}

TEST_F(ServiceProxy, NestedFileConduitSessionsStartOnceAndStopOnce)
{
    auto proxy = std::make_shared<HLFileConduitProxy>(dev);
    EXPECT_EQ(proxy->linkdev(), dev);
    EXPECT_TRUE(proxy->beginSession());
    const int socket = proxy->serviceSocket();
    EXPECT_GT(socket, 0);
    const ino_t inode = inodeOf(socket);
    EXPECT_NE(proxy->qfcConnectionRef(), nullptr);
    EXPECT_TRUE(proxy->beginSession());
    EXPECT_FALSE(proxy->endSession());
    EXPECT_NE(proxy->qfcConnectionRef(), nullptr);
    EXPECT_TRUE(proxy->endSession());

    EXPECT_EQ(proxy->sessionConnectionOpenCount(), 0);
    EXPECT_EQ(proxy->serviceSocket(), 0);
    EXPECT_EQ(proxy->qfcConnectionRef(), nullptr);
    EXPECT_NE(inodeOf(socket), inode);  // closed
    EXPECT_EQ(device->count("start-service"), 1);
    EXPECT_EQ(device->count("qfc-connect"), 1);
    EXPECT_EQ(device->count("qfc-disconnect"), 1);
    // The lockdown session is held only while the service starts.
    EXPECT_EQ(device->count("start-session"), 1);
    EXPECT_EQ(device->count("stop-session"), 1);
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 0);
}

TEST_F(ServiceProxy, EndWithoutBeginDoesNothing)
{
    HLFileConduitProxy proxy(dev);
    EXPECT_TRUE(proxy.endSession());
    EXPECT_EQ(device->count("qfc-disconnect"), 0);
    EXPECT_EQ(proxy.serviceSocket(), 0);
}

TEST_F(ServiceProxy, ServiceOutlivesAnOuterLockdownSession)
{
    dev->beginLockdownSession();
    HLFileConduitProxy proxy(dev);
    ASSERT_TRUE(proxy.beginSession());
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 1);  // the outer session is still held
    dev->endLockdownSession();
    EXPECT_EQ(device->count("stop-session"), 1);
    QFCFileRef ref = kQFCInvalidFileRef;
    EXPECT_EQ(QFCFileRefOpenChecked(proxy.qfcConnectionRef(), QStringLiteral("still-open"), 2, &ref), 0);
    EXPECT_EQ(QFCFileRefClose(proxy.qfcConnectionRef(), ref), 0);
    EXPECT_TRUE(proxy.endSession());
}

TEST_F(ServiceProxy, RefusedConnectionOpenClosesTheSocketAndIsRetried)
{
    auto proxy = std::make_shared<SocketNotingConduitProxy>(dev);
    device->addFault(fault("qfc-connect", kQFCNoResourcesError));
    platform::LogCapture log;
    EXPECT_FALSE(proxy->beginSession());
    EXPECT_EQ(log.lines(), QStringList{"ERROR: Could not open QFC connection, error = HLDError: 'QFCConnectionOpen()', "
                                       "hld_error = 3 (kQFCNoResourcesError)."});
    EXPECT_EQ(proxy->serviceSocket(), 0);
    EXPECT_GT(proxy->startedSocket, 0);
    EXPECT_NE(proxy->startedInode, 0u);
    EXPECT_NE(inodeOf(proxy->startedSocket), proxy->startedInode);  // the refused socket was closed
    EXPECT_EQ(proxy->sessionConnectionOpenCount(), 0);
    EXPECT_EQ(device->count("stop-session"), 1);  // the lockdown session was ended all the same

    EXPECT_TRUE(proxy->beginSession());
    EXPECT_EQ(device->count("start-service"), 2);
    EXPECT_TRUE(proxy->endSession());
}

TEST_F(ServiceProxy, ServiceStartFailureIsLogged)
{
    HLFileConduitProxy proxy(dev);
    device->addFault(fault("start-service", kHLDInvalidServiceError));
    platform::LogCapture log;
    EXPECT_FALSE(proxy.beginSession());
    EXPECT_EQ(log.lines(), QStringList{"ERROR: Could not start com.corvid.qfc service, error = HLDError: "
                                       "'HLDeviceStartService()', hld_error = -402653150 (kHLDInvalidServiceError)."});
    EXPECT_EQ(device->count("qfc-connect"), 0);
    EXPECT_EQ(device->count("stop-session"), 1);
    EXPECT_EQ(proxy.sessionConnectionOpenCount(), 0);
}

TEST_F(ServiceProxy, NoLockdownSessionNoService)
{
    HLFileConduitProxy proxy(dev);
    device->addFault(fault("connect", kHLDNotConnectedError));
    platform::LogCapture log;
    EXPECT_FALSE(proxy.beginSession());
    EXPECT_EQ(device->count("start-service"), 0);
    EXPECT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines().value(0).startsWith("ERROR: could not connect to device, error = "));
}

TEST_F(ServiceProxy, FailedConnectionCloseLeavesTheSocketOpen)
{
    HLFileConduitProxy proxy(dev);
    ASSERT_TRUE(proxy.beginSession());
    const int socket = proxy.serviceSocket();
    const ino_t inode = inodeOf(socket);
    device->addFault(fault("qfc-disconnect", kQFCNotConnectedError));
    platform::LogCapture log;
    EXPECT_TRUE(proxy.endSession());  // stopped whatever the hook answered
    EXPECT_EQ(log.lines(), QStringList{"ERROR: Could not close QFC connection, error = HLDError: "
                                       "'QFCConnectionClose()', hld_error = 11 (kQFCNotConnectedError)."});
    EXPECT_EQ(proxy.serviceSocket(), socket);
    EXPECT_EQ(inodeOf(socket), inode);
    EXPECT_EQ(proxy.qfcConnectionRef(), nullptr);

    // A new start overwrites the number; the old descriptor is the test's to close.
    ASSERT_TRUE(proxy.beginSession());
    EXPECT_EQ(device->count("start-service"), 2);
    close(socket);
    EXPECT_TRUE(proxy.endSession());
}

TEST_F(ServiceProxy, NotificationShutdownFailureGoesToStandardError)
{
    HLNotificationProxy proxy(dev);
    ASSERT_TRUE(proxy.beginSession());
    const int socket = proxy.serviceSocket();
    EXPECT_TRUE(proxy.postNotification(QStringLiteral("com.corvid.test.one")));
    device->addFault(fault("shutdown-notifications", kQFCInvalidArgumentError));
    platform::StderrCapture err;
    platform::LogCapture log;
    EXPECT_TRUE(proxy.endSession());
    EXPECT_EQ(err.text(), "Could not shut down notifications: 7\n");
    EXPECT_TRUE(log.lines().isEmpty());
    EXPECT_EQ(proxy.serviceSocket(), socket);  // left open
    close(socket);
    proxy.setServiceSocket(0);
    EXPECT_EQ(device->postCount("com.corvid.test.one"), 1);
    EXPECT_EQ(device->count("shutdown-notifications"), 1);
}

TEST_F(ServiceProxy, NotificationProxyShutsDownAndCloses)
{
    HLNotificationProxy proxy(dev);
    ASSERT_TRUE(proxy.beginSession());
    const int socket = proxy.serviceSocket();
    const ino_t inode = inodeOf(socket);
    platform::StderrCapture err;
    EXPECT_TRUE(proxy.endSession());
    EXPECT_TRUE(err.text().isEmpty());
    EXPECT_EQ(proxy.serviceSocket(), 0);
    EXPECT_NE(inodeOf(socket), inode);
    EXPECT_EQ(device->count("shutdown-notifications"), 1);
}

TEST_F(ServiceProxy, BaseHooksAnswerTrue)
{
    PlainServiceProxy proxy(dev);
    EXPECT_TRUE(proxy.serviceDidStart());
    EXPECT_TRUE(proxy.serviceDidStop());
    ASSERT_TRUE(proxy.beginSession());
    const int socket = proxy.serviceSocket();
    const ino_t inode = inodeOf(socket);
    EXPECT_TRUE(proxy.endSession());
    EXPECT_EQ(proxy.serviceSocket(), 0);
    EXPECT_NE(inodeOf(socket), inode);
    EXPECT_EQ(device->count("shutdown-notifications"), 0);  // the base hook does not speak the protocol
}

TEST_F(ServiceProxy, DestroyingAStartedProxyStopsItsService)
{
    int socket = 0;
    ino_t inode = 0;
    {
        HLFileConduitProxy proxy(dev);
        ASSERT_TRUE(proxy.beginSession());
        ASSERT_TRUE(proxy.beginSession());
        socket = proxy.serviceSocket();
        inode = inodeOf(socket);
    }
    EXPECT_EQ(device->count("qfc-disconnect"), 1);
    EXPECT_NE(inodeOf(socket), inode);
}

TEST_F(ServiceProxy, ClearWeakReferenceForgetsOnlyItsOwnDevice)
{
    HLFileConduitProxy proxy(dev);
    int other = 0;
    proxy.clearWeakReference(&other);
    EXPECT_EQ(proxy.linkdev(), dev);
    proxy.clearWeakReference(dev.get());
    EXPECT_EQ(proxy.linkdev(), nullptr);
    EXPECT_FALSE(proxy.beginSession());  // no device, no session
}
