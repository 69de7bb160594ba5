#include "handlink/wire/Frame.h"

#include "handlink/HandlinkStatus.h"

#include <QCborArray>
#include <QCborStreamReader>
#include <QCborStreamWriter>
#include <QDateTime>
#include <QCborValue>
#include <cerrno>
#include <limits>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace handlink::wire {

namespace {

uint32_t readBigEndian(const unsigned char* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

void writeBigEndian(unsigned char* p, uint32_t value) {
    p[0] = static_cast<unsigned char>(value >> 24);
    p[1] = static_cast<unsigned char>(value >> 16);
    p[2] = static_cast<unsigned char>(value >> 8);
    p[3] = static_cast<unsigned char>(value);
}

// send() with MSG_NOSIGNAL; write() for descriptors that are not sockets (pipes in tests).
ssize_t sendSome(int fd, const void* data, size_t length) {
    ssize_t n = ::send(fd, data, length, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) n = ::write(fd, data, length);
    return n;
}

// sendmsg() of two pieces with MSG_NOSIGNAL; falls back to writev() for non-sockets.
ssize_t sendTwo(int fd, iovec* iov, int count) {
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) n = ::writev(fd, iov, count);
    return n;
}

// Sends every byte of the pieces; advances through them after short writes.
bool sendVector(int fd, iovec* iov, int count) {
    while (count > 0) {
        if (iov[0].iov_len == 0) {
            ++iov;
            --count;
            continue;
        }
        ssize_t n = sendTwo(fd, iov, count);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        size_t done = static_cast<size_t>(n);
        while (count > 0 && done >= iov[0].iov_len) {
            done -= iov[0].iov_len;
            ++iov;
            --count;
        }
        if (count > 0) {
            iov[0].iov_base = static_cast<char*>(iov[0].iov_base) + done;
            iov[0].iov_len -= done;
        }
    }
    return true;
}

}  // namespace

const char* describe(ReadResult result) {
    switch (result) {
    case ReadResult::Ok: return "ok";
    case ReadResult::Closed: return "connection closed";
    case ReadResult::Truncated: return "truncated frame";
    case ReadResult::TooLarge: return "frame larger than 16 MiB";
    case ReadResult::NotCbor: return "frame is not well-formed CBOR";
    case ReadResult::NotMap: return "frame is not a CBOR map";
    case ReadResult::IoError: return "read error";
    }
    return "unknown";
}

