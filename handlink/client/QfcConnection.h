#pragma once
// The client side of a file-conduit connection (docs/protocol.md, "File conduit"): the
// wrapper behind QFCConnectionRef, its open directories with their current batches, and the
// one request/answer helper every QFC call goes through.
//
// Thread-safety: `mutex` serialises each request with its answer and guards the directory
// table, so threads may share a connection. Key/value iterators belong to their caller.
#include <QByteArray>
#include <QCborMap>
#include <QCborValue>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "handlink/Handlink.h"

namespace handlink::client::qfc {

// File information as the device reports it (the numbers behind the key/value pairs).
struct Info {
    uint64_t size = 0;
    uint64_t blocks = 0;
    uint64_t nlink = 0;
    uint32_t mode = 0;
    int64_t mtimeNs = 0;
    std::optional<int64_t> btimeNs;
};

struct Entry {
    std::string name;
    std::optional<Info> info;  // absent when the batch came without information
};

struct Directory {
    std::string key;            // the folder's normalised path
    std::vector<Entry> batch;   // the current batch: "." and ".." first in the first one, then byte order
    size_t next = 0;            // the next entry QFCDirectoryRead hands out
    size_t sortedFrom = 0;      // where the byte-ordered names of the batch begin
    bool end = false;           // the device has no more names
    HLDStatus error = 0;        // the listing broke off with this status after the batch
    std::string current;        // the name handed out last (valid until the next read)
};

// Entries asked for per batch.
constexpr int kBatchEntries = 2048;

// "a//b/./c/" -> "a/b/c"; "" for the root; nothing for a path holding "..", which only the
// device may judge.
std::optional<std::string> normalisedPath(std::string_view path);

// Decodes an information array of the wire; false when it is malformed.
bool decodeInfo(const QCborValue& value, Info* out);
// Reads a batch ("entries", "end", "error") of a dir-open or dir-read answer into directory.
bool decodeBatch(const QCborMap& answer, Directory* directory);

}  // namespace handlink::client::qfc

struct QFCConnection {
    explicit QFCConnection(int socket) : fd(socket) {}
    const int fd;               // the service descriptor; the caller closes it
    std::mutex mutex;           // serialises requests; guards everything below
    bool broken = false;        // the connection failed: every call answers not-connected
    std::map<uint64_t, handlink::client::qfc::Directory> directories;

    // Sends request and reads its answer (mutex held). kQFCNotConnectedError when the
    // connection is or becomes unusable; otherwise the answer's status (0 on success).
    HLDStatus roundTrip(const QCborMap& request, QCborMap* answer);
    // The same, leaving the raw bytes that follow the answer to the caller (mutex held).
    HLDStatus send(const QCborMap& request);
    HLDStatus receive(QCborMap* answer);
};

struct QFCKeyValue {
    std::vector<std::pair<std::string, std::string>> pairs;
    size_t next = 0;
};
