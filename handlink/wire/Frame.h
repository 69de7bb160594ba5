#pragma once
// Frames of the Handlink wire protocol (docs/protocol.md): a 4-byte big-endian length, then
// that many bytes holding exactly one CBOR map. A frame may be followed by raw bytes when the
// map says so (file reads), read with recvAll().
//
// All functions work on blocking stream sockets, retry on EINTR, and never raise SIGPIPE
// (sends use MSG_NOSIGNAL; on a descriptor that is not a socket they fall back to write()).
// They are thread-agnostic: callers serialise the use of one descriptor themselves.
#include <QByteArray>
#include <QCborMap>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace handlink::wire {

// Largest payload a peer may announce. A larger length is refused before anything is read.
constexpr uint32_t kMaxFrameSize = 16u * 1024u * 1024u;

enum class ReadResult {
    Ok,         // *out holds the map
    Closed,     // the peer closed the connection cleanly before a new frame
    Truncated,  // the connection ended inside a frame
    TooLarge,   // the announced length exceeds kMaxFrameSize (payload not read)
    NotCbor,    // the payload is not one well-formed CBOR item (or has bytes after it)
    NotMap,     // the payload is CBOR but not a map
    IoError,    // a read failed (errno is kept)
};
const char* describe(ReadResult result);

// Sends all bytes; false when the connection is broken (EPIPE, ECONNRESET, shut down, …).
bool sendAll(int fd, const void* data, size_t length);
// Reads exactly length bytes. False on end of stream or error; *cleanEof (if given) is true
// when the stream ended before the first byte.
bool recvAll(int fd, void* data, size_t length, bool* cleanEof = nullptr);
// Sends length bytes of fileFd starting at offset straight into the socket (sendfile), so a
// file read needs no copy through user space. False on any failure or short file.
bool sendFileRange(int socketFd, int fileFd, off_t offset, size_t length);

// Header and payload of one frame. Dates are written in UTC with whole seconds
// ("2023-05-14T10:15:00Z"), and with milliseconds only when they have a fraction.
QByteArray encodeFrame(const QCborMap& map);
// Decodes a payload (without its header): Ok, NotCbor or NotMap.
ReadResult decodePayload(const QByteArray& payload, QCborMap* out);

// True when fd is an open stream socket. The library checks descriptors that callers hand in
// (service sockets) with it, so a closed or foreign descriptor (0 after a close, a terminal, a
// file) is refused instead of written to.
bool isStreamSocket(int fd);

bool writeFrame(int fd, const QCborMap& map);
// A frame followed at once by raw bytes, in one system call where the kernel allows. The map
// is expected to announce the byte count (docs/protocol.md uses "length").
bool writeFrameWithPayload(int fd, const QCborMap& map, const void* payload, size_t length);
ReadResult readFrame(int fd, QCborMap* out);

// One request and its answer on a connection. False when the request could not be sent or
// no well-formed answer came back (the connection is then unusable).
bool exchange(int fd, const QCborMap& request, QCborMap* response);

// Incremental frame parser for readers on non-blocking descriptors (event listeners).
class FrameBuffer {
public:
    void append(const char* data, size_t length);
    // Ok with the next complete frame; Closed when no complete frame is buffered yet (a
    // partial one may be); TooLarge, NotCbor, NotMap when the stream is bad.
    ReadResult next(QCborMap* out);
    bool empty() const { return _data.isEmpty(); }

private:
    QByteArray _data;
};

// The "status" of an answer; kHLDInvalidResponseError when it is missing or not a signed 32-bit
// integer.
int32_t statusOf(const QCborMap& answer);

}  // namespace handlink::wire
