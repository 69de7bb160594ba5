// QFCConnectionOpen/QFCConnectionClose and the request helpers of the conduit client.
#include "handlink/client/QfcConnection.h"

#include <QCborArray>
#include <QCborValue>
#include <sys/socket.h>

#include "handlink/wire/Frame.h"

namespace handlink::client::qfc {

std::optional<std::string> normalisedPath(std::string_view path) {
    std::string out;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        const std::string_view part = path.substr(start, end - start);
        if (part == "..") return std::nullopt;
        if (!part.empty() && part != ".") {
            if (!out.empty()) out += '/';
            out += part;
        }
        start = end + 1;
    }
    return out;
}

bool decodeInfo(const QCborValue& value, Info* out) {
    const QCborArray info = value.toArray();
    if (!value.isArray() || info.size() < 6) return false;
    for (int i = 0; i < 5; ++i)
        if (!info.at(i).isInteger()) return false;
    out->size = static_cast<uint64_t>(info.at(0).toInteger());
    out->blocks = static_cast<uint64_t>(info.at(1).toInteger());
    out->nlink = static_cast<uint64_t>(info.at(2).toInteger());
    out->mode = static_cast<uint32_t>(info.at(3).toInteger());
    out->mtimeNs = info.at(4).toInteger();
    if (info.at(5).isInteger())
        out->btimeNs = info.at(5).toInteger();
    else
        out->btimeNs.reset();
    return true;
}

bool decodeBatch(const QCborMap& answer, Directory* directory) {
    const QCborValue entriesValue = answer.value(QStringLiteral("entries"));
    if (!entriesValue.isArray()) return false;
    const QCborArray entries = entriesValue.toArray();
    directory->batch.clear();
    directory->batch.reserve(static_cast<size_t>(entries.size()));
    directory->next = 0;
    directory->sortedFrom = 0;
    for (const QCborValue& value : entries) {
        const QCborArray pair = value.toArray();
        if (pair.size() < 2 || !pair.at(0).isByteArray()) return false;
        const QByteArray name = pair.at(0).toByteArray();
        Entry entry;
        entry.name.assign(name.constData(), static_cast<size_t>(name.size()));
        if (!pair.at(1).isNull()) {
            Info info;
            if (!decodeInfo(pair.at(1), &info)) return false;
            entry.info = info;
        }
        if (directory->sortedFrom == directory->batch.size() && (entry.name == "." || entry.name == ".."))
            ++directory->sortedFrom;
        directory->batch.push_back(std::move(entry));
    }
    directory->end = answer.value(QStringLiteral("end")).toBool();
    directory->error = static_cast<HLDStatus>(answer.value(QStringLiteral("error")).toInteger(0));
    return true;
}

}  // namespace handlink::client::qfc

HLDStatus QFCConnection::send(const QCborMap& request) {
    if (broken) return kQFCNotConnectedError;
    if (!handlink::wire::writeFrame(fd, request)) {
        broken = true;
        return kQFCNotConnectedError;
    }
    return kQFCSuccess;
}

HLDStatus QFCConnection::receive(QCborMap* answer) {
    if (broken) return kQFCNotConnectedError;
    if (handlink::wire::readFrame(fd, answer) != handlink::wire::ReadResult::Ok) {
        broken = true;
        return kQFCNotConnectedError;
    }
    return handlink::wire::statusOf(*answer);
}

HLDStatus QFCConnection::roundTrip(const QCborMap& request, QCborMap* answer) {
    if (HLDStatus status = send(request)) return status;
    return receive(answer);
}

HLDStatus QFCConnectionOpen(int socket, uint32_t options, QFCConnectionRef* outConnection) {
    (void)options;
    if (!outConnection) return kQFCInvalidArgumentError;
    *outConnection = nullptr;
    if (!handlink::wire::isStreamSocket(socket)) return kQFCInvalidArgumentError;
    auto* connection = new QFCConnection(socket);
    QCborMap request, answer;
    request.insert(QStringLiteral("op"), QStringLiteral("connect"));
    HLDStatus status;
    {
        std::lock_guard lock(connection->mutex);
        status = connection->roundTrip(request, &answer);
    }
    if (status != kQFCSuccess) {
        delete connection;
        return status;
    }
    *outConnection = connection;
    return kQFCSuccess;
}

HLDStatus QFCConnectionClose(QFCConnectionRef connection) {
    if (!connection) return kQFCInvalidArgumentError;
    QCborMap request, answer;
    request.insert(QStringLiteral("op"), QStringLiteral("disconnect"));
    HLDStatus status;
    {
        std::lock_guard lock(connection->mutex);
        status = connection->roundTrip(request, &answer);
    }
    delete connection;
    return status;
}
