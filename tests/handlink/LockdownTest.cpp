// Lockdown calls of the client library against a live emulated device: the sequence, nesting,
// pairing, faults, delays and detach.
#include <QFile>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "HandlinkTestbed.h"
#include "handlink/client/HostId.h"
#include "support/TestSupport.h"

using namespace hltest;
using handlink::emu::Fault;

namespace {

class Lockdown : public AttachedDeviceTest {
protected:
    void SetUp() override {
        HandlinkTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(attachDevice(QStringLiteral("Lab Tamber")));
    }
};

// A reference whose device is gone: every call that needs the device answers not-connected,
// whatever the sequence would have answered, and nothing reaches a device.
void expectGone(HLDeviceRef ref) {
    EXPECT_EQ(HLDeviceConnect(ref), kHLDNotConnectedError);
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDNotConnectedError);
    EXPECT_EQ(HLDevicePair(ref), kHLDNotConnectedError);
    EXPECT_EQ(HLDeviceStartSession(ref), kHLDNotConnectedError);
    EXPECT_EQ(HLDeviceStopSession(ref), kHLDNotConnectedError);
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceName"), QStringLiteral("x")), kHLDNotConnectedError);
    int socket = 1234;
    EXPECT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.mobile.notification_proxy"), &socket, nullptr),
              kHLDNotConnectedError);
    EXPECT_EQ(socket, -1);
    EXPECT_FALSE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());
    EXPECT_FALSE(HLDeviceIsPaired(ref));
}

}  // namespace

TEST_F(Lockdown, FullSequenceOnANewDevice) {
    ASSERT_EQ(HLDeviceConnect(ref), kHLDSuccess);
    EXPECT_FALSE(HLDeviceIsPaired(ref));
    EXPECT_EQ(HLDeviceStartSession(ref), kHLDInvalidHostIDError);  // no pairing record yet
    ASSERT_EQ(HLDevicePair(ref), kHLDSuccess);
    EXPECT_TRUE(HLDeviceIsPaired(ref));
    ASSERT_EQ(HLDeviceStartSession(ref), kHLDSuccess);
    EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Lab Tamber"));
    EXPECT_EQ(HLDeviceSetValue(ref, QStringLiteral("com.corvid.mobiletamber"), QStringLiteral("syncDebug.enabled_v2"), true),
              kHLDSuccess);
    EXPECT_EQ(HLDeviceCopyValue(ref, QStringLiteral("com.corvid.mobiletamber"), QStringLiteral("syncDebug.enabled_v2")),
              QVariant(true));
    int socket = -1;
    ASSERT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.mobile.notification_proxy"), &socket, nullptr), kHLDSuccess);
    EXPECT_GE(socket, 0);
    ::close(socket);
    EXPECT_EQ(HLDeviceStopSession(ref), kHLDSuccess);
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);

    EXPECT_EQ(device->count(QStringLiteral("connect")), 1);
    EXPECT_EQ(device->count(QStringLiteral("is-paired")), 2);
    EXPECT_EQ(device->count(QStringLiteral("pair")), 1);
    EXPECT_EQ(device->count(QStringLiteral("start-session")), 2);
    EXPECT_EQ(device->count(QStringLiteral("get-value")), 2);
    EXPECT_EQ(device->count(QStringLiteral("set-value")), 1);
    EXPECT_EQ(device->count(QStringLiteral("start-service")), 1);
    EXPECT_EQ(device->count(QStringLiteral("stop-session")), 1);
    EXPECT_EQ(device->count(QStringLiteral("disconnect")), 1);
    // The value was written through to the device.
    EXPECT_EQ(device->value(QStringLiteral("com.corvid.mobiletamber"), QStringLiteral("syncDebug.enabled_v2")), QVariant(true));
}

