#pragma once
// How the conduit sends file bytes: a read's bytes are first taken from the file (spliced into
// a pipe: page references, no copy; or read into a buffer when the pipe cannot hold them), so
// that the answer announces exactly what was read and a failed read can still answer a status;
// then the answer frame goes out and the bytes follow it (spliced on from the pipe).
//
// Splicing into a socket whose peer went away raises SIGPIPE on the sending thread (splice has
// no MSG_NOSIGNAL). The conduit's connection threads therefore block SIGPIPE while they serve
// (SigpipeBlock), which changes nothing for the rest of the process.
#include <QCborMap>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "handlink/wire/UniqueFd.h"

namespace handlink::emu::qfc {

// Blocks SIGPIPE on the calling thread while it lives; a SIGPIPE raised meanwhile is taken off
// the thread before the thread's old signal mask comes back.
class SigpipeBlock {
public:
    SigpipeBlock();
    ~SigpipeBlock();
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;
    // Takes a pending SIGPIPE off the thread (it is blocked, so it would wait there).
    static void discardPending();

private:
    sigset_t _old;
};

// One connection's sender; not thread-safe (one per connection thread).
class FileSender {
public:
    // The pipe's size when the system allows it (fs.pipe-max-size, 1 MiB by default).
    static constexpr size_t kPipeBytes = 1u << 20;

    // Takes up to length bytes of file from offset (fewer at the end of the file). Returns 0,
    // or the errno of a read that failed before any byte was taken; a read that fails after
    // some bytes keeps those (the next read meets the failure again).
    int stage(int file, uint64_t offset, size_t length);
    size_t staged() const { return _staged; }
    // Sends header, then the staged bytes. False when the connection broke.
    bool send(int socket, const QCborMap& header);
    // What a read of length bytes goes through (tests).
    bool usesPipeFor(size_t length);

private:
    bool ensurePipe();

    wire::UniqueFd _pipeRead, _pipeWrite;
    size_t _pipeCapacity = 0;
    bool _pipeTried = false;
    std::vector<char> _buffer;
    size_t _staged = 0;
    bool _inPipe = false;
};

}  // namespace handlink::emu::qfc
