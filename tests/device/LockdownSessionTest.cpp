// The counted lockdown session: nesting, failure paths, assertions and two threads.
#include <QThread>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "DeviceTestbed.h"
#include "device/HLLockdownSession.h"
#include "platform/Assert.h"
#include "platform/SystemLog.h"

using devicetest::DeviceTest;
using handlink::emu::Fault;

namespace {

Fault fault(const QString& operation, int32_t status, int times = 1)
{
    Fault f;
    f.operation = operation;
    f.status = status;
    f.times = times;
    return f;
}

}  // namespace

using LockdownSession = DeviceTest;

TEST_F(LockdownSession, NestedBeginEndOpensAndClosesOnce)
{
    HLLockdownSession* session = dev->lockdownSession();
    EXPECT_TRUE(session->beginSession());
    EXPECT_TRUE(session->beginSession());
    EXPECT_EQ(session->sessionOpenCount(), 2);
    EXPECT_FALSE(session->endSession());
    EXPECT_TRUE(session->endSession());
    EXPECT_EQ(session->sessionOpenCount(), 0);

    EXPECT_EQ(device->count("connect"), 1);
    EXPECT_EQ(device->count("is-paired"), 1);
    EXPECT_EQ(device->count("pair"), 1);  // a new device knows no host yet
    EXPECT_EQ(device->count("start-session"), 1);
    EXPECT_EQ(device->count("stop-session"), 1);
    EXPECT_EQ(device->count("disconnect"), 1);

    // Paired now: the next session connects again and checks the pairing, but does not pair.
    dev->beginLockdownSession();
    dev->endLockdownSession();
    EXPECT_EQ(device->count("connect"), 2);
    EXPECT_EQ(device->count("is-paired"), 2);
    EXPECT_EQ(device->count("pair"), 1);
    EXPECT_EQ(device->count("disconnect"), 2);
}

TEST_F(LockdownSession, ForwardersReturnTheSessionsFlags)
{
    EXPECT_TRUE(dev->_lockdownSessionBegin());
    EXPECT_TRUE(dev->_lockdownSessionBegin());
    EXPECT_FALSE(dev->_lockdownSessionEnd());
    EXPECT_TRUE(dev->_lockdownSessionEnd());
    EXPECT_EQ(dev->lockdownSession()->linkdev(), dev.get());
}

TEST_F(LockdownSession, EndWithoutSessionCallsNothing)
{
    platform::LogCapture log;
    EXPECT_TRUE(dev->lockdownSession()->endSession());
    EXPECT_EQ(device->count("stop-session"), 0);
    EXPECT_EQ(device->count("disconnect"), 0);
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(LockdownSession, ConnectFailureIsLoggedAndRetriedOnTheNextBegin)
{
    platform::LogCapture log;
    device->addFault(fault("connect", kHLDNotConnectedError));
    HLLockdownSession* session = dev->lockdownSession();
    EXPECT_FALSE(session->beginSession());
    EXPECT_EQ(session->sessionOpenCount(), 0);
    EXPECT_EQ(log.lines(), QStringList{"ERROR: could not connect to device, error = HLDError: 'HLDeviceConnect()', "
                                       "hld_error = -402653173 (kHLDNotConnectedError)."});
    EXPECT_EQ(device->count("start-session"), 0);

    EXPECT_TRUE(session->beginSession());
    EXPECT_EQ(device->count("connect"), 2);
    EXPECT_TRUE(session->endSession());
}

TEST_F(LockdownSession, PairingFailureIsLoggedAndLeavesTheConnectionOpen)
{
    platform::LogCapture log;
    device->addFault(fault("pair", kHLDMissingPairRecordError));
    EXPECT_FALSE(dev->_lockdownSessionBegin());
    EXPECT_EQ(log.lines(), QStringList{"ERROR: could not pair, error=-402653147."});
    EXPECT_EQ(device->count("connect"), 1);
    EXPECT_EQ(device->count("pair"), 1);
    EXPECT_EQ(device->count("start-session"), 0);
    EXPECT_EQ(device->count("disconnect"), 0);
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 0);
}

