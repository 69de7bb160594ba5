// File calls of the conduit client: open, read, lock, unlock, close, remove.
#include <QCborMap>
#include <cstring>
#include <limits>

#include "handlink/client/QfcConnection.h"
#include "handlink/wire/Frame.h"

namespace {

QByteArray pathBytes(const char* path) { return QByteArray(path, static_cast<qsizetype>(std::strlen(path))); }

// References travel as CBOR integers; one that no device hands out travels as -1.
qint64 wireReference(QFCFileRef ref) {
    return ref > static_cast<QFCFileRef>(std::numeric_limits<qint64>::max()) ? -1 : static_cast<qint64>(ref);
}

QCborMap fileRequest(const char* op, QFCFileRef ref) {
    QCborMap request;
    request.insert(QStringLiteral("op"), QLatin1String(op));
    request.insert(QStringLiteral("ref"), wireReference(ref));
    return request;
}

HLDStatus simpleCall(QFCConnectionRef connection, const QCborMap& request) {
    if (!connection) return kQFCInvalidArgumentError;
    QCborMap answer;
    std::lock_guard lock(connection->mutex);
    return connection->roundTrip(request, &answer);
}

}  // namespace

HLDStatus QFCFileRefOpen(QFCConnectionRef connection, const char* path, uint64_t mode, QFCFileRef* outRef) {
    if (outRef) *outRef = kQFCInvalidFileRef;
    if (!connection || !path || !outRef) return kQFCInvalidArgumentError;
    QCborMap request, answer;
    request.insert(QStringLiteral("op"), QStringLiteral("open"));
    request.insert(QStringLiteral("path"), pathBytes(path));
    request.insert(QStringLiteral("mode"), mode > 0xffff ? qint64(-1) : static_cast<qint64>(mode));
    std::lock_guard lock(connection->mutex);
    const HLDStatus status = connection->roundTrip(request, &answer);
    if (status != kQFCSuccess) return status;
    const qint64 ref = answer.value(QStringLiteral("ref")).toInteger(-1);
    if (ref <= 0) return kQFCUnknownPacketError;
    // A file made by this open: what batches say about it (or its folder) is out of date.
    if (answer.value(QStringLiteral("created")).toBool()) connection->dropBatchInformation();
    *outRef = static_cast<QFCFileRef>(ref);
    return kQFCSuccess;
}

HLDStatus QFCFileRefRead(QFCConnectionRef connection, QFCFileRef ref, void* buffer, uint64_t* ioLength) {
    if (!connection || !ioLength || (!buffer && *ioLength > 0)) return kQFCInvalidArgumentError;
    const uint64_t capacity = *ioLength;
    *ioLength = 0;
    QCborMap request = fileRequest("read", ref);
    request.insert(QStringLiteral("length"),
                   static_cast<qint64>(std::min<uint64_t>(capacity, std::numeric_limits<qint64>::max())));
    QCborMap answer;
    std::lock_guard lock(connection->mutex);
    if (HLDStatus status = connection->roundTrip(request, &answer)) return status;
    const qint64 length = answer.value(QStringLiteral("length")).toInteger(-1);
    if (length < 0 || static_cast<uint64_t>(length) > capacity) {
        connection->broken = true;  // the stream can no longer be followed
        return kQFCOverrunError;
    }
    // The payload goes straight into the caller's buffer.
    if (length > 0 && !handlink::wire::recvAll(connection->fd, buffer, static_cast<size_t>(length))) {
        connection->broken = true;
        return kQFCNotConnectedError;
    }
    *ioLength = static_cast<uint64_t>(length);
    return kQFCSuccess;
}

HLDStatus QFCFileRefLock(QFCConnectionRef connection, QFCFileRef ref, int exclusive) {
    QCborMap request = fileRequest("lock", ref);
    request.insert(QStringLiteral("exclusive"), exclusive != 0);
    return simpleCall(connection, request);
}

HLDStatus QFCFileRefUnlock(QFCConnectionRef connection, QFCFileRef ref) {
    return simpleCall(connection, fileRequest("unlock", ref));
}

HLDStatus QFCFileRefClose(QFCConnectionRef connection, QFCFileRef ref) {
    return simpleCall(connection, fileRequest("close", ref));
}

HLDStatus QFCRemovePath(QFCConnectionRef connection, const char* path) {
    if (!connection || !path) return kQFCInvalidArgumentError;
    QCborMap request, answer;
    request.insert(QStringLiteral("op"), QStringLiteral("remove"));
    request.insert(QStringLiteral("path"), pathBytes(path));
    std::lock_guard lock(connection->mutex);
    const HLDStatus status = connection->roundTrip(request, &answer);
    // Removed here: no batch may describe it (or its folder as it was) any more. Every batch
    // forgets its information, as a path reached through a link names an entry under another
    // folder's name too.
    if (status == kQFCSuccess) connection->dropBatchInformation();
    return status;
}
