// QFCFileInfoOpen and its key/value iterator. Information of an entry of an open directory is
// answered from the directory's current batch while no qfc-info fault or delay was armed since
// the batch was asked for (QfcConnection.h); any other path costs one round trip.
#include <QCborMap>
#include <algorithm>
#include <cstring>
#include <sys/stat.h>

#include "handlink/client/QfcConnection.h"

namespace {

using handlink::client::qfc::Directory;
using handlink::client::qfc::Info;

const char* typeName(uint32_t mode) {
    switch (mode & S_IFMT) {
    case S_IFIFO: return "S_IFIFO";
    case S_IFCHR: return "S_IFCHR";
    case S_IFDIR: return "S_IFDIR";
    case S_IFBLK: return "S_IFBLK";
    case S_IFREG: return "S_IFREG";
    case S_IFLNK: return "S_IFLNK";
    case S_IFSOCK: return "S_IFSOCK";
    default: return "";
    }
}

QFCKeyValue* makePairs(const Info& info) {
    auto* pairs = new QFCKeyValue;
    pairs->pairs = {
        {"st_size", std::to_string(info.size)},
        {"st_blocks", std::to_string(info.blocks)},
        {"st_nlink", std::to_string(info.nlink)},
        {"st_ifmt", typeName(info.mode)},
        {"st_mtime", std::to_string(info.mtimeNs)},
    };
    if (info.btimeNs) pairs->pairs.emplace_back("st_birthtime", std::to_string(*info.btimeNs));
    return pairs;
}

// The entry's information from a batch of an open directory, if one carries it (mutex held).
const Info* batchInfo(QFCConnection& connection, const std::string& key) {
    const size_t slash = key.rfind('/');
    const std::string folder = slash == std::string::npos ? std::string() : key.substr(0, slash);
    const std::string name = slash == std::string::npos ? key : key.substr(slash + 1);
    if (name.empty()) return nullptr;
    for (const auto& [handle, directory] : connection.directories) {
        if (directory.key != folder || !connection.informationUsable(directory)) continue;
        const auto begin = directory.batch.begin() + static_cast<ptrdiff_t>(directory.sortedFrom);
        const auto it = std::lower_bound(begin, directory.batch.end(), name,
                                         [](const auto& entry, const std::string& n) { return entry.name < n; });
        if (it != directory.batch.end() && it->name == name && it->info) return &*it->info;
    }
    return nullptr;
}

}  // namespace

HLDStatus QFCFileInfoOpen(QFCConnectionRef connection, const char* path, QFCKeyValueRef* outIterator) {
    if (outIterator) *outIterator = nullptr;
    if (!connection || !path || !outIterator) return kQFCInvalidArgumentError;
    std::lock_guard lock(connection->mutex);
    if (connection->broken) return kQFCNotConnectedError;
    if (const auto key = handlink::client::qfc::normalisedPath(path)) {
        if (const Info* info = batchInfo(*connection, *key)) {
            *outIterator = makePairs(*info);
            return kQFCSuccess;
        }
    }
    QCborMap request, answer;
    request.insert(QStringLiteral("op"), QStringLiteral("info"));
    request.insert(QStringLiteral("path"), QByteArray(path, static_cast<qsizetype>(std::strlen(path))));
    if (HLDStatus status = connection->roundTrip(request, &answer)) return status;
    Info info;
    if (!handlink::client::qfc::decodeInfo(answer.value(QStringLiteral("info")), &info)) return kQFCUnknownPacketError;
    *outIterator = makePairs(info);
    return kQFCSuccess;
}

HLDStatus QFCKeyValueRead(QFCKeyValueRef iterator, const char** key, const char** value) {
    if (!iterator || !key || !value) return kQFCInvalidArgumentError;
    if (iterator->next >= iterator->pairs.size()) {
        *key = nullptr;
        *value = nullptr;
        return kQFCSuccess;
    }
    const auto& pair = iterator->pairs[iterator->next++];
    *key = pair.first.c_str();
    *value = pair.second.c_str();
    return kQFCSuccess;
}

HLDStatus QFCKeyValueClose(QFCKeyValueRef iterator) {
    if (!iterator) return kQFCInvalidArgumentError;
    delete iterator;
    return kQFCSuccess;
}