TEST_F(Lockdown, ConnectAndSessionNestOnTheReferenceButEveryCallIsCounted) {
    ASSERT_EQ(HLDeviceConnect(ref), kHLDSuccess);
    ASSERT_EQ(HLDevicePair(ref), kHLDSuccess);
    ASSERT_EQ(HLDeviceConnect(ref), kHLDSuccess);
    ASSERT_EQ(HLDeviceStartSession(ref), kHLDSuccess);
    ASSERT_EQ(HLDeviceStartSession(ref), kHLDSuccess);
    EXPECT_EQ(device->count(QStringLiteral("connect")), 2);
    EXPECT_EQ(device->count(QStringLiteral("start-session")), 2);

    // The inner stop leaves the outer session open.
    ASSERT_EQ(HLDeviceStopSession(ref), kHLDSuccess);
    EXPECT_TRUE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());
    ASSERT_EQ(HLDeviceStopSession(ref), kHLDSuccess);
    EXPECT_FALSE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());
    EXPECT_EQ(HLDeviceStopSession(ref), kHLDSessionInactiveError);

    // The inner disconnect leaves the connection open; the outer one closes it.
    ASSERT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);
    EXPECT_TRUE(HLDeviceIsPaired(ref));
    ASSERT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);
    EXPECT_FALSE(HLDeviceIsPaired(ref));  // no connection any more
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDNotConnectedError);

    EXPECT_EQ(device->count(QStringLiteral("stop-session")), 3);
    EXPECT_EQ(device->count(QStringLiteral("disconnect")), 2);
    EXPECT_EQ(device->count(QStringLiteral("is-paired")), 1);
}

TEST_F(Lockdown, BrokenSequencesAnswerStatusesAndNeverCrash) {
    // No connection at all.
    EXPECT_EQ(HLDeviceStartSession(ref), kHLDNotConnectedError);
    EXPECT_EQ(HLDevicePair(ref), kHLDNotConnectedError);
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDNotConnectedError);
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceName"), QStringLiteral("x")), kHLDSessionInactiveError);
    int socket = 1234;
    EXPECT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.qfc"), &socket, nullptr), kHLDSessionInactiveError);
    EXPECT_EQ(socket, -1);
    EXPECT_EQ(HLDeviceStopSession(ref), kHLDSessionInactiveError);
    EXPECT_FALSE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());
    EXPECT_FALSE(HLDeviceIsPaired(ref));
    EXPECT_EQ(device->count(QStringLiteral("connect")), 0);

    // Connected, paired, no session: the device answers and counts.
    ASSERT_EQ(HLDeviceConnect(ref), kHLDSuccess);
    ASSERT_EQ(HLDevicePair(ref), kHLDSuccess);
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceName"), QStringLiteral("x")), kHLDSessionInactiveError);
    EXPECT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.qfc"), &socket, nullptr), kHLDSessionInactiveError);
    EXPECT_EQ(HLDeviceStopSession(ref), kHLDSessionInactiveError);
    EXPECT_FALSE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());
    EXPECT_EQ(device->count(QStringLiteral("set-value")), 1);
    EXPECT_EQ(device->count(QStringLiteral("start-service")), 1);
    EXPECT_EQ(device->count(QStringLiteral("stop-session")), 1);
    EXPECT_EQ(device->count(QStringLiteral("get-value")), 1);
    EXPECT_EQ(device->value(QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Lab Tamber"));

    // A service the device does not have.
    ASSERT_EQ(HLDeviceStartSession(ref), kHLDSuccess);
    EXPECT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.nothing"), &socket, nullptr), kHLDInvalidServiceError);
    EXPECT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.qfc"), nullptr, nullptr), kHLDInvalidArgumentError);
    closeSession(ref);

    // A null reference.
    EXPECT_EQ(HLDeviceConnect(nullptr), kHLDInvalidArgumentError);
    EXPECT_FALSE(HLDeviceIsPaired(nullptr));
    EXPECT_TRUE(HLDeviceCopyDeviceIdentifier(nullptr).isNull());
    EXPECT_FALSE(HLDeviceCopyValue(nullptr, QString(), QStringLiteral("DeviceName")).isValid());
}

TEST_F(Lockdown, PairingCanBeRefusedAndForgotten) {
    ASSERT_EQ(HLDeviceConnect(ref), kHLDSuccess);
    device->setPairing(QStringLiteral("refuse"));
    EXPECT_EQ(HLDevicePair(ref), kHLDPasswordProtectedError);
    EXPECT_FALSE(HLDeviceIsPaired(ref));
    EXPECT_EQ(HLDeviceStartSession(ref), kHLDInvalidHostIDError);

    device->setPairing(QStringLiteral("accept"));
    EXPECT_EQ(HLDevicePair(ref), kHLDSuccess);
    EXPECT_TRUE(HLDeviceIsPaired(ref));
    EXPECT_EQ(HLDeviceStartSession(ref), kHLDSuccess);
    EXPECT_EQ(HLDeviceStopSession(ref), kHLDSuccess);

    device->setPairing(QStringLiteral("forget"));
    EXPECT_FALSE(HLDeviceIsPaired(ref));
    EXPECT_EQ(HLDeviceStartSession(ref), kHLDInvalidHostIDError);
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);
}

