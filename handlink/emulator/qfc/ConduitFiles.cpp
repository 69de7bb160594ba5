// File requests of the conduit: open, read, lock, unlock, close, remove, info.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/qfc/ConduitCodec.h"
#include "handlink/emulator/qfc/ConduitSession.h"
#include "handlink/emulator/qfc/MediaPath.h"

namespace handlink::emu::qfc {

namespace {

constexpr int64_t kMaxReference = 0x7fffffff;
constexpr uint64_t kMaxReadLength = 8u * 1024u * 1024u;
constexpr uint64_t kModeReadOnly = 1;
constexpr uint64_t kModeReadWriteCreate = 2;

}  // namespace

ConduitSession::Outcome ConduitSession::open(const QCborMap& request) {
    const auto done = [this](int32_t status, int64_t reference = -1, bool created = false) {
        QCborMap map;
        map.insert(QStringLiteral("status"), status);
        if (status == kQFCSuccess) map.insert(QStringLiteral("ref"), static_cast<qint64>(reference));
        if (created) map.insert(QStringLiteral("created"), true);
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

    // O_NONBLOCK: opening a FIFO (or a device) must not wait for its other end; such files
    // are refused below, and regular files get blocking reads back.
    const int dir = where.parent.get();
    const char* name = where.name.c_str();
    const int base = O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    bool created = false;
    int fd = -1;
    if (mode == kModeReadWriteCreate) {
        fd = ::openat(dir, name, base | O_RDWR | O_CREAT | O_EXCL, 0644);
        created = fd >= 0;
        if (fd < 0 && errno == EEXIST) fd = ::openat(dir, name, base | O_RDWR);
        if (fd < 0 && (errno == EACCES || errno == EROFS))
            fd = ::openat(dir, name, base | O_RDONLY);  // read-only files still read
    } else {
        fd = ::openat(dir, name, base | O_RDONLY);
    }
    if (fd < 0) return done(statusFromErrno(errno));
    wire::UniqueFd owned(fd);
    struct stat st;
    if (::fstat(fd, &st) != 0) return done(statusFromErrno(errno));
    if (S_ISDIR(st.st_mode)) return done(kQFCIsDirectoryError);
    if (!S_ISREG(st.st_mode)) return done(kQFCPermissionError);  // the conduit serves files only
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) return done(statusFromErrno(errno));

    const int64_t reference = _nextFile++;
    _files[reference] = OpenFile{std::move(owned), QString::fromUtf8(path.data(), static_cast<qsizetype>(path.size())), 0, 0};
    return done(kQFCSuccess, reference, created);
}

// The bytes are taken from the file before the answer is sent, so the answer says exactly how
// many follow (fewer at the end of a file that shrank meanwhile), and a failed read of the
// file answers kQFCReadError instead of a length.
ConduitSession::Outcome ConduitSession::read(const QCborMap& request) {
    OpenFile* open = file(request);
    const qint64 asked = request.value(QStringLiteral("length")).toInteger();  // at least 0 (the table)
    if (!open) return answerStatus(kQFCInvalidArgumentError) ? Outcome::Continue : Outcome::End;
    const size_t length = static_cast<size_t>(std::min(static_cast<uint64_t>(asked), kMaxReadLength));
    if (_sender.stage(open->fd.get(), open->offset, length) != 0)
        return answerStatus(kQFCReadError) ? Outcome::Continue : Outcome::End;
    const size_t staged = _sender.staged();
    QCborMap map;
    map.insert(QStringLiteral("status"), kQFCSuccess);
    map.insert(QStringLiteral("length"), static_cast<qint64>(staged));
    if (!_sender.send(_fd, map)) return Outcome::End;
    open->offset += staged;
    return Outcome::Continue;
}

// Linux converts a flock lock by dropping the old one first: a shared lock that fails to
// become exclusive is gone. It is taken again at once (without waiting), so the failed
// conversion leaves the reference as it was; only when another process took the lock in that
// moment does the reference end up holding none (docs/protocol.md).
ConduitSession::Outcome ConduitSession::lock(const QCborMap& request) {
    OpenFile* open = file(request);
    int32_t status = kQFCInvalidArgumentError;
    if (open) {
        const int operation = request.value(QStringLiteral("exclusive")).toBool() ? LOCK_EX : LOCK_SH;
        if (::flock(open->fd.get(), operation | LOCK_NB) == 0) {
            open->lock = operation;
            status = kQFCSuccess;
        } else {
            const int error = errno;
            if (open->lock == LOCK_SH && operation == LOCK_EX && ::flock(open->fd.get(), LOCK_SH | LOCK_NB) != 0)
                open->lock = 0;
            status = statusFromErrno(error);
        }
    }
    return answerStatus(status) ? Outcome::Continue : Outcome::End;
}

ConduitSession::Outcome ConduitSession::unlock(const QCborMap& request) {
    OpenFile* open = file(request);
    int32_t status = kQFCInvalidArgumentError;
    if (open) {
        status = ::flock(open->fd.get(), LOCK_UN) == 0 ? kQFCSuccess : statusFromErrno(errno);
        if (status == kQFCSuccess) open->lock = 0;
    }
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
