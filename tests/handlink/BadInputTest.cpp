// Garbage on the daemon's socket: every kind of bad frame or request gets an error status where
// one can be sent, and every other connection goes on. Each connection kind has one table of
// requests with missing or ill-typed fields and the status each must answer.
#include <QCborArray>
#include <QCborMap>
#include <QCborStreamWriter>
#include <QFile>
#include <gtest/gtest.h>
#include <limits>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "HandlinkTestbed.h"
#include "WireBytes.h"
#include "handlink/client/DaemonSocket.h"
#include "handlink/emulator/DeviceState.h"
#include "handlink/wire/Frame.h"
#include "handlink/wire/UniqueFd.h"

using namespace hltest;
using handlink::wire::ReadResult;
using handlink::wire::UniqueFd;

namespace {

const QString kProxy = QStringLiteral("com.corvid.mobile.notification_proxy");

QByteArray frameOf(const QByteArray& payload) { return header(uint32_t(payload.size())) + payload; }

using Fields = std::initializer_list<std::pair<const char*, QCborValue>>;

// A request: "op" (none when op is null) and the fields given.
QCborMap message(const char* op, Fields fields = {}) {
    QCborMap map;
    if (op) map.insert(QStringLiteral("op"), QLatin1String(op));
    for (const auto& [name, value] : fields) map.insert(QLatin1String(name), value);
    return map;
}

QCborMap request(const char* op) { return message(op); }

QByteArray framed(const QCborMap& map) { return handlink::wire::encodeFrame(map); }

// The request with `field` = 2^64 - 1 added, a number QCborValue itself cannot hold.
QByteArray framedWithHugeNumber(const QCborMap& map, const char* field) {
    QByteArray payload;
    {
        QCborStreamWriter writer(&payload);
        writer.startMap(quint64(map.size()) + 1);
        for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
            it.key().toCbor(writer);
            it.value().toCbor(writer);
        }
        writer.append(QLatin1String(field));
        writer.append(std::numeric_limits<quint64>::max());
        writer.endMap();
    }
    return frameOf(payload);
}

// One request of a table and the status its answer must carry.
struct Case {
    const char* what;
    QByteArray frame;
    int32_t status;
};

// Sends the cases in turn on one connection, which stays open for all of them.
void expectAnswers(int fd, const std::vector<Case>& cases) {
    for (const Case& c : cases) {
        QCborMap answer;
        ASSERT_TRUE(handlink::wire::sendAll(fd, c.frame.constData(), size_t(c.frame.size()))) << c.what;
        ASSERT_EQ(handlink::wire::readFrame(fd, &answer), ReadResult::Ok) << c.what;
        EXPECT_EQ(handlink::wire::statusOf(answer), c.status) << c.what;
        if (c.status != 0) {
            EXPECT_FALSE(answer.value(QStringLiteral("error")).toString().isEmpty()) << c.what;
        }
    }
}

// Sends one request and expects its status, then the connection closed by the daemon.
void expectAnsweredAndClosed(int fd, const QCborMap& message, int32_t status) {
    QCborMap answer;
    ASSERT_TRUE(handlink::wire::exchange(fd, message, &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), status);
    EXPECT_NE(handlink::wire::readFrame(fd, &answer), ReadResult::Ok);
}

