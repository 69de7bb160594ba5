// Frames and property-list values on the wire.
#include <QCborArray>
#include <QCborMap>
#include <QDateTime>
#include <QSize>
#include <QTimeZone>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>

#include "WireBytes.h"
#include "handlink/HandlinkStatus.h"
#include "handlink/wire/Frame.h"
#include "handlink/wire/UniqueFd.h"
#include "handlink/wire/Values.h"
#include "platform/PropertyList.h"

using namespace handlink::wire;
using hltest::header;

namespace {

struct Pair {
    UniqueFd a, b;
    Pair() {
        int fds[2];
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        a.reset(fds[0]);
        b.reset(fds[1]);
    }
};

void sendBytes(int fd, const QByteArray& bytes) { ASSERT_TRUE(sendAll(fd, bytes.constData(), size_t(bytes.size()))); }

}  // namespace

TEST(WireFrames, RoundTripAndRawPayloadAfterAFrame) {
    Pair p;
    QCborMap map;
    map.insert(QStringLiteral("op"), QStringLiteral("read"));
    map.insert(QStringLiteral("length"), 5);
    ASSERT_TRUE(writeFrameWithPayload(p.a.get(), map, "hello", 5));
    ASSERT_TRUE(writeFrame(p.a.get(), map));

    QCborMap got;
    ASSERT_EQ(readFrame(p.b.get(), &got), ReadResult::Ok);
    EXPECT_EQ(got.value(QStringLiteral("op")).toString(), QStringLiteral("read"));
    char buffer[5];
    ASSERT_TRUE(recvAll(p.b.get(), buffer, 5));
    EXPECT_EQ(QByteArray(buffer, 5), QByteArray("hello"));
    ASSERT_EQ(readFrame(p.b.get(), &got), ReadResult::Ok);
    EXPECT_EQ(got.value(QStringLiteral("length")).toInteger(), 5);

    p.a.reset();
    EXPECT_EQ(readFrame(p.b.get(), &got), ReadResult::Closed);
}

TEST(WireFrames, EncodedLengthIsBigEndianAndLargePayloadsArriveWhole) {
    QCborMap map;
    map.insert(QStringLiteral("blob"), QByteArray(300000, 'x'));
    const QByteArray frame = encodeFrame(map);
    const uint32_t length = (uint32_t(uchar(frame[0])) << 24) | (uint32_t(uchar(frame[1])) << 16) |
                            (uint32_t(uchar(frame[2])) << 8) | uint32_t(uchar(frame[3]));
    EXPECT_EQ(length, uint32_t(frame.size() - 4));

    // Bigger than a socket buffer: the writer blocks until the reader drains it.
    Pair p;
    std::thread writer([&] { EXPECT_TRUE(writeFrame(p.a.get(), map)); });
    QCborMap got;
    EXPECT_EQ(readFrame(p.b.get(), &got), ReadResult::Ok);
    writer.join();
    EXPECT_EQ(got.value(QStringLiteral("blob")).toByteArray().size(), 300000);
}

TEST(WireFrames, BadFramesAreToldApart) {
    QCborMap got;
    {  // over 16 MiB: refused from the header alone
        Pair p;
        sendBytes(p.a.get(), header(kMaxFrameSize + 1));
        EXPECT_EQ(readFrame(p.b.get(), &got), ReadResult::TooLarge);
    }
    {  // the stream ends inside the payload
        Pair p;
        sendBytes(p.a.get(), header(10) + QByteArray("abc"));
        p.a.reset();
        EXPECT_EQ(readFrame(p.b.get(), &got), ReadResult::Truncated);
    }
    {  // the stream ends inside the header
        Pair p;
        sendBytes(p.a.get(), QByteArray("\0\0", 2));
        p.a.reset();
        EXPECT_EQ(readFrame(p.b.get(), &got), ReadResult::Truncated);
    }
    {  // not CBOR
        Pair p;
        sendBytes(p.a.get(), header(3) + QByteArray("\xff\xff\xff"));
        EXPECT_EQ(readFrame(p.b.get(), &got), ReadResult::NotCbor);
    }
    {  // a map with bytes after it
        Pair p;
        const QByteArray payload = QCborValue(QCborMap()).toCbor() + QByteArray("\x01");
        sendBytes(p.a.get(), header(uint32_t(payload.size())) + payload);
        EXPECT_EQ(readFrame(p.b.get(), &got), ReadResult::NotCbor);
    }
    {  // CBOR, but an array
        Pair p;
        const QByteArray payload = QCborValue(QCborArray{1, 2}).toCbor();
        sendBytes(p.a.get(), header(uint32_t(payload.size())) + payload);
        EXPECT_EQ(readFrame(p.b.get(), &got), ReadResult::NotMap);
    }
}

