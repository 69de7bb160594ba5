#include "handlink/emulator/qfc/FileSending.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "handlink/wire/Frame.h"

namespace handlink::emu::qfc {

namespace {

sigset_t sigpipeSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

// A page may be split over two pipe slots at each end of an unaligned range.
constexpr size_t kSlack = 2 * 4096;

}  // namespace

SigpipeBlock::SigpipeBlock() {
    const sigset_t set = sigpipeSet();
    pthread_sigmask(SIG_BLOCK, &set, &_old);
}

SigpipeBlock::~SigpipeBlock() {
    discardPending();
    pthread_sigmask(SIG_SETMASK, &_old, nullptr);
}

void SigpipeBlock::discardPending() {
    sigset_t pending;
    if (sigpending(&pending) != 0 || sigismember(&pending, SIGPIPE) != 1) return;
    const sigset_t set = sigpipeSet();
    const timespec now{0, 0};
    while (sigtimedwait(&set, nullptr, &now) < 0 && errno == EINTR) {
    }
}

bool FileSender::ensurePipe() {
    if (_pipeTried) return _pipeCapacity > 0;
    _pipeTried = true;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    _pipeRead.reset(fds[0]);
    _pipeWrite.reset(fds[1]);
    // Best effort: past the user's pipe quota the pipe stays small and larger reads go
    // through the buffer.
    ::fcntl(_pipeWrite.get(), F_SETPIPE_SZ, static_cast<int>(kPipeBytes));
    const int capacity = ::fcntl(_pipeWrite.get(), F_GETPIPE_SZ);
    _pipeCapacity = capacity > 0 ? static_cast<size_t>(capacity) : 0;
    return _pipeCapacity > 0;
}

bool FileSender::usesPipeFor(size_t length) { return ensurePipe() && length + kSlack <= _pipeCapacity; }

int FileSender::stage(int file, uint64_t offset, size_t length) {
    _staged = 0;
    _inPipe = length > 0 && usesPipeFor(length);
    if (_inPipe) {
        loff_t position = static_cast<loff_t>(offset);
        while (_staged < length) {
            // Non-blocking on the pipe side: the pipe is ours and empty, so "full" can only mean
            // an odd split of pages; the answer is then shorter, never stuck.
            const ssize_t n = ::splice(file, &position, _pipeWrite.get(), nullptr, length - _staged,
                                       SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && errno == EAGAIN && _staged > 0) break;
            if (n < 0) return _staged > 0 ? 0 : errno;
            if (n == 0) break;  // the end of the file (it may have shrunk)
            _staged += static_cast<size_t>(n);
        }
        return 0;
    }
    _buffer.resize(length);
    while (_staged < length) {
        const ssize_t n = ::pread(file, _buffer.data() + _staged, length - _staged, static_cast<off_t>(offset + _staged));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return _staged > 0 ? 0 : errno;
        if (n == 0) break;
        _staged += static_cast<size_t>(n);
    }
    return 0;
}

bool FileSender::send(int socket, const QCborMap& header) {
    const size_t length = _staged;
    _staged = 0;
    if (!_inPipe) return wire::writeFrameWithPayload(socket, header, _buffer.data(), length);
    if (!wire::writeFrame(socket, header)) {
        _pipeRead.reset();
        _pipeWrite.reset();
        _pipeCapacity = 0;
        return false;
    }
    size_t left = length;
    while (left > 0) {
        const ssize_t n = ::splice(_pipeRead.get(), nullptr, socket, nullptr, left, SPLICE_F_MOVE);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            SigpipeBlock::discardPending();
            // The connection ends; what is left in the pipe must never reach another answer.
            _pipeRead.reset();
            _pipeWrite.reset();
            _pipeCapacity = 0;
            return false;
        }
        left -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace handlink::emu::qfc
