// Garbage on the daemon's socket: every kind of bad frame or request gets an error status where
// one can be sent, its connection is closed, and every other connection goes on.
#include <QCborArray>
#include <QCborMap>
#include <gtest/gtest.h>
#include <limits>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "HandlinkTestbed.h"
#include "WireBytes.h"
#include "handlink/client/DaemonSocket.h"
#include "handlink/wire/Frame.h"
#include "handlink/wire/UniqueFd.h"

using namespace hltest;
using handlink::wire::ReadResult;
using handlink::wire::UniqueFd;

namespace {

QByteArray frameOf(const QByteArray& payload) { return header(uint32_t(payload.size())) + payload; }

QCborMap request(const char* op) {
    QCborMap map;
    map.insert(QStringLiteral("op"), QLatin1String(op));
    return map;
}

class BadInput : public AttachedDeviceTest {
protected:
    void SetUp() override {
        HandlinkTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(attachDevice(QStringLiteral("Sturdy")));
        openSession(ref);  // a connection that must outlive everybody else's garbage
    }

    UniqueFd connectRaw() {
        UniqueFd fd = handlink::client::connectToSocket(socketPath());
        EXPECT_TRUE(fd.valid());
        return fd;
    }

    // Sends bytes on a new connection (optionally after a first request); returns the status
    // of the daemon's answer and checks that the daemon then closed the connection.
    int32_t sendGarbage(const QByteArray& bytes, const QCborMap* first = nullptr, bool closeWriting = false) {
        UniqueFd fd = connectRaw();
        QCborMap answer;
        if (first) {
            EXPECT_TRUE(handlink::wire::exchange(fd.get(), *first, &answer));
            EXPECT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
        }
        handlink::wire::sendAll(fd.get(), bytes.constData(), size_t(bytes.size()));
        if (closeWriting) ::shutdown(fd.get(), SHUT_WR);
        if (handlink::wire::readFrame(fd.get(), &answer) != ReadResult::Ok) return kHLDSuccess - 1;
        QCborMap more;
        EXPECT_NE(handlink::wire::readFrame(fd.get(), &more), ReadResult::Ok);  // closed after the error
        return handlink::wire::statusOf(answer);
    }

    // The daemon still serves the established session and new connections.
    void expectStillServing() {
        EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Sturdy"));
        UniqueFd fd = connectRaw();
        QCborMap answer;
        ASSERT_TRUE(handlink::wire::exchange(fd.get(), request("control"), &answer));
        ASSERT_TRUE(handlink::wire::exchange(fd.get(), request("list"), &answer));
        EXPECT_EQ(answer.value(QStringLiteral("devices")).toArray().size(), 1);
    }

};

}  // namespace

TEST_F(BadInput, MalformedFramesAreAnsweredAndTheirConnectionClosed) {
    EXPECT_EQ(sendGarbage(header(handlink::wire::kMaxFrameSize + 1)), kHLDBadHeaderError);
    expectStillServing();
    EXPECT_EQ(sendGarbage(header(0xFFFFFFFFu) + QByteArray(64, 'x')), kHLDBadHeaderError);
    expectStillServing();
    EXPECT_EQ(sendGarbage(header(100) + QByteArray(10, 'x'), nullptr, true), kHLDBadHeaderError);  // truncated
    expectStillServing();
    EXPECT_EQ(sendGarbage(frameOf(QByteArray("\xff\xfe\xfd", 3))), kHLDBadHeaderError);  // not CBOR
    expectStillServing();
    EXPECT_EQ(sendGarbage(frameOf(QCborValue(QCborArray{1, 2, 3}).toCbor())), kHLDBadHeaderError);  // not a map
    expectStillServing();
    EXPECT_EQ(sendGarbage(frameOf(QCborValue(request("control")).toCbor() + "trailing")), kHLDBadHeaderError);
    expectStillServing();
    // Deeply nested CBOR does not take the daemon down either.
    EXPECT_EQ(sendGarbage(frameOf(QByteArray(100000, char(0x81)) + QByteArray(1, char(0x01)))), kHLDBadHeaderError);
    expectStillServing();
}