TEST(WireFrames, WritingToAClosedPeerFailsWithoutSigpipe) {
    Pair p;
    p.b.reset();
    QCborMap map;
    map.insert(QStringLiteral("op"), QStringLiteral("x"));
    // Without MSG_NOSIGNAL this would kill the test binary.
    EXPECT_FALSE(writeFrame(p.a.get(), map));
    EXPECT_FALSE(writeFrameWithPayload(p.a.get(), map, "abc", 3));
    QCborMap answer;
    EXPECT_FALSE(exchange(p.a.get(), map, &answer));
}

TEST(WireFrames, FrameBufferAssemblesFramesFromPieces) {
    QCborMap one, two;
    one.insert(QStringLiteral("n"), 1);
    two.insert(QStringLiteral("n"), 2);
    const QByteArray bytes = encodeFrame(one) + encodeFrame(two);
    FrameBuffer buffer;
    QCborMap got;
    buffer.append(bytes.constData(), 3);
    EXPECT_EQ(buffer.next(&got), ReadResult::Closed);  // nothing complete yet
    buffer.append(bytes.constData() + 3, size_t(bytes.size() - 3));
    ASSERT_EQ(buffer.next(&got), ReadResult::Ok);
    EXPECT_EQ(got.value(QStringLiteral("n")).toInteger(), 1);
    ASSERT_EQ(buffer.next(&got), ReadResult::Ok);
    EXPECT_EQ(got.value(QStringLiteral("n")).toInteger(), 2);
    EXPECT_TRUE(buffer.empty());

    FrameBuffer bad;
    const QByteArray huge = header(kMaxFrameSize + 1);
    bad.append(huge.constData(), 4);
    EXPECT_EQ(bad.next(&got), ReadResult::TooLarge);
}

TEST(WireFrames, StatusOfAnAnswer) {
    QCborMap answer;
    EXPECT_EQ(statusOf(answer), kHLDInvalidResponseError);
    answer.insert(QStringLiteral("status"), kHLDSessionInactiveError);
    EXPECT_EQ(statusOf(answer), kHLDSessionInactiveError);
    answer.insert(QStringLiteral("status"), QStringLiteral("0"));
    EXPECT_EQ(statusOf(answer), kHLDInvalidResponseError);
    // Statuses travel as signed 32-bit integers: the unsigned form of a device-layer code is none.
    answer.insert(QStringLiteral("status"), qint64(0xE800000Bu));
    EXPECT_EQ(statusOf(answer), kHLDInvalidResponseError);
}

TEST(WireValues, EveryPropertyListTypeKeepsItsType) {
    const QDateTime date(QDate(2021, 3, 4), QTime(5, 6, 7), QTimeZone::utc());
    QVariantMap inner;
    inner.insert(QStringLiteral("flag"), true);
    inner.insert(QStringLiteral("list"), QVariantList{qint64(1), QStringLiteral("two"), 3.5});
    const QList<QVariant> values = {QStringLiteral("text é"), QVariant::fromValue<qint64>(5000000000LL),
                                    QVariant::fromValue<qint64>(-7), 2.25, false, date,
                                    QByteArray("\x00\x01\xff", 3), QVariantList{}, QVariant(inner)};
    for (const QVariant& value : values) {
        const QVariant back = fromCbor(QCborValue::fromCbor(toCbor(value).toCbor()));
        EXPECT_EQ(back.typeId(), value.typeId()) << value.typeName();
        EXPECT_EQ(back, value) << value.typeName();
    }
    // Plain int and float arrive as the property-list integer and real.
    EXPECT_EQ(fromCbor(toCbor(42)).typeId(), QMetaType::LongLong);
    EXPECT_EQ(fromCbor(toCbor(1.5f)).typeId(), QMetaType::Double);
    // An ordered dictionary keeps its order on the wire.
    platform::OrderedDict ordered;
    ordered.insert(QStringLiteral("b"), 1);
    ordered.insert(QStringLiteral("a"), 2);
    const QCborMap map = toCbor(QVariant::fromValue(ordered)).toMap();
    ASSERT_EQ(map.size(), 2);
    EXPECT_EQ(map.begin().key().toString(), QStringLiteral("b"));
    // Nothing, and what a property list cannot hold, is "no value".
    EXPECT_FALSE(fromCbor(toCbor(QVariant())).isValid());
    EXPECT_FALSE(fromCbor(QCborValue(QCborValue::Null)).isValid());
}