TEST_F(LockdownSession, RefusedPairingNamesTheDeviceZephyr)
{
    device->setPairing("refuse");
    platform::LogCapture log;
    EXPECT_EQ(dev->name(), "Zephyr");
    EXPECT_EQ(log.lines(), QStringList{"ERROR: could not pair, error=-402653158."});
    EXPECT_EQ(device->count("get-value"), 0);

    device->setPairing("accept");
    EXPECT_EQ(dev->name(), "Tamber");
    EXPECT_EQ(device->count("get-value"), 1);
}

TEST_F(LockdownSession, SessionStartFailureIsLoggedWithoutDisconnecting)
{
    platform::LogCapture log;
    device->addFault(fault("start-session", kHLDInvalidHostIDError));
    EXPECT_FALSE(dev->_lockdownSessionBegin());
    EXPECT_EQ(log.lines(), QStringList{"ERROR: could not start session with device, error = HLDError: "
                                       "'HLDevicebeginSession()', hld_error = -402653156 (kHLDInvalidHostIDError)."});
    EXPECT_EQ(device->count("disconnect"), 0);
    EXPECT_EQ(dev->lockdownSession()->sessionOpenCount(), 0);
}

TEST_F(LockdownSession, StopFailureKeepsTheSessionOpenUntilAStopSucceeds)
{
    HLLockdownSession* session = dev->lockdownSession();
    ASSERT_TRUE(session->beginSession());
    device->addFault(fault("stop-session", kHLDInvalidSessionIDError));
    platform::LogCapture log;
    EXPECT_FALSE(session->endSession());
    EXPECT_EQ(session->sessionOpenCount(), 1);
    EXPECT_EQ(log.lines(), QStringList{"ERROR: could not stop session with device, error = HLDError: "
                                       "'HLDeviceendSession()', hld_error = -402653152 (kHLDInvalidSessionIDError)."});
    EXPECT_EQ(device->count("disconnect"), 0);

    // Still open: a begin only counts, and the last end stops again.
    EXPECT_TRUE(session->beginSession());
    EXPECT_EQ(device->count("connect"), 1);
    EXPECT_FALSE(session->endSession());
    EXPECT_TRUE(session->endSession());
    EXPECT_EQ(device->count("stop-session"), 2);
    EXPECT_EQ(device->count("disconnect"), 1);
}

TEST_F(LockdownSession, DisconnectFailureKeepsTheCount)
{
    HLLockdownSession* session = dev->lockdownSession();
    ASSERT_TRUE(session->beginSession());
    device->addFault(fault("disconnect", kHLDUndefinedError));
    platform::LogCapture log;
    EXPECT_FALSE(session->endSession());
    EXPECT_EQ(session->sessionOpenCount(), 1);
    EXPECT_EQ(log.lines(), QStringList{"ERROR: could not disconnect from the device, error = HLDError: "
                                       "'HLDeviceDisconnect()', hld_error = -402653183 (kHLDUndefinedError)."});
}

