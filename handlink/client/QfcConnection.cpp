// QFCConnectionOpen/QFCConnectionClose and the request helpers of the conduit client.
#include "handlink/client/QfcConnection.h"

#include <QCborArray>
#include <QCborValue>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

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

namespace {

constexpr size_t kArmingPageBytes = 4096;  // two 64-bit counters: qfc-info, qfc-dir-read

// Reads exactly length bytes with recvmsg, keeping a descriptor passed along (SCM_RIGHTS).
bool receiveWithDescriptor(int fd, unsigned char* data, size_t length, int* passed) {
    size_t got = 0;
    while (got < length) {
        iovec iov{data + got, length - got};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)];
        msghdr message{};
        message.msg_iov = &iov;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t n = ::recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
            const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int descriptor;
                std::memcpy(&descriptor, CMSG_DATA(header) + i * sizeof(int), sizeof descriptor);
                if (*passed < 0)
                    *passed = descriptor;
                else
                    ::close(descriptor);
            }
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

QFCConnection::~QFCConnection() {
    if (arming) ::munmap(arming, kArmingPageBytes);
}

handlink::client::qfc::ArmingCounts QFCConnection::armingCounts() {
    if (!arming) {
        ++_unarmedCalls;
        return {_unarmedCalls, _unarmedCalls};
    }
    return {std::atomic_ref<uint64_t>(arming[0]).load(), std::atomic_ref<uint64_t>(arming[1]).load()};
}

bool QFCConnection::namesUsable(const handlink::client::qfc::Directory& directory) {
    return armingCounts().directoryReads == directory.counts.directoryReads;
}

bool QFCConnection::informationUsable(const handlink::client::qfc::Directory& directory) {
    return armingCounts().info == directory.counts.info;
}

void QFCConnection::dropBatchInformation() {
    for (auto& [handle, directory] : directories)
        for (auto& entry : directory.batch) entry.info.reset();
}

int64_t QFCConnection::takeUnreportedReads() {
    int64_t total = 0;
    for (auto& [handle, directory] : directories) {
        total += directory.unreported;
        directory.unreported = 0;
    }
    return total;
}

HLDStatus QFCConnection::receiveConnectAnswer(QCborMap* answer) {
    if (broken) return kQFCNotConnectedError;
    unsigned char header[4];
    int passed = -1;
    bool ok = receiveWithDescriptor(fd, header, sizeof header, &passed);
    if (ok) {
        const uint32_t length = (uint32_t(header[0]) << 24) | (uint32_t(header[1]) << 16) | (uint32_t(header[2]) << 8) | header[3];
        QByteArray payload(static_cast<qsizetype>(std::min(length, handlink::wire::kMaxFrameSize)), Qt::Uninitialized);
        ok = length <= handlink::wire::kMaxFrameSize && handlink::wire::recvAll(fd, payload.data(), length) &&
             handlink::wire::decodePayload(payload, answer) == handlink::wire::ReadResult::Ok;
    }
    if (passed >= 0) {
        void* page = ::mmap(nullptr, kArmingPageBytes, PROT_READ, MAP_SHARED, passed, 0);
        ::close(passed);
        if (page != MAP_FAILED) {
            if (arming) ::munmap(arming, kArmingPageBytes);
            arming = static_cast<uint64_t*>(page);
        }
    }
    if (!ok) {
        broken = true;
        return kQFCNotConnectedError;
    }
    return handlink::wire::statusOf(*answer);
}

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
        status = connection->send(request);
        if (status == kQFCSuccess) status = connection->receiveConnectAnswer(&answer);
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
        if (const int64_t reads = connection->takeUnreportedReads()) request.insert(QStringLiteral("reads"), static_cast<qint64>(reads));
        status = connection->roundTrip(request, &answer);
    }
    delete connection;
    return status;
}