TEST_F(Lockdown, PairingRecordsBelongToTheHostAndPersist) {
    const QString folder = device->folder();
    const QString identifier = device->identifier();
    ASSERT_EQ(HLDeviceConnect(ref), kHLDSuccess);
    ASSERT_EQ(HLDevicePair(ref), kHLDSuccess);
    ASSERT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);

    // The host identifier lives in the file the variable names, made on first use.
    QFile hostFile(handlink::client::hostIdFilePath());
    ASSERT_TRUE(hostFile.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(hostFile.readAll()).trimmed(), handlink::client::hostIdentifier());

    // A new emulator run and a new subscription: still paired.
    recorder.reset();
    emulator->stop();
    ASSERT_TRUE(emulator->start());
    ASSERT_TRUE(emulator->attach(folder));
    HLDeviceRef again = refFor(identifier);
    ASSERT_TRUE(again);
    ASSERT_EQ(HLDeviceConnect(again), kHLDSuccess);
    EXPECT_TRUE(HLDeviceIsPaired(again));
    EXPECT_EQ(HLDeviceStartSession(again), kHLDSuccess);
    EXPECT_EQ(HLDeviceStopSession(again), kHLDSuccess);
    EXPECT_EQ(HLDeviceDisconnect(again), kHLDSuccess);

    // Another host (another identifier file) has no record on the device.
    qputenv("HANDLINK_HOST_ID_FILE", (root() + QStringLiteral("/other-host/hostid")).toUtf8());
    ASSERT_EQ(HLDeviceConnect(again), kHLDSuccess);
    EXPECT_FALSE(HLDeviceIsPaired(again));
    EXPECT_EQ(HLDeviceStartSession(again), kHLDInvalidHostIDError);
    EXPECT_EQ(HLDeviceDisconnect(again), kHLDSuccess);
}

TEST_F(Lockdown, InjectedFaultsReachEveryOperation) {
    struct Case {
        const char* operation;
        int32_t status;
    };
    const Case cases[] = {
        {"connect", kHLDBusyError},           {"pair", kHLDCryptoError},
        {"is-paired", kHLDReadError},         {"start-session", kHLDTimeOutError},
        {"get-value", kHLDGetProhibitedError}, {"set-value", kHLDImmutableValueError},
        {"start-service", kHLDMissingServiceError}, {"stop-session", kHLDWriteError},
        {"disconnect", kHLDUndefinedError},
    };
    for (const Case& c : cases) device->addFault(Fault{QLatin1String(c.operation), c.status, 1, 0, QString()});

    EXPECT_EQ(HLDeviceConnect(ref), kHLDBusyError);
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDNotConnectedError);  // the failed first connect left none
    ASSERT_EQ(HLDeviceConnect(ref), kHLDSuccess);
    EXPECT_EQ(HLDevicePair(ref), kHLDCryptoError);
    EXPECT_FALSE(HLDeviceIsPaired(ref));  // struck by the is-paired fault...
    ASSERT_EQ(HLDevicePair(ref), kHLDSuccess);
    EXPECT_TRUE(HLDeviceIsPaired(ref));  // ...which struck once only
    EXPECT_EQ(HLDeviceStartSession(ref), kHLDTimeOutError);
    EXPECT_EQ(HLDeviceStopSession(ref), kHLDWriteError);  // the fault strikes before the sequence check
    ASSERT_EQ(HLDeviceStartSession(ref), kHLDSuccess);
    EXPECT_FALSE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());
    EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Lab Tamber"));
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceName"), QStringLiteral("Renamed")), kHLDImmutableValueError);
    EXPECT_EQ(device->value(QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Lab Tamber"));
    int socket = -1;
    EXPECT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.mobile.notification_proxy"), &socket, nullptr),
              kHLDMissingServiceError);
    EXPECT_EQ(socket, -1);
    ASSERT_EQ(HLDeviceStopSession(ref), kHLDSuccess);
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDUndefinedError);
    EXPECT_TRUE(HLDeviceIsPaired(ref));  // a failed disconnect leaves the connection open
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);
    EXPECT_FALSE(HLDeviceIsPaired(ref));

    // Every call was counted, struck or not.
    EXPECT_EQ(device->count(QStringLiteral("connect")), 2);
    EXPECT_EQ(device->count(QStringLiteral("pair")), 2);
    EXPECT_EQ(device->count(QStringLiteral("disconnect")), 2);
}