// Speaks lockdown by hand on a new connection up to a started session.
void startRawSession(int fd, const QString& identifier) {
    QCborMap answer;
    ASSERT_TRUE(handlink::wire::exchange(fd, message("connect", {{"device", identifier}, {"host", QStringLiteral("raw-host")}}), &answer));
    ASSERT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
    ASSERT_TRUE(handlink::wire::exchange(fd, request("pair"), &answer));
    ASSERT_TRUE(handlink::wire::exchange(fd, request("start-session"), &answer));
    ASSERT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
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

TEST_F(BadInput, FirstRequestsNameAKindAndCarryWellTypedFields) {
    const QString id = device->identifier();
    const std::vector<Case> cases = {
        {"no op", framed(QCborMap()), kHLDUnknownPacketError},
        {"an op that is not a text", framed(message(nullptr, {{"op", 7}})), kHLDUnknownPacketError},
        {"a request of a lockdown connection", framed(request("get-value")), kHLDUnknownPacketError},
        {"connect without a device", framed(message("connect", {{"host", QStringLiteral("h")}})), kHLDInvalidArgumentError},
        {"connect with a device that is an integer", framed(message("connect", {{"device", 7}})), kHLDInvalidArgumentError},
        {"connect with a negative attachment", framed(message("connect", {{"device", id}, {"attachment", -1}})),
         kHLDInvalidArgumentError},
        {"connect with an attachment that is a text", framed(message("connect", {{"device", id}, {"attachment", QStringLiteral("1")}})),
         kHLDInvalidArgumentError},
        {"connect with a host that is bytes", framed(message("connect", {{"device", id}, {"host", QByteArray("raw-host")}})),
         kHLDInvalidArgumentError},
        {"connect to a device that is not attached", framed(message("connect", {{"device", QStringLiteral("no-such-device")}})),
         kHLDNotConnectedError},
        {"service without a ticket", framed(request("service")), kHLDInvalidArgumentError},
        {"service with a ticket that is an integer", framed(message("service", {{"ticket", 12345}})), kHLDInvalidArgumentError},
        {"service with an unknown ticket", framed(message("service", {{"ticket", QStringLiteral("0123456789abcdef")}})),
         kHLDInvalidCheckinError},
    };
    for (const Case& c : cases) EXPECT_EQ(sendGarbage(c.frame), c.status) << c.what;
    EXPECT_EQ(device->count(QStringLiteral("connect")), 1);  // the fixture's own session only
    expectStillServing();
}

TEST_F(BadInput, LockdownRequestsWithMissingOrIllTypedFields) {
    UniqueFd fd = connectRaw();
    ASSERT_NO_FATAL_FAILURE(startRawSession(fd.get(), device->identifier()));
    device->resetCounters();
    const QCborValue text = QStringLiteral("x");
    expectAnswers(fd.get(), {
        {"get-value with a key that is an integer", framed(message("get-value", {{"key", 7}})), kHLDInvalidArgumentError},
        {"get-value with a domain that is an array",
         framed(message("get-value", {{"domain", QCborArray{QStringLiteral("com.corvid.mobiletamber")}}, {"key", QStringLiteral("DeviceName")}})),
         kHLDInvalidArgumentError},
        {"set-value without a key", framed(message("set-value", {{"value", text}})), kHLDInvalidArgumentError},
        {"set-value with null for a value", framed(message("set-value", {{"key", QStringLiteral("Custom")}, {"value", QCborValue(nullptr)}})),
         kHLDInvalidArgumentError},
        {"set-value with a domain that is a map",
         framed(message("set-value", {{"domain", QCborMap()}, {"key", QStringLiteral("Custom")}, {"value", text}})), kHLDInvalidArgumentError},
        {"set-value with a date text without its zone",
         // Qt's own encoder keeps the text as it is (encodeFrame would write the date in UTC).
         frameOf(message("set-value", {{"key", QStringLiteral("Custom")},
                                       {"value", QCborValue(QCborKnownTags::DateTimeString, QStringLiteral("2023-05-14T10:15:00"))}})
                     .toCborValue()
                     .toCbor()),
         kHLDInvalidArgumentError},
        {"start-service with a service that is bytes", framed(message("start-service", {{"service", QByteArray("com.corvid.qfc")}})),
         kHLDInvalidArgumentError},
        {"a well-formed get-value", framed(message("get-value", {{"key", QStringLiteral("DeviceName")}})), kHLDSuccess},
    });
    // The refused requests were no calls of the device, and changed nothing.
    EXPECT_EQ(device->count(QStringLiteral("get-value")), 1);
    EXPECT_EQ(device->count(QStringLiteral("set-value")), 0);
    EXPECT_EQ(device->count(QStringLiteral("start-service")), 0);
    EXPECT_FALSE(device->value(QString(), QStringLiteral("Custom")).isValid());
    expectAnsweredAndClosed(fd.get(), request("format-device"), kHLDUnknownPacketError);
    expectStillServing();
}

TEST_F(BadInput, ControlRequestsWithMissingOrIllTypedFieldsArmNothing) {
    UniqueFd fd = connectRaw();
    QCborMap answer;
    ASSERT_TRUE(handlink::wire::exchange(fd.get(), request("control"), &answer));
    const QString id = device->identifier();
    // A fault on get-value that would strike the read below, and a lock holder that would hold
    // a file of Media/, each with one field wrong.
    const auto fail = [&](Fields fields) {
        QCborMap map = message("fail", {{"id", id}, {"operation", QStringLiteral("get-value")}, {"status", qint64(kHLDBusyError)}});
        for (const auto& [name, value] : fields) map.insert(QLatin1String(name), value);
        return map;
    };
    const auto holdLock = [&](Fields fields) {
        QCborMap map = message("hold-lock", {{"id", id}});
        for (const auto& [name, value] : fields) map.insert(QLatin1String(name), value);
        return map;
    };
    const QCborValue lock = QStringLiteral("held.lock");
    const qint64 tooLarge = qint64(std::numeric_limits<int>::max()) + 1;
    expectAnswers(fd.get(), {
        {"fail with times 2^64 - 1", framedWithHugeNumber(fail({}), "times"), kHLDInvalidArgumentError},
        {"fail with times as a text", framed(fail({{"times", QStringLiteral("1")}})), kHLDInvalidArgumentError},
        {"fail with times above 2^31 - 1", framed(fail({{"times", tooLarge}})), kHLDInvalidArgumentError},
        {"fail with times 0", framed(fail({{"times", 0}})), kHLDInvalidArgumentError},
        {"fail with after -1", framed(fail({{"after", -1}})), kHLDInvalidArgumentError},
        {"fail with a status above the signed 32-bit range", framed(fail({{"status", qint64(0xE8000011u)}})), kHLDInvalidArgumentError},
        {"fail with a match that is bytes", framed(fail({{"match", QByteArray("DeviceName")}})), kHLDInvalidArgumentError},
        {"delay with milliseconds above 2^31 - 1",
         framed(message("delay", {{"id", id}, {"operation", QStringLiteral("get-value")}, {"milliseconds", tooLarge}})),
         kHLDInvalidArgumentError},
        {"delay with times 2^64 - 1",
         framedWithHugeNumber(message("delay", {{"id", id}, {"operation", QStringLiteral("get-value")}, {"milliseconds", 1}}), "times"),
         kHLDInvalidArgumentError},
        {"hold-lock without a path", framed(holdLock({})), kHLDInvalidArgumentError},
        {"hold-lock with a path that is bytes", framed(holdLock({{"path", QByteArray("held.lock")}})), kHLDInvalidArgumentError},
        {"hold-lock with exclusive as a text", framed(holdLock({{"path", lock}, {"exclusive", QStringLiteral("yes")}})),
         kHLDInvalidArgumentError},
        {"hold-lock yielding after 0 requests",
         framed(holdLock({{"path", lock}, {"yieldOn", QStringLiteral("com.corvid.x")}, {"afterRequests", 0}})), kHLDInvalidArgumentError},
        {"values of a domain that is an array", framed(message("values", {{"id", id}, {"domain", QCborArray()}})), kHLDInvalidArgumentError},
        {"stats without an id", framed(request("stats")), kHLDInvalidArgumentError},
        {"stats of a device that is not attached", framed(message("stats", {{"id", QStringLiteral("no-such-device")}})), kHLDNotFoundError},
        {"fail with the largest numbers",
         framed(fail({{"operation", QStringLiteral("set-value")}, {"times", std::numeric_limits<int>::max()},
                      {"after", std::numeric_limits<int>::max()}})),
         kHLDSuccess},
    });
    // Nothing was armed on get-value nor held: the read goes through, and no lock file was made.
    const auto state = std::dynamic_pointer_cast<handlink::emu::DeviceState>(device);
    ASSERT_TRUE(state);
    EXPECT_FALSE(state->faultOrDelayArmed(QStringLiteral("get-value")));
    EXPECT_TRUE(state->faultOrDelayArmed(QStringLiteral("set-value")));
    EXPECT_EQ(HLDeviceCopyValue(ref, QString(), QStringLiteral("DeviceName")).toString(), QStringLiteral("Sturdy"));
    EXPECT_FALSE(QFile::exists(device->mediaRoot() + QStringLiteral("/held.lock")));
    expectAnsweredAndClosed(fd.get(), request("self-destruct"), kHLDUnknownPacketError);
}

TEST_F(BadInput, NotificationProxyRequestsWithMissingOrIllTypedFields) {
    int socket = -1;
    ASSERT_EQ(HLDeviceStartService(ref, kProxy, &socket, nullptr), kHLDSuccess);
    UniqueFd service(socket);
    const QCborValue name = QStringLiteral("com.corvid.accepted");
    expectAnswers(service.get(), {
        {"post without a name", framed(request("post")), kHLDInvalidArgumentError},
        {"post with a name that is bytes", framed(message("post", {{"name", QByteArray("com.corvid.bytes")}})), kHLDInvalidArgumentError},
        {"post with userInfo that is an array", framed(message("post", {{"name", name}, {"userInfo", QCborArray{1}}})),
         kHLDInvalidArgumentError},
        {"a well-formed post", framed(message("post", {{"name", name}})), kHLDSuccess},
    });
    EXPECT_EQ(device->postedNotifications(), QStringList{name.toString()});
    EXPECT_EQ(device->count(QStringLiteral("post-notification")), 1);
    expectAnsweredAndClosed(service.get(), request("explode"), kHLDUnknownPacketError);
    expectStillServing();
}

TEST_F(BadInput, ConduitRequestsWithMissingOrIllTypedFields) {
    int socket = -1;
    ASSERT_EQ(HLDeviceStartService(ref, QStringLiteral("com.corvid.qfc"), &socket, nullptr), kHLDSuccess);
    UniqueFd conduit(socket);
    QCborMap answer;
    ASSERT_TRUE(handlink::wire::exchange(conduit.get(), request("connect"), &answer));
    ASSERT_EQ(handlink::wire::statusOf(answer), kQFCSuccess);
    const QCborValue root = QByteArray("");
    expectAnswers(conduit.get(), {
        {"open with a path that is a text", framed(message("open", {{"path", QStringLiteral("a.txt")}, {"mode", 2}})), kQFCInvalidArgumentError},
        {"open without a mode", framed(message("open", {{"path", QByteArray("a.txt")}})), kQFCInvalidArgumentError},
        {"read with a reference that is a text", framed(message("read", {{"ref", QStringLiteral("1")}, {"length", 10}})), kQFCInvalidArgumentError},
        {"read with a negative length", framed(message("read", {{"ref", 1}, {"length", -1}})), kQFCInvalidArgumentError},
        {"lock without exclusive", framed(message("lock", {{"ref", 1}})), kQFCInvalidArgumentError},
        {"info with a path that is an integer", framed(message("info", {{"path", 5}})), kQFCInvalidArgumentError},
        {"remove without a path", framed(request("remove")), kQFCInvalidArgumentError},
        {"dir-open with a negative max", framed(message("dir-open", {{"path", root}, {"max", -1}})), kQFCInvalidArgumentError},
        {"dir-read with a handle that is a text", framed(message("dir-read", {{"dir", QStringLiteral("1")}})), kQFCInvalidArgumentError},
        {"dir-close with reads as a text", framed(message("dir-close", {{"dir", 1}, {"reads", QStringLiteral("2")}})), kQFCInvalidArgumentError},
        {"a well-formed info", framed(message("info", {{"path", root}})), kQFCSuccess},
    });
    // None of the refused requests was a call of the device.
    for (const char* operation : {"qfc-open", "qfc-read", "qfc-lock", "qfc-remove", "qfc-dir-open", "qfc-dir-read", "qfc-dir-close"})
        EXPECT_EQ(device->count(QLatin1String(operation)), 0) << operation;
    EXPECT_EQ(device->count(QStringLiteral("qfc-info")), 1);
    expectAnsweredAndClosed(conduit.get(), request("defragment"), kQFCUnknownPacketError);
    expectStillServing();
}

TEST_F(BadInput, AnEventListenerSendsNothingAfterItsFirstRequest) {
    // One that does is answered with an error and closed, and is not sent events any more.
    UniqueFd listener = connectRaw();
    QCborMap reply;
    ASSERT_TRUE(handlink::wire::exchange(listener.get(), request("events"), &reply));
    ASSERT_EQ(handlink::wire::statusOf(reply), kHLDSuccess);
    EXPECT_EQ(reply.value(QStringLiteral("devices")).toArray().size(), 1);
    expectAnsweredAndClosed(listener.get(), request("list"), kHLDUnknownPacketError);
    expectStillServing();
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
    startRawSession(lockdownFd.get(), identifier);
    QCborMap answer;
    EXPECT_TRUE(handlink::wire::exchange(lockdownFd.get(), message("start-service", {{"service", kProxy}}), &answer));
    EXPECT_EQ(handlink::wire::statusOf(answer), kHLDSuccess);
    return message("service", {{"ticket", answer.value(QStringLiteral("ticket"))}});
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
