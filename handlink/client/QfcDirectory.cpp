// Directory listing of the conduit client: names come in batches (the first with the open),
// each carrying its entries' file information, and are handed out one by one locally.
//
// Every QFCDirectoryRead call is one qfc-dir-read of the device. A call that needs the next
// batch is the device's call at once; calls answered from a batch are told to the device with
// the next request about that directory ("reads"). While a qfc-dir-read fault or delay armed
// after the batch came may strike, each call asks the device first ("held").
#include <QCborMap>
#include <cstring>

#include "handlink/client/QfcConnection.h"

using handlink::client::qfc::Directory;

namespace {

QCborMap directoryRequest(const char* op, QFCDirectoryRef handle) {
    QCborMap request;
    request.insert(QStringLiteral("op"), QLatin1String(op));
    request.insert(QStringLiteral("dir"), handle > 0x7fffffffu ? qint64(-1) : static_cast<qint64>(handle));
    return request;
}

// Hands the unreported reads of directory over to request.
void report(Directory& directory, QCborMap* request) {
    if (directory.unreported > 0) request->insert(QStringLiteral("reads"), static_cast<qint64>(directory.unreported));
    directory.unreported = 0;
}

// The listing broke off with status: nothing more of it is handed out.
HLDStatus breakOff(Directory& directory, HLDStatus status) {
    directory.error = status;
    directory.batch.clear();
    directory.next = 0;
    directory.sortedFrom = 0;
    return status;
}

}  // namespace

HLDStatus QFCDirectoryOpen(QFCConnectionRef connection, const char* path, QFCDirectoryRef* outDirectory) {
    if (outDirectory) *outDirectory = 0;
    if (!connection || !path || !outDirectory) return kQFCInvalidArgumentError;
    QCborMap request, answer;
    request.insert(QStringLiteral("op"), QStringLiteral("dir-open"));
    request.insert(QStringLiteral("path"), QByteArray(path, static_cast<qsizetype>(std::strlen(path))));
    request.insert(QStringLiteral("max"), handlink::client::qfc::kBatchEntries);
    std::lock_guard lock(connection->mutex);
    Directory directory;
    directory.counts = connection->armingCounts();  // before asking: see QfcConnection.h
    if (HLDStatus status = connection->roundTrip(request, &answer)) return status;
    const qint64 handle = answer.value(QStringLiteral("dir")).toInteger(-1);
    if (handle <= 0 || !handlink::client::qfc::decodeBatch(answer, &directory)) return kQFCUnknownPacketError;
    // A path the device accepted but that holds "..": no batch lookups for it.
    directory.key = handlink::client::qfc::normalisedPath(path).value_or(std::string("\0..", 3));
    connection->directories[static_cast<uint64_t>(handle)] = std::move(directory);
    *outDirectory = static_cast<QFCDirectoryRef>(handle);
    return kQFCSuccess;
}

HLDStatus QFCDirectoryRead(QFCConnectionRef connection, QFCDirectoryRef handle, const char** name) {
    if (!connection || !name) return kQFCInvalidArgumentError;
    *name = nullptr;
    std::lock_guard lock(connection->mutex);
    if (connection->broken) return kQFCNotConnectedError;
    const auto it = connection->directories.find(handle);
    QCborMap request = directoryRequest("dir-read", handle);
    if (it == connection->directories.end()) {
        QCborMap answer;  // the device answers an unknown handle (and counts the call)
        const HLDStatus status = connection->roundTrip(request, &answer);
        return status ? status : kQFCInvalidArgumentError;
    }
    Directory& directory = it->second;
    const bool held = directory.next < directory.batch.size() || directory.end || directory.error;
    if (held) {
        if (connection->namesUsable(directory)) {
            ++directory.unreported;
        } else {
            // Armed since the batch came: the device decides about this call first.
            request.insert(QStringLiteral("held"), true);
            report(directory, &request);
            QCborMap answer;
            if (HLDStatus status = connection->roundTrip(request, &answer)) return status;
            if (const HLDStatus error = static_cast<HLDStatus>(answer.value(QStringLiteral("error")).toInteger(0)))
                return breakOff(directory, error);
        }
    } else {
        // The next batch; its first name answers this call.
        request.insert(QStringLiteral("max"), handlink::client::qfc::kBatchEntries);
        report(directory, &request);
        directory.counts = connection->armingCounts();
        QCborMap answer;
        if (HLDStatus status = connection->roundTrip(request, &answer)) return status;
        if (!handlink::client::qfc::decodeBatch(answer, &directory)) return breakOff(directory, kQFCUnknownPacketError);
        if (directory.batch.empty() && !directory.end && !directory.error)
            return breakOff(directory, kQFCUnknownPacketError);  // the device must give something
    }
    if (directory.next < directory.batch.size()) {
        directory.current = directory.batch[directory.next++].name;  // a copy: the batch stays searchable
        *name = directory.current.c_str();
        return kQFCSuccess;
    }
    return directory.error;  // 0 at the end: *name stays NULL
}

HLDStatus QFCDirectoryClose(QFCConnectionRef connection, QFCDirectoryRef handle) {
    if (!connection) return kQFCInvalidArgumentError;
    QCborMap request = directoryRequest("dir-close", handle), answer;
    std::lock_guard lock(connection->mutex);
    const auto it = connection->directories.find(handle);
    if (it != connection->directories.end()) {
        report(it->second, &request);
        connection->directories.erase(it);
    }
    return connection->roundTrip(request, &answer);
}