TEST_F(BadInput, MalformedFramesInsideEachKindOfConnection) {
    QCborMap lockdown = request("connect");
    lockdown.insert(QStringLiteral("device"), device->identifier());
    const QCborMap control = request("control");
    for (const QCborMap* first : std::vector<const QCborMap*>{&lockdown, &control}) {
        EXPECT_EQ(sendGarbage(header(handlink::wire::kMaxFrameSize + 1), first), kHLDBadHeaderError);
        EXPECT_EQ(sendGarbage(frameOf("\x83\x01"), first), kHLDBadHeaderError);  // an array cut short
        EXPECT_EQ(sendGarbage(frameOf(QCborValue(QStringLiteral("text")).toCbor()), first), kHLDBadHeaderError);
        // A frame cut short by the end of the connection.
        EXPECT_EQ(sendGarbage(header(100) + QByteArray(10, 'x'), first, true), kHLDBadHeaderError);
        EXPECT_EQ(sendGarbage(header(100).left(2), first, true), kHLDBadHeaderError);  // inside the header
        expectStillServing();
    }
    // The notification service too.
    int socket = -1;
    ASSERT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.mobile.notification_proxy"), &socket, nullptr), kHLDSuccess);
    UniqueFd service(socket);
    const QByteArray bad = frameOf(QByteArray("\xff", 1));
    handlink::wire::sendAll(service.get(), bad.constData(), size_t(bad.size()));
    QCborMap answer;
    ASSERT_EQ(handlink::wire::readFrame(service.get(), &answer), ReadResult::Ok);
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDBadHeaderError);
    EXPECT_NE(handlink::wire::readFrame(service.get(), &answer), ReadResult::Ok);
    expectStillServing();

    // A truncated frame on another notification service connection.
    ASSERT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.mobile.notification_proxy"), &socket, nullptr), kHLDSuccess);
    UniqueFd cut(socket);
    const QByteArray partial = header(100) + QByteArray(10, 'x');
    handlink::wire::sendAll(cut.get(), partial.constData(), size_t(partial.size()));
    ::shutdown(cut.get(), SHUT_WR);
    ASSERT_EQ(handlink::wire::readFrame(cut.get(), &answer), ReadResult::Ok);
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDBadHeaderError);
    EXPECT_NE(handlink::wire::readFrame(cut.get(), &answer), ReadResult::Ok);
    expectStillServing();
}