TEST_F(Lockdown, FaultsCountTimesAfterAndMatch) {
    openSession(ref);
    // Strike the second and third read of "DeviceName" only.
    device->addFault(Fault{QStringLiteral("get-value"), kHLDMissingValueError, 2, 1, QStringLiteral("DeviceName")});
    EXPECT_TRUE(HLDeviceCopyValue(ref, QString(), QStringLiteral("SerialNumber")).isValid());  // no match: not counted toward after
    EXPECT_TRUE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());    // the one let through
    EXPECT_FALSE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());
    EXPECT_TRUE(HLDeviceCopyValue(ref, QString(), QStringLiteral("SerialNumber")).isValid());
    EXPECT_FALSE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());
    EXPECT_TRUE(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).isValid());  // used up

    device->addFault(Fault{QStringLiteral("set-value"), kHLDBusyError, 5, 0, QString()});
    device->clearFaults();
    EXPECT_EQ(HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceName"), QStringLiteral("Again")), kHLDSuccess);
    closeSession(ref);
}

TEST_F(Lockdown, DetachDuringADelayedCallAnswersNotConnectedPromptly) {
    openSession(ref);
    device->delay(QStringLiteral("set-value"), 600000);  // far longer than the test may take
    std::atomic<HLDStatus> status{kHLDSuccess};
    std::atomic<bool> returned{false};
    std::thread worker([&] {
        status = HLDeviceSetValue(ref, QString(), QStringLiteral("DeviceName"), QStringLiteral("Late"));
        returned = true;
    });
    // Wait until the call has reached the device (it is now sleeping there), then detach.
    ASSERT_TRUE(testsupport::runUntil([&] { return device->count(QStringLiteral("set-value")) == 1; }));
    EXPECT_FALSE(returned.load());
    ASSERT_TRUE(emulator->detach(device->identifier()));
    worker.join();
    EXPECT_EQ(status.load(), kHLDNotConnectedError);
    EXPECT_EQ(device->value(QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Lab Tamber"));

    // The reference stays valid; every call that needs the device answers not-connected.
    EXPECT_EQ(HLDeviceCopyDeviceIdentifier(ref), device->identifier());
    expectGone(ref);
}

TEST_F(Lockdown, AReferenceWithoutAConnectionIsGoneOnceItsDetachIsReported) {
    const QString identifier = device->identifier();
    ASSERT_TRUE(emulator->detach(identifier));
    ASSERT_TRUE(recorder->waitForCount(2));
    ASSERT_EQ(recorder->events()[1].msg, kHLDNotificationDisconnected);
    expectGone(ref);
    EXPECT_EQ(HLDeviceCopyDeviceIdentifier(ref), identifier);
}

TEST_F(Lockdown, AfterTheDaemonWentAwayTheOldReferenceStaysGone) {
    openSession(ref);
    const QString folder = device->folder();
    const QString identifier = device->identifier();
    emulator->stop();
    ASSERT_TRUE(recorder->waitForCount(2));
    expectGone(ref);

    // A new daemon with the device (its attachment numbers start over): the reference of
    // before never reaches it, the new one does.
    emulator = std::make_unique<handlink::emu::Emulator>(socketPath());
    ASSERT_TRUE(emulator->start());
    auto again = emulator->attach(folder);
    ASSERT_TRUE(again);
    ASSERT_TRUE(recorder->waitForCount(3));
    HLDeviceRef fresh = recorder->lastAttached(identifier);
    ASSERT_NE(fresh, ref);
    expectGone(ref);
    EXPECT_EQ(again->count(QStringLiteral("connect")), 0);
    openSession(fresh);
    EXPECT_EQ(HLDeviceCopyValue(fresh, QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Lab Tamber"));
    closeSession(fresh);
}

TEST_F(Lockdown, TwoFaultsOnOneOperationEachCountTheirOwnAfter) {
    openSession(ref);
    const QString key = QStringLiteral("com.example.faults");
    // The first strikes the third call, the second the first call.
    device->addFault(Fault{QStringLiteral("set-value"), kHLDBusyError, 1, 2, QString()});
    device->addFault(Fault{QStringLiteral("set-value"), kHLDTimeOutError, 1, 0, QString()});
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("a"), 1), kHLDTimeOutError);
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("b"), 2), kHLDSuccess);
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("c"), 3), kHLDBusyError);
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("d"), 4), kHLDSuccess);

    // With matches: each fault counts only the calls it matches.
    device->addFault(Fault{QStringLiteral("set-value"), kHLDBusyError, 1, 1, QStringLiteral("x")});
    device->addFault(Fault{QStringLiteral("set-value"), kHLDTimeOutError, 2, 1, QStringLiteral("y")});
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("y"), 1), kHLDSuccess);      // y lets it through
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("x"), 1), kHLDSuccess);      // x lets it through
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("y"), 2), kHLDTimeOutError);
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("x"), 2), kHLDBusyError);
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("y"), 3), kHLDTimeOutError);
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("x"), 3), kHLDSuccess);
    EXPECT_EQ(HLDeviceSetValue(ref, key, QStringLiteral("y"), 4), kHLDSuccess);
    EXPECT_EQ(device->value(key, QStringLiteral("x")), QVariant(qint64(3)));
    EXPECT_EQ(device->value(key, QStringLiteral("y")).typeId(), QMetaType::LongLong);
    EXPECT_EQ(device->value(key, QStringLiteral("y")).toLongLong(), 4);
    closeSession(ref);
}

