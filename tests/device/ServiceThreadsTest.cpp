// Service connections used from two threads at once: one start and one stop per overlapping
// pair of users, and no deadlock between a service start and the lockdown session.
//
// Overlaps are made certain by the device's counters: the first call is held up on the device
// (an armed delay), and the second thread is started only once the device has received that
// call, so the second thread's begin or end has to wait for the first one's lock.
#include <QDeadlineTimer>
#include <QThread>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

#include "DeviceTestbed.h"
#include "device/HLFileConduitProxy.h"
#include "device/HLLockdownSession.h"

using devicetest::DeviceTest;
using devicetest::waitForCount;

namespace {

ino_t inodeOf(int fd)
{
    struct stat info {};
    return fstat(fd, &info) == 0 ? info.st_ino : 0;
}

// Waits until done() holds; a thread that never gets there is a deadlock, and the test
// process cannot go on with threads stuck in the device code, so it stops here.
void joinOrAbort(std::thread& a, std::thread& b, const std::function<bool()>& done, const char* what)
{
    QDeadlineTimer deadline(60000);
    while (!done()) {
        if (deadline.hasExpired()) {
            ADD_FAILURE() << "deadlock: " << what;
            std::fprintf(stderr, "deadlock: %s\n", what);
            std::abort();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    a.join();
    b.join();
}

// True when a file can be opened and closed on the connection (the service is usable).
bool connectionWorks(QFCConnectionRef connection)
{
    QFCFileRef ref = kQFCInvalidFileRef;
    if (QFCFileRefOpenChecked(connection, QStringLiteral("threads-probe"), kQFCModeReadWriteCreate, &ref) != 0)
        return false;
    return QFCFileRefClose(connection, ref) == 0;
}

}  // namespace

using ServiceThreads = DeviceTest;

TEST_F(ServiceThreads, TwoThreadsBeginningTheProxyStartItOnce)
{
    auto proxy = std::make_shared<HLFileConduitProxy>(dev);
    device->delay("start-service", 300, 1);
    std::atomic<int> results{0};  // begins that answered true
    std::atomic<int> finished{0};
    auto begin = [&] {
        if (proxy->beginSession()) ++results;
        ++finished;
    };
    std::thread first(begin);
    const bool firstStartArrived = waitForCount(*device, "start-service", 1);
    std::thread second(begin);
    joinOrAbort(first, second, [&] { return finished == 2; }, "two begins");
    EXPECT_TRUE(firstStartArrived) << "the first start never reached the device";
    EXPECT_EQ(results, 2);
    EXPECT_EQ(proxy->sessionConnectionOpenCount(), 2);
    EXPECT_EQ(device->count("start-service"), 1);
    EXPECT_EQ(device->count("qfc-connect"), 1);
    EXPECT_TRUE(connectionWorks(proxy->qfcConnectionRef()));

    // Two ends at once: one of them stops the service, exactly once. (Whichever takes the lock
    // first only counts down, so no device call marks this overlap; the next test makes an
    // end and a begin overlap for certain.)
    const int socket = proxy->serviceSocket();
    const ino_t inode = inodeOf(socket);
    std::atomic<int> stopped{0};  // ends that answered "stopped"
    finished = 0;
    auto end = [&] {
        if (proxy->endSession()) ++stopped;
        ++finished;
    };
    std::thread third(end);
    std::thread fourth(end);
    joinOrAbort(third, fourth, [&] { return finished == 2; }, "two ends");
    EXPECT_EQ(stopped, 1);
    EXPECT_EQ(proxy->sessionConnectionOpenCount(), 0);
    EXPECT_EQ(device->count("qfc-disconnect"), 1);
    EXPECT_EQ(proxy->serviceSocket(), 0);
    EXPECT_NE(inodeOf(socket), inode);
}

TEST_F(ServiceThreads, ABeginWaitsForAStopInFlightAndStartsAFreshService)
{
    auto proxy = std::make_shared<HLFileConduitProxy>(dev);
    ASSERT_TRUE(proxy->beginSession());
    device->delay("qfc-disconnect", 300, 1);
    std::atomic<int> finished{0};
    std::atomic<bool> stopped{false};
    std::atomic<bool> started{false};
    std::thread stopper([&] {
        stopped = proxy->endSession();
        ++finished;
    });
    const bool stopArrived = waitForCount(*device, "qfc-disconnect", 1);
    std::thread starter([&] {
        started = proxy->beginSession();
        ++finished;
    });
    joinOrAbort(stopper, starter, [&] { return finished == 2; }, "a stop and a begin");
    EXPECT_TRUE(stopArrived) << "the stop never reached the device";
    EXPECT_TRUE(stopped);
    EXPECT_TRUE(started);
    // The begin ran after the stop was over: a new service whose socket the stop did not close.
    EXPECT_EQ(device->count("start-service"), 2);
    EXPECT_EQ(device->count("qfc-connect"), 2);
    EXPECT_EQ(proxy->sessionConnectionOpenCount(), 1);
    EXPECT_GT(proxy->serviceSocket(), 0);
    EXPECT_NE(inodeOf(proxy->serviceSocket()), 0u);
    EXPECT_TRUE(connectionWorks(proxy->qfcConnectionRef()));
    EXPECT_TRUE(proxy->endSession());
    EXPECT_EQ(device->count("qfc-disconnect"), 2);
}

TEST_F(ServiceThreads, TwoThreadsOpeningTheDevicesConduitShareOneService)
{
    device->delay("start-service", 300, 1);
    std::atomic<int> opened{0};
    std::atomic<int> finished{0};
    auto open = [&] {
        if (dev->_qfcConnectionOpen()) ++opened;
        ++finished;
    };
    std::thread first(open);
    const bool firstStartArrived = waitForCount(*device, "start-service", 1);
    std::thread second(open);
    joinOrAbort(first, second, [&] { return finished == 2; }, "two opens");
    EXPECT_TRUE(firstStartArrived) << "the first start never reached the device";
    EXPECT_EQ(opened, 2);
    std::shared_ptr<HLFileConduitProxy> service = dev->activeFileCounduitService();
    ASSERT_TRUE(service);
    EXPECT_EQ(service->sessionConnectionOpenCount(), 2);
    EXPECT_EQ(device->count("start-service"), 1);
    EXPECT_EQ(device->count("qfc-connect"), 1);
    EXPECT_TRUE(connectionWorks(dev->qfcConnectionRef()));
    service.reset();

    finished = 0;
    auto close = [&] {
        dev->_qfcConnectionClose();
        ++finished;
    };
    std::thread third(close);
    std::thread fourth(close);
    joinOrAbort(third, fourth, [&] { return finished == 2; }, "two closes");
    EXPECT_EQ(device->count("qfc-disconnect"), 1);
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
    EXPECT_EQ(dev->qfcConnectionRef(), nullptr);
    EXPECT_TRUE(dev->activeServiceSessions().empty());
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 0);
}

TEST_F(ServiceThreads, ValueReadsAndServiceStartsDoNotBlockEachOther)
{
    constexpr int kReads = 60;
    constexpr int kRounds = 12;
    // Every service start is slow; the reader begins once the first one is in flight, so its
    // sessions overlap the service thread's (the service lock held, then the session's lock).
    device->delay("start-service", 20, kRounds);
    std::atomic<int> finished{0};
    std::atomic<int> wrongNames{0};
    std::atomic<int> failedOpens{0};
    std::thread services([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (!dev->_qfcConnectionOpen()) {
                ++failedOpens;
                continue;
            }
            dev->_qfcConnectionClose();
        }
        ++finished;
    });
    const bool firstStartArrived = waitForCount(*device, "start-service", 1);
    std::thread reader([&] {
        for (int i = 0; i < kReads; ++i)
            if (dev->lockdownValueForKey(QStringLiteral("DeviceName"), QString(), QVariant()) != QStringLiteral("Tamber"))
                ++wrongNames;
        ++finished;
    });
    joinOrAbort(services, reader, [&] { return finished == 2; }, "value reads against service starts");
    EXPECT_TRUE(firstStartArrived) << "no service start reached the device";
    EXPECT_EQ(failedOpens, 0);
    EXPECT_EQ(wrongNames, 0);
    EXPECT_EQ(device->count("get-value"), kReads);
    EXPECT_EQ(device->count("start-service"), kRounds);
    EXPECT_EQ(device->count("qfc-connect"), kRounds);
    EXPECT_EQ(device->count("qfc-disconnect"), kRounds);
    // Sessions nest across the threads, but every one that was opened was closed once.
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 0);
    EXPECT_EQ(device->count("start-session"), device->count("stop-session"));
    EXPECT_EQ(device->count("connect"), device->count("disconnect"));
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
}
