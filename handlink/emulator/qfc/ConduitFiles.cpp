// File requests of the conduit: open, read, lock, unlock, close, remove, info.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/qfc/ConduitCodec.h"
#include "handlink/emulator/qfc/ConduitSession.h"
#include "handlink/emulator/qfc/MediaPath.h"
#include "handlink/wire/Frame.h"

namespace handlink::emu::qfc {

namespace {

constexpr int64_t kMaxReference = 0x7fffffff;
constexpr uint64_t kMaxReadLength = 8u * 1024u * 1024u;
constexpr uint64_t kModeReadOnly = 1;
constexpr uint64_t kModeReadWriteCreate = 2;

// Sends length bytes of the file from offset; when the file turns out shorter (it shrank since
// the length was announced) the rest is zeros, so the stream stays in step. False when the
// connection broke.
bool sendFileBytes(int socket, int file, uint64_t offset, size_t length) {
    off_t position = static_cast<off_t>(offset);
    while (length > 0) {
        ssize_t n = ::sendfile(socket, file, &position, length);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EINVAL && errno != ENOSYS) return false;
        if (n <= 0) break;
        length -= static_cast<size_t>(n);
    }
    static const char zeros[4096] = {};
    while (length > 0) {
        const size_t chunk = std::min(length, sizeof zeros);
        if (!wire::sendAll(socket, zeros, chunk)) return false;
        length -= chunk;
    }
    return true;
}

}  // namespace

ConduitSession::Outcome ConduitSession::open(const QCborMap& request) {
    const auto done = [this](int32_t status, int64_t reference = -1) {
        QCborMap map;
        map.insert(QStringLiteral("status"), status);
        if (status == kQFCSuccess) map.insert(QStringLiteral("ref"), static_cast<qint64>(reference));
        return answer(map) ? Outcome::Continue : Outcome::End;
    };
    const uint64_t mode = static_cast<uint64_t>(request.value(QStringLiteral("mode")).toInteger(0));
    if (mode != kModeReadOnly && mode != kModeReadWriteCreate) return done(kQFCInvalidArgumentError);
    if (!_root) return done(kQFCNotFoundError);
    if (_files.size() >= kMaxOpenFiles || _nextFile > kMaxReference) return done(kQFCNoResourcesError);

    const std::string path = codec::pathOf(request);
    ResolvedPath where;
    if (HLDStatus status = resolvePath(_root.get(), path, FinalLink::Follow, &where)) return done(status);
    if (where.name.empty()) return done(kQFCIsDirectoryError);

    const int base = O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;
    int fd = mode == kModeReadWriteCreate ? ::openat(where.parent.get(), where.name.c_str(), base | O_RDWR | O_CREAT, 0644)
                                          : ::openat(where.parent.get(), where.name.c_str(), base | O_RDONLY);
    if (fd < 0 && (errno == EACCES || errno == EROFS) && mode == kModeReadWriteCreate)
        fd = ::openat(where.parent.get(), where.name.c_str(), base | O_RDONLY);  // read-only files still read
    if (fd < 0) return done(statusFromErrno(errno));
    wire::UniqueFd owned(fd);
    struct stat st;
    if (::fstat(fd, &st) != 0) return done(statusFromErrno(errno));
    if (S_ISDIR(st.st_mode)) return done(kQFCIsDirectoryError);

    const int64_t reference = _nextFile++;
    _files[reference] = OpenFile{std::move(owned), QString::fromUtf8(path.data(), static_cast<qsizetype>(path.size())), 0};
    return done(kQFCSuccess, reference);
}

ConduitSession::Outcome ConduitSession::read(const QCborMap& request) {
    OpenFile* open = file(request);
    const qint64 asked = request.value(QStringLiteral("length")).toInteger(-1);
    if (!open || asked < 0) return answerStatus(kQFCInvalidArgumentError) ? Outcome::Continue : Outcome::End;
    struct stat st;
    if (::fstat(open->fd.get(), &st) != 0) return answerStatus(statusFromErrno(errno)) ? Outcome::Continue : Outcome::End;
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    const uint64_t length = open->offset < size ? std::min({size - open->offset, static_cast<uint64_t>(asked), kMaxReadLength}) : 0;

    QCborMap map;
    map.insert(QStringLiteral("status"), kQFCSuccess);
    map.insert(QStringLiteral("length"), static_cast<qint64>(length));
    if (!wire::writeFrame(_fd, map)) return Outcome::End;
    if (!sendFileBytes(_fd, open->fd.get(), open->offset, static_cast<size_t>(length))) return Outcome::End;
    open->offset += length;
    return Outcome::Continue;
}

ConduitSession::Outcome ConduitSession::lock(const QCborMap& request) {
    OpenFile* open = file(request);
    int32_t status = kQFCInvalidArgumentError;
    if (open) {
        const int operation = request.value(QStringLiteral("exclusive")).toBool() ? LOCK_EX : LOCK_SH;
        status = ::flock(open->fd.get(), operation | LOCK_NB) == 0 ? kQFCSuccess : statusFromErrno(errno);
    }
    return answerStatus(status) ? Outcome::Continue : Outcome::End;
}

ConduitSession::Outcome ConduitSession::unlock(const QCborMap& request) {
    OpenFile* open = file(request);
    int32_t status = kQFCInvalidArgumentError;
    if (open) status = ::flock(open->fd.get(), LOCK_UN) == 0 ? kQFCSuccess : statusFromErrno(errno);
    return answerStatus(status) ? Outcome::Continue : Outcome::End;
}

ConduitSession::Outcome ConduitSession::close(const QCborMap& request) {
    const bool known = _files.erase(request.value(QStringLiteral("ref")).toInteger(-1)) > 0;
    return answerStatus(known ? kQFCSuccess : kQFCInvalidArgumentError) ? Outcome::Continue : Outcome::End;
}

ConduitSession::Outcome ConduitSession::remove(const QCborMap& request) {
    int32_t status = kQFCNotFoundError;
    ResolvedPath where;
    if (_root) status = resolvePath(_root.get(), codec::pathOf(request), FinalLink::Keep, &where);
    if (status == kQFCSuccess) {
        if (where.name.empty()) {
            status = kQFCPermissionError;  // Media/ itself
        } else if (::unlinkat(where.parent.get(), where.name.c_str(), 0) != 0) {
            if (errno == EISDIR && ::unlinkat(where.parent.get(), where.name.c_str(), AT_REMOVEDIR) == 0)
                status = kQFCSuccess;
            else
                status = statusFromErrno(errno);
        }
    }
    return answerStatus(status) ? Outcome::Continue : Outcome::End;
}

ConduitSession::Outcome ConduitSession::info(const QCborMap& request) {
    int32_t status = kQFCNotFoundError;
    ResolvedPath where;
    FileStat st;
    if (_root) status = resolvePath(_root.get(), codec::pathOf(request), FinalLink::Keep, &where);
    if (status == kQFCSuccess) {
        if (int error = stat(where.parent.get(), where.name.c_str(), &st)) status = statusFromErrno(error);
    }
    QCborMap map;
    map.insert(QStringLiteral("status"), status);
    if (status == kQFCSuccess) map.insert(QStringLiteral("info"), codec::infoArray(st));
    return answer(map) ? Outcome::Continue : Outcome::End;
}

}  // namespace handlink::emu::qfc
