#pragma once
// The client side of a file-conduit connection (docs/protocol.md, "File conduit"): the
// wrapper behind QFCConnectionRef, its open directories with their current batches, and the
// one request/answer helper every QFC call goes through.
//
// A batch's names and file information are used without asking the device only while no
// qfc-dir-read (names) or qfc-info (information) fault or delay has been armed on the device
// since the batch was asked for. The device says so through its arming page, a shared page of
// two counters it hands over with the answer to "connect" and bumps when such a fault or delay
// is armed; each batch remembers the counts read just before it was asked for.
//
// Thread-safety: `mutex` serialises each request with its answer and guards the directory
// table, so threads may share a connection. Key/value iterators belong to their caller. The
// arming page is read with atomic loads.
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

// What the arming page counted when a batch was asked for.
struct ArmingCounts {
    uint64_t info = 0;
    uint64_t directoryReads = 0;
};

struct Directory {
    std::string key;            // the folder's normalised path
    std::vector<Entry> batch;   // the current batch: "." and ".." first in the first one, then byte order
    size_t next = 0;            // the next entry QFCDirectoryRead hands out
    size_t sortedFrom = 0;      // where the byte-ordered names of the batch begin
    bool end = false;           // the device has no more names
    HLDStatus error = 0;        // the listing broke off with this status after the batch
    std::string current;        // the name handed out last (valid until the next read)
    ArmingCounts counts;        // the arming page when the batch was asked for
    int64_t unreported = 0;     // QFCDirectoryRead calls answered here, not yet told to the device
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
    ~QFCConnection();
    QFCConnection(const QFCConnection&) = delete;
    QFCConnection& operator=(const QFCConnection&) = delete;
    const int fd;               // the service descriptor; the caller closes it
    std::mutex mutex;           // serialises requests; guards everything below
    bool broken = false;        // the connection failed: every call answers not-connected
    std::map<uint64_t, handlink::client::qfc::Directory> directories;
    uint64_t* arming = nullptr; // the device's arming page (read only), when it sent one

    // The arming page now. Without a page every call counts as armed anew, so nothing of a
    // batch is used without asking the device.
    handlink::client::qfc::ArmingCounts armingCounts();
    // True while nothing was armed since the batch of directory was asked for.
    bool namesUsable(const handlink::client::qfc::Directory& directory);
    bool informationUsable(const handlink::client::qfc::Directory& directory);
    // Forgets the file information of every batch held (this connection changed the media
    // area: removed or created something).
    void dropBatchInformation();
    // The directory reads answered here and not yet reported, of every directory (for the
    // disconnect); resets them.
    int64_t takeUnreportedReads();

    // Sends request and reads its answer (mutex held). kQFCNotConnectedError when the
    // connection is or becomes unusable; otherwise the answer's status (0 on success).
    HLDStatus roundTrip(const QCborMap& request, QCborMap* answer);
    // The same, leaving the raw bytes that follow the answer to the caller (mutex held).
    HLDStatus send(const QCborMap& request);
    HLDStatus receive(QCborMap* answer);
    // The answer to "connect", which may bring the arming page's descriptor along.
    HLDStatus receiveConnectAnswer(QCborMap* answer);

private:
    uint64_t _unarmedCalls = 0;  // stands in for the page when there is none
};

struct QFCKeyValue {
    std::vector<std::pair<std::string, std::string>> pairs;
    size_t next = 0;
};