TEST_F(BadInput, WrongFirstRequestsAndUnknownOperations) {
    EXPECT_EQ(sendGarbage(frameOf(QCborValue(request("get-value")).toCbor())), kHLDUnknownPacketError);
    EXPECT_EQ(sendGarbage(frameOf(QCborValue(QCborMap()).toCbor())), kHLDUnknownPacketError);  // no op at all
    QCborMap lockdown = request("connect");
    lockdown.insert(QStringLiteral("device"), device->identifier());
    EXPECT_EQ(sendGarbage(frameOf(QCborValue(request("format-device")).toCbor()), &lockdown), kHLDUnknownPacketError);
    const QCborMap control = request("control");
    EXPECT_EQ(sendGarbage(frameOf(QCborValue(request("self-destruct")).toCbor()), &control), kHLDUnknownPacketError);
    expectStillServing();

    // An unknown operation on the notification proxy.
    int socket = -1;
    ASSERT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.mobile.notification_proxy"), &socket, nullptr), kHLDSuccess);
    UniqueFd service(socket);
    QCborMap reply;
    ASSERT_TRUE(handlink::wire::exchange(service.get(), request("explode"), &reply));
    EXPECT_EQ(handlink::wire::statusOf(reply), kHLDUnknownPacketError);
    EXPECT_TRUE(reply.value(QStringLiteral("error")).toString().contains(QStringLiteral("explode")));
    EXPECT_NE(handlink::wire::readFrame(service.get(), &reply), ReadResult::Ok);  // closed
    EXPECT_EQ(device->count(QStringLiteral("post-notification")), 0);

    // An event listener sends nothing after its first request; one that does is answered with
    // an error and closed, and is not sent events any more.
    UniqueFd listener = connectRaw();
    ASSERT_TRUE(handlink::wire::exchange(listener.get(), request("events"), &reply));
    ASSERT_EQ(handlink::wire::statusOf(reply), kHLDSuccess);
    EXPECT_EQ(reply.value(QStringLiteral("devices")).toArray().size(), 1);
    ASSERT_TRUE(handlink::wire::exchange(listener.get(), request("list"), &reply));
    EXPECT_EQ(handlink::wire::statusOf(reply), kHLDUnknownPacketError);
    EXPECT_NE(handlink::wire::readFrame(listener.get(), &reply), ReadResult::Ok);  // closed
    expectStillServing();

    // A lockdown connection to a device that is not attached.
    UniqueFd fd = connectRaw();
    QCborMap nowhere = request("connect");
    nowhere.insert(QStringLiteral("device"), QStringLiteral("no-such-device"));
    QCborMap answer;
    ASSERT_TRUE(handlink::wire::exchange(fd.get(), nowhere, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDNotConnectedError);
    // The test's own session and the connection that sent "format-device"; not the stray one.
    EXPECT_EQ(device->count(QStringLiteral("connect")), 2);
}

TEST_F(BadInput, ServiceTicketsAreOneTimeAndMustBeKnown) {
    QCborMap wrong = request("service");
    wrong.insert(QStringLiteral("ticket"), QStringLiteral("0123456789abcdef0123456789abcdef"));
    UniqueFd fd = connectRaw();
    QCborMap answer;
    ASSERT_TRUE(handlink::wire::exchange(fd.get(), wrong, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDInvalidCheckinError);
    EXPECT_NE(handlink::wire::readFrame(fd.get(), &answer), ReadResult::Ok);  // closed

    // Take a real ticket by speaking lockdown by hand, then use it twice.
    UniqueFd lockdownFd = connectRaw();
    QCborMap connect = request("connect");
    connect.insert(QStringLiteral("device"), device->identifier());
    connect.insert(QStringLiteral("host"), QStringLiteral("raw-host"));
    ASSERT_TRUE(handlink::wire::exchange(lockdownFd.get(), connect, &answer));
    ASSERT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
    ASSERT_TRUE(handlink::wire::exchange(lockdownFd.get(), request("pair"), &answer));
    ASSERT_TRUE(handlink::wire::exchange(lockdownFd.get(), request("start-session"), &answer));
    ASSERT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
    QCborMap start = request("start-service");
    start.insert(QStringLiteral("service"), QStringLiteral("com.corvid.mobile.notification_proxy"));
    ASSERT_TRUE(handlink::wire::exchange(lockdownFd.get(), start, &answer));
    ASSERT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
    QCborMap redeem = request("service");
    redeem.insert(QStringLiteral("ticket"), answer.value(QStringLiteral("ticket")));

    UniqueFd first = connectRaw();
    ASSERT_TRUE(handlink::wire::exchange(first.get(), redeem, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
    UniqueFd second = connectRaw();
    ASSERT_TRUE(handlink::wire::exchange(second.get(), redeem, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDInvalidCheckinError);
    EXPECT_NE(handlink::wire::readFrame(second.get(), &answer), ReadResult::Ok);  // closed

    // The first one works.
    QCborMap post = request("post");
    post.insert(QStringLiteral("name"), QStringLiteral("com.example.raw"));
    ASSERT_TRUE(handlink::wire::exchange(first.get(), post, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
    EXPECT_EQ(device->postCount(QStringLiteral("com.example.raw")), 1);
    expectStillServing();
}

namespace {

// Speaks lockdown by hand up to a start-service and answers the ticket's redeem request.
QCborMap takeTicket(UniqueFd& lockdownFd, const QString& identifier) {
    QCborMap connect = request("connect");
    connect.insert(QStringLiteral("device"), identifier);
    connect.insert(QStringLiteral("host"), QStringLiteral("raw-host"));
    QCborMap answer;
    EXPECT_TRUE(handlink::wire::exchange(lockdownFd.get(), connect, &answer));
    EXPECT_TRUE(handlink::wire::exchange(lockdownFd.get(), request("pair"), &answer));
    EXPECT_TRUE(handlink::wire::exchange(lockdownFd.get(), request("start-session"), &answer));
    QCborMap start = request("start-service");
    start.insert(QStringLiteral("service"), QStringLiteral("com.corvid.mobile.notification_proxy"));
    EXPECT_TRUE(handlink::wire::exchange(lockdownFd.get(), start, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
    QCborMap redeem = request("service");
    redeem.insert(QStringLiteral("ticket"), answer.value(QStringLiteral("ticket")));
    return redeem;
}

}  // namespace

TEST_F(BadInput, TicketsDoNotOutliveTheirDeviceOrTheirLifetime) {
    // A device of its own, so the fixture's device stays attached.
    auto other = attachNewDevice(QStringLiteral("Fleeting"));
    ASSERT_TRUE(other);
    UniqueFd lockdownFd = connectRaw();
    const QCborMap unused = takeTicket(lockdownFd, other->identifier());
    const QCborMap pending = takeTicket(lockdownFd, other->identifier());
    EXPECT_EQ(emulator->pendingTicketCount(), 2);
    ASSERT_TRUE(emulator->detach(other->identifier()));
    EXPECT_EQ(emulator->pendingTicketCount(), 0);  // dropped with the device
    UniqueFd late = connectRaw();
    QCborMap answer;
    ASSERT_TRUE(handlink::wire::exchange(late.get(), pending, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDInvalidCheckinError);
    EXPECT_NE(handlink::wire::readFrame(late.get(), &answer), ReadResult::Ok);

    // A ticket older than the lifetime is refused (a lifetime of 0: every ticket is too old).
    emulator->setTicketLifetime(0);
    UniqueFd ownFd = connectRaw();
    const QCborMap expired = takeTicket(ownFd, device->identifier());
    UniqueFd tooLate = connectRaw();
    ASSERT_TRUE(handlink::wire::exchange(tooLate.get(), expired, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDInvalidCheckinError);
    EXPECT_EQ(emulator->pendingTicketCount(), 0);
    // Through the library, a ticket the daemon no longer knows is a device that went away.
    int socket = 1234;
    EXPECT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.mobile.notification_proxy"), &socket, nullptr),
              kHLDNotConnectedError);
    EXPECT_EQ(socket, -1);

    // With the usual lifetime, tickets are redeemed; the ones left over are dropped by age when
    // the next is issued, not kept for ever.
    emulator->setTicketLifetime(60000);
    const QCborMap fresh = takeTicket(ownFd, device->identifier());
    EXPECT_EQ(emulator->pendingTicketCount(), 1);
    UniqueFd inTime = connectRaw();
    ASSERT_TRUE(handlink::wire::exchange(inTime.get(), fresh, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
    EXPECT_EQ(emulator->pendingTicketCount(), 0);
    expectStillServing();
}

TEST_F(BadInput, ControlNumbersOutOfRangeAreRefused) {
    UniqueFd fd = connectRaw();
    QCborMap answer;
    ASSERT_TRUE(handlink::wire::exchange(fd.get(), request("control"), &answer));
    auto send = [&](const char* op, std::initializer_list<std::pair<const char*, qint64>> numbers) {
        QCborMap message = request(op);
        message.insert(QStringLiteral("id"), device->identifier());
        message.insert(QStringLiteral("operation"), QStringLiteral("get-value"));
        message.insert(QStringLiteral("status"), qint64(kHLDBusyError));
        message.insert(QStringLiteral("milliseconds"), 1);
        for (const auto& [field, value] : numbers) message.insert(QLatin1String(field), value);
        QCborMap reply;
        EXPECT_TRUE(handlink::wire::exchange(fd.get(), message, &reply));
        return reply;
    };
    const qint64 tooLarge = qint64(std::numeric_limits<int>::max()) + 1;
    QCborMap reply = send("delay", {{"milliseconds", tooLarge}});
    EXPECT_EQ(handlink::wire::statusOf(reply), kHLDInvalidArgumentError);
    EXPECT_TRUE(reply.value(QStringLiteral("error")).toString().contains(QStringLiteral("2147483647")));
    EXPECT_EQ(handlink::wire::statusOf(send("delay", {{"milliseconds", 1}, {"times", tooLarge}})), kHLDInvalidArgumentError);
    EXPECT_EQ(handlink::wire::statusOf(send("fail", {{"times", tooLarge}})), kHLDInvalidArgumentError);
    EXPECT_EQ(handlink::wire::statusOf(send("fail", {{"after", tooLarge}})), kHLDInvalidArgumentError);
    EXPECT_EQ(handlink::wire::statusOf(send("fail", {{"after", -1}})), kHLDInvalidArgumentError);
    // Nothing was armed: reads go through at once.
    EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Sturdy"));
    // The largest numbers are taken.
    EXPECT_EQ(handlink::wire::statusOf(send("fail", {{"after", std::numeric_limits<int>::max()}})), kHLDSuccess);
    EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Sturdy"));
}

TEST_F(BadInput, PeersOfAnotherUserAreRefused) {
    emulator->setAllowedUid(::getuid() + 1);  // as if we were someone else
    UniqueFd fd = connectRaw();
    QCborMap answer;
    ASSERT_EQ(handlink::wire::readFrame(fd.get(), &answer), ReadResult::Ok);  // told before asking
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDPermissionError);
    EXPECT_NE(handlink::wire::readFrame(fd.get(), &answer), ReadResult::Ok);

    // The connection made before is not affected; a new one is refused (the refusal, or the
    // closed connection, whichever the client sees first).
    EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Sturdy"));
    EXPECT_EQ(HLDeviceStopSession(ref), kHLDSuccess);
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);
    EXPECT_NE(HLDeviceConnect(ref), kHLDSuccess);
    EXPECT_EQ(device->count(QStringLiteral("connect")), 1);

    emulator->setAllowedUid(::getuid());
    EXPECT_EQ(HLDeviceConnect(ref), kHLDSuccess);
    EXPECT_EQ(HLDeviceDisconnect(ref), kHLDSuccess);
    EXPECT_EQ(device->count(QStringLiteral("connect")), 2);
}
