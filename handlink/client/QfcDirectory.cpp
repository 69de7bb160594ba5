// Directory listing of the conduit client: names come in batches (the first with the open),
// each carrying its entries' file information, and are handed out one by one locally.
#include <QCborMap>
#include <cstring>

#include "handlink/client/QfcConnection.h"

using handlink::client::qfc::Directory;

HLDStatus QFCDirectoryOpen(QFCConnectionRef connection, const char* path, QFCDirectoryRef* outDirectory) {
    if (outDirectory) *outDirectory = 0;
    if (!connection || !path || !outDirectory) return kQFCInvalidArgumentError;
    QCborMap request, answer;
    request.insert(QStringLiteral("op"), QStringLiteral("dir-open"));
    request.insert(QStringLiteral("path"), QByteArray(path, static_cast<qsizetype>(std::strlen(path))));
    request.insert(QStringLiteral("max"), handlink::client::qfc::kBatchEntries);
    std::lock_guard lock(connection->mutex);
    if (HLDStatus status = connection->roundTrip(request, &answer)) return status;
    const qint64 handle = answer.value(QStringLiteral("dir")).toInteger(-1);
    Directory directory;
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
    QCborMap request;
    request.insert(QStringLiteral("op"), QStringLiteral("dir-read"));
    request.insert(QStringLiteral("dir"), handle > 0x7fffffffu ? qint64(-1) : static_cast<qint64>(handle));
    request.insert(QStringLiteral("max"), handlink::client::qfc::kBatchEntries);
    if (it == connection->directories.end()) {
        QCborMap answer;  // the device answers an unknown handle (and counts the call)
        const HLDStatus status = connection->roundTrip(request, &answer);
        return status ? status : kQFCInvalidArgumentError;
    }
    Directory& directory = it->second;
    while (directory.next == directory.batch.size()) {
        if (directory.error) return directory.error;
        if (directory.end) return kQFCSuccess;
        QCborMap answer;
        if (HLDStatus status = connection->roundTrip(request, &answer)) return status;
        if (!handlink::client::qfc::decodeBatch(answer, &directory)) {
            directory.error = kQFCUnknownPacketError;
            directory.batch.clear();
            directory.next = 0;
        }
    }
    directory.current = directory.batch[directory.next++].name;  // a copy: the batch stays searchable
    *name = directory.current.c_str();
    return kQFCSuccess;
}

HLDStatus QFCDirectoryClose(QFCConnectionRef connection, QFCDirectoryRef handle) {
    if (!connection) return kQFCInvalidArgumentError;
    QCborMap request, answer;
    request.insert(QStringLiteral("op"), QStringLiteral("dir-close"));
    request.insert(QStringLiteral("dir"), handle > 0x7fffffffu ? qint64(-1) : static_cast<qint64>(handle));
    std::lock_guard lock(connection->mutex);
    connection->directories.erase(handle);
    return connection->roundTrip(request, &answer);
}