bool sendAll(int fd, const void* data, size_t length) {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        ssize_t n = sendSome(fd, p, length);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool recvAll(int fd, void* data, size_t length, bool* cleanEof) {
    char* p = static_cast<char*>(data);
    size_t got = 0;
    if (cleanEof) *cleanEof = false;
    while (got < length) {
        ssize_t n = ::read(fd, p + got, length - got);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) {
            if (cleanEof) *cleanEof = (got == 0);
            return false;
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

bool sendFileRange(int socketFd, int fileFd, off_t offset, size_t length) {
    while (length > 0) {
        ssize_t n = ::sendfile(socketFd, fileFd, &offset, length);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) return false;  // the file is shorter than announced
        length -= static_cast<size_t>(n);
    }
    return true;
}

namespace {

// A date as the wire carries it (tag 0): UTC, "yyyy-MM-ddTHH:mm:ssZ", with three digits of
// milliseconds before the "Z" only when the date has a fraction of a second. (Qt's own encoder
// always writes the milliseconds, so a date of whole seconds would come back with ".000".)
void writeDate(QCborStreamWriter& writer, const QDateTime& date) {
    const QDateTime utc = date.toUTC();
    writer.append(QCborKnownTags::DateTimeString);
    writer.append(utc.toString(utc.time().msec() ? QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzzZ")
                                                 : QStringLiteral("yyyy-MM-ddTHH:mm:ssZ")));
}

void writeValue(QCborStreamWriter& writer, const QCborValue& value) {
    switch (value.type()) {
    case QCborValue::Map: {
        const QCborMap map = value.toMap();
        writer.startMap(static_cast<quint64>(map.size()));
        for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
            writeValue(writer, it.key());
            writeValue(writer, it.value());
        }
        writer.endMap();
        return;
    }
    case QCborValue::Array: {
        const QCborArray array = value.toArray();
        writer.startArray(static_cast<quint64>(array.size()));
        for (const QCborValue& item : array) writeValue(writer, item);
        writer.endArray();
        return;
    }
    case QCborValue::DateTime: writeDate(writer, value.toDateTime()); return;
    default: value.toCbor(writer); return;
    }
}

}  // namespace

QByteArray encodeFrame(const QCborMap& map) {
    QByteArray payload;
    {
        QCborStreamWriter writer(&payload);
        writeValue(writer, map.toCborValue());
    }
    QByteArray frame(4, Qt::Uninitialized);
    writeBigEndian(reinterpret_cast<unsigned char*>(frame.data()), static_cast<uint32_t>(payload.size()));
    frame.append(payload);
    return frame;
}

ReadResult decodePayload(const QByteArray& payload, QCborMap* out) {
    QCborStreamReader reader(payload);
    const QCborValue value = QCborValue::fromCbor(reader);
    if (reader.lastError() != QCborError::NoError) return ReadResult::NotCbor;
    if (reader.currentOffset() != payload.size()) return ReadResult::NotCbor;
    if (!value.isMap()) return ReadResult::NotMap;
    if (out) *out = value.toMap();
    return ReadResult::Ok;
}

bool isStreamSocket(int fd) {
    int type = 0;
    socklen_t length = sizeof(type);
    return fd >= 0 && ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

bool writeFrame(int fd, const QCborMap& map) {
    const QByteArray frame = encodeFrame(map);
    return sendAll(fd, frame.constData(), static_cast<size_t>(frame.size()));
}

bool writeFrameWithPayload(int fd, const QCborMap& map, const void* payload, size_t length) {
    QByteArray frame = encodeFrame(map);
    iovec iov[2];
    iov[0].iov_base = frame.data();
    iov[0].iov_len = static_cast<size_t>(frame.size());
    iov[1].iov_base = const_cast<void*>(payload);
    iov[1].iov_len = length;
    return sendVector(fd, iov, 2);
}

ReadResult readFrame(int fd, QCborMap* out) {
    unsigned char header[4];
    bool cleanEof = false;
    errno = 0;
    if (!recvAll(fd, header, sizeof header, &cleanEof)) {
        if (cleanEof) return ReadResult::Closed;
        return errno != 0 ? ReadResult::IoError : ReadResult::Truncated;
    }
    const uint32_t length = readBigEndian(header);
    if (length > kMaxFrameSize) return ReadResult::TooLarge;
    QByteArray payload(static_cast<qsizetype>(length), Qt::Uninitialized);
    errno = 0;
    if (!recvAll(fd, payload.data(), length)) return errno != 0 ? ReadResult::IoError : ReadResult::Truncated;
    return decodePayload(payload, out);
}

bool exchange(int fd, const QCborMap& request, QCborMap* response) {
    if (!writeFrame(fd, request)) return false;
    return readFrame(fd, response) == ReadResult::Ok;
}

void FrameBuffer::append(const char* data, size_t length) {
    _data.append(data, static_cast<qsizetype>(length));
}

ReadResult FrameBuffer::next(QCborMap* out) {
    if (_data.size() < 4) return ReadResult::Closed;
    const uint32_t length = readBigEndian(reinterpret_cast<const unsigned char*>(_data.constData()));
    if (length > kMaxFrameSize) return ReadResult::TooLarge;
    if (static_cast<size_t>(_data.size()) < 4 + size_t(length)) return ReadResult::Closed;
    const QByteArray payload = _data.mid(4, static_cast<qsizetype>(length));
    _data.remove(0, 4 + static_cast<qsizetype>(length));
    return decodePayload(payload, out);
}

int32_t statusOf(const QCborMap& answer) {
    const QCborValue status = answer.value(QStringLiteral("status"));
    // A status is a signed 32-bit integer; anything else is not an answer.
    if (!status.isInteger() || status.toInteger() < std::numeric_limits<int32_t>::min() ||
        status.toInteger() > std::numeric_limits<int32_t>::max())
        return kHLDInvalidResponseError;
    return static_cast<int32_t>(status.toInteger());
}

}  // namespace handlink::wire