TEST(WireValues, DatesTravelInUtcWithMillisecondsOnlyWhenTheyHaveThem) {
    const QDateTime whole(QDate(2021, 3, 4), QTime(5, 6, 7), QTimeZone::utc());
    QCborMap map;
    insertValue(&map, QStringLiteral("whole"), whole);
    insertValue(&map, QStringLiteral("fraction"), whole.addMSecs(250));
    insertValue(&map, QStringLiteral("offset"), whole.toOffsetFromUtc(7200));
    const QByteArray frame = encodeFrame(map);
    EXPECT_TRUE(frame.contains("2021-03-04T05:06:07Z"));
    EXPECT_TRUE(frame.contains("2021-03-04T05:06:07.250Z"));
    EXPECT_FALSE(frame.contains(".000"));
    QCborMap back;
    ASSERT_EQ(decodePayload(frame.mid(4), &back), ReadResult::Ok);
    EXPECT_EQ(valueField(back, QStringLiteral("whole")), QVariant(whole));
    EXPECT_EQ(valueField(back, QStringLiteral("fraction")), QVariant(whole.addMSecs(250)));
    EXPECT_EQ(valueField(back, QStringLiteral("offset")).toDateTime().timeSpec(), Qt::UTC);
    // A text with an offset is read in UTC; one without its zone is no date at all.
    EXPECT_EQ(fromCbor(QCborValue(QCborKnownTags::DateTimeString, QStringLiteral("2021-03-04T07:06:07+02:00"))), QVariant(whole));
    EXPECT_FALSE(fromCbor(QCborValue(QCborKnownTags::DateTimeString, QStringLiteral("2021-03-04T05:06:07"))).isValid());
}

TEST(WireValues, NoValueIsTheAbsenceOfTheField) {
    QCborMap map;
    insertValue(&map, QStringLiteral("value"), QVariant());
    EXPECT_FALSE(map.contains(QStringLiteral("value")));
    insertValue(&map, QStringLiteral("value"), QVariant::fromValue(QSize(1, 2)));  // not a property-list type
    EXPECT_FALSE(map.contains(QStringLiteral("value")));
    EXPECT_TRUE(map.isEmpty());
    EXPECT_FALSE(valueField(map, QStringLiteral("value")).isValid());

    // Falsy values are values all the same.
    for (const QVariant& value : {QVariant(false), QVariant(qint64(0)), QVariant(QString(QLatin1String(""))),
                                  QVariant(QByteArray("")), QVariant(QVariantList())}) {
        QCborMap with;
        insertValue(&with, QStringLiteral("value"), value);
        ASSERT_TRUE(with.contains(QStringLiteral("value"))) << value.typeName();
        const QVariant back = valueField(QCborValue::fromCbor(QCborValue(with).toCbor()).toMap(), QStringLiteral("value"));
        EXPECT_EQ(back.typeId(), value.typeId() == QMetaType::Int ? QMetaType::LongLong : value.typeId()) << value.typeName();
    }
}

TEST(WireFd, UniqueFdClosesOnceAndMoves) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    UniqueFd a(fds[0]);
    UniqueFd b(std::move(a));
    EXPECT_FALSE(a.valid());
    EXPECT_EQ(b.get(), fds[0]);
    UniqueFd c;
    c = std::move(b);
    EXPECT_EQ(c.get(), fds[0]);
    c.reset();
    // fds[0] is closed: writing to its peer fails.
    EXPECT_EQ(::send(fds[1], "x", 1, MSG_NOSIGNAL), -1);
    ::close(fds[1]);
}