TEST_F(LockdownSession, CounterAssertionsNameMethodObjectFileLineAndText)
{
    HLLockdownSession* session = dev->lockdownSession();
    const QString object = QStringLiteral("<HLLockdownSession: 0x%1>").arg(reinterpret_cast<quintptr>(session), 0, 16);
    {
        platform::LogCapture log;
        try {
            session->_nts_lockdownSessionStop();
            ADD_FAILURE() << "no assertion failure";
        } catch (const platform::AssertionFailure& failure) {
            EXPECT_EQ(failure.method(), "-[HLLockdownSession _nts_lockdownSessionStop] " + object);
            EXPECT_EQ(failure.file(), "Source/Tools/HLLockdownSession");
            EXPECT_EQ(failure.line(), 115);
            EXPECT_EQ(failure.message(), "expected _sessionOpenCount to be > 0.");
        }
        EXPECT_EQ(log.lines(), QStringList{"*** Assertion failure in -[HLLockdownSession _nts_lockdownSessionStop] " +
                                           object + ", Source/Tools/HLLockdownSession:115: expected _sessionOpenCount to be > 0."});
    }
    EXPECT_EQ(device->count("stop-session"), 0);

    ASSERT_TRUE(session->beginSession());
    {
        platform::LogCapture log;
        try {
            session->_nts_lockdownSessionStart();
            ADD_FAILURE() << "no assertion failure";
        } catch (const platform::AssertionFailure& failure) {
            EXPECT_EQ(failure.method(), "-[HLLockdownSession _nts_lockdownSessionStart] " + object);
            EXPECT_EQ(failure.file(), "Source/Tools/HLLockdownSession");
            EXPECT_EQ(failure.line(), 86);
            EXPECT_EQ(failure.message(), "expected _sessionOpenCount to be == 0.");
            EXPECT_EQ(QString::fromStdString(failure.what()),
                      "*** Assertion failure in -[HLLockdownSession _nts_lockdownSessionStart] " + object +
                          ", Source/Tools/HLLockdownSession:86: expected _sessionOpenCount to be == 0.");
        }
        EXPECT_EQ(log.lines().size(), 1);
    }
    EXPECT_EQ(session->sessionOpenCount(), 1);
    EXPECT_EQ(device->count("connect"), 1);

    // The stop asserts a count of exactly 1: at 2 (a second begin) it fails and changes nothing.
    ASSERT_TRUE(session->beginSession());
    EXPECT_THROW(session->_nts_lockdownSessionStop(), platform::AssertionFailure);
    EXPECT_EQ(session->sessionOpenCount(), 2);
    EXPECT_FALSE(session->endSession());
    EXPECT_TRUE(session->endSession());
}

TEST_F(LockdownSession, TwoThreadsNeverStartOrStopItTwice)
{
    HLLockdownSession* session = dev->lockdownSession();
    // The first start is held up on the device; the second thread is started only once the
    // device has received that start, so its begin has to wait for the first one's lock.
    device->delay("start-session", 300, 1);
    std::atomic<int> began{0};
    std::atomic<bool> mayEnd{false};
    std::atomic<int> failures{0};
    auto worker = [&] {
        if (!session->beginSession()) ++failures;
        ++began;
        while (!mayEnd) QThread::yieldCurrentThread();
        session->endSession();
    };
    std::thread first(worker);
    const bool firstStartArrived = devicetest::waitForCount(*device, "start-session", 1);
    std::thread second(worker);
    EXPECT_TRUE(firstStartArrived);
    while (began < 2) QThread::yieldCurrentThread();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(device->count("start-session"), 1);
    EXPECT_EQ(session->sessionOpenCount(), 2);
    mayEnd = true;
    first.join();
    second.join();
    EXPECT_EQ(session->sessionOpenCount(), 0);
    EXPECT_EQ(device->count("connect"), 1);
    EXPECT_EQ(device->count("stop-session"), 1);
    EXPECT_EQ(device->count("disconnect"), 1);

    // Many overlapping rounds: every start is matched by exactly one stop.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 25; ++i) {
                if (!session->beginSession()) {
                    ++failures;
                    continue;
                }
                session->endSession();
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(session->sessionOpenCount(), 0);
    EXPECT_EQ(device->count("start-session"), device->count("stop-session"));
    EXPECT_EQ(device->count("connect"), device->count("disconnect"));
    EXPECT_EQ(device->count("connect"), device->count("start-session"));
}

TEST_F(LockdownSession, ClearWeakReferenceForgetsOnlyItsOwnDevice)
{
    HLLockdownSession session(dev.get());
    int other = 0;
    session.clearWeakReference(&other);
    EXPECT_EQ(session.linkdev(), dev.get());
    session.clearWeakReference(dev.get());
    EXPECT_EQ(session.linkdev(), nullptr);
    EXPECT_EQ(session.sessionOpenCount(), 0);
}