TEST_F(Lockdown, ThreadsSharingOneReferenceTakeTurns) {
    // Two threads share the reference: its one connection carries one request at a time, and
    // each thread's nested connect and session are counted on the device.
    openSession(ref);
    constexpr int kRounds = 40;
    auto work = [&](int which) {
        for (int i = 0; i < kRounds; ++i) {
            EXPECT_EQ(HLDeviceConnect(ref), kHLDSuccess);
            EXPECT_EQ(HLDeviceStartSession(ref), kHLDSuccess);
            const QString key = QStringLiteral("thread%1").arg(which);
            EXPECT_EQ(HLDeviceSetValue(ref, QStringLiteral("com.example.threads"), key, qint64(i)), kHLDSuccess);
            EXPECT_EQ(HLDeviceCopyValue(ref, QStringLiteral("com.example.threads"), key).toLongLong(), i);
            EXPECT_EQ(HLDeviceStopSession(ref), kHLDSuccess);
            EXPECT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);
        }
    };
    std::thread a(work, 1), b(work, 2);
    a.join();
    b.join();
    EXPECT_EQ(device->count(QStringLiteral("connect")), 1 + 2 * kRounds);
    EXPECT_EQ(device->count(QStringLiteral("set-value")), 2 * kRounds);
    EXPECT_EQ(device->count(QStringLiteral("get-value")), 2 * kRounds);
    // The outer session is still open after all of that.
    EXPECT_EQ(HLDeviceCopyValue(ref, QStringLiteral("com.example.threads"), QStringLiteral("thread1")).toLongLong(), kRounds - 1);
    closeSession(ref);
}
