#include "handlink/emulator/qfc/ConduitSession.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QCborArray>
#include <QCborValue>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>

#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/DeviceFolder.h"
#include "handlink/emulator/DeviceState.h"
#include "handlink/emulator/qfc/ConduitCodec.h"
#include "handlink/wire/Frame.h"
#include "platform/PropertyList.h"

namespace handlink::emu::qfc {

// The requests of the conduit, each counted and faulted as its operation. qfc-dir-read is
// counted by the dir-read handler (the call that asked for a batch) and by the reports of
// reads the client answered from its batches. References and handles are any integers (one
// that is not open answers kQFCInvalidArgumentError from its handler, counted).
using req::need;
using req::may;
using req::Type;
const ConduitSession::Request ConduitSession::kRequests[] = {
    {"connect", "qfc-connect", Match::None, &ConduitSession::connect, {}},
    {"disconnect", "qfc-disconnect", Match::None, &ConduitSession::disconnect, {may("reads", Type::Integer, 0)}},
    {"open", "qfc-open", Match::Path, &ConduitSession::open, {need("path", Type::Bytes), need("mode", Type::Integer)}},
    {"read", "qfc-read", Match::File, &ConduitSession::read, {need("ref", Type::Integer), need("length", Type::Integer, 0)}},
    {"lock", "qfc-lock", Match::File, &ConduitSession::lock, {need("ref", Type::Integer), need("exclusive", Type::Bool)}},
    {"unlock", "qfc-unlock", Match::File, &ConduitSession::unlock, {need("ref", Type::Integer)}},
    {"close", "qfc-close", Match::File, &ConduitSession::close, {need("ref", Type::Integer)}},
    {"remove", "qfc-remove", Match::Path, &ConduitSession::remove, {need("path", Type::Bytes)}},
    {"info", "qfc-info", Match::Path, &ConduitSession::info, {need("path", Type::Bytes)}},
    {"dir-open", "qfc-dir-open", Match::Path, &ConduitSession::directoryOpen,
     {need("path", Type::Bytes), may("max", Type::Integer, 0)}},
    {"dir-read", nullptr, Match::Directory, &ConduitSession::directoryRead,
     {need("dir", Type::Integer), may("max", Type::Integer, 0), may("reads", Type::Integer, 0), may("held", Type::Bool)}},
    {"dir-close", "qfc-dir-close", Match::Directory, &ConduitSession::directoryClose,
     {need("dir", Type::Integer), may("reads", Type::Integer, 0)}},
};

namespace {
const QString kInfoOperation = QStringLiteral("qfc-info");
const QString kDirectoryReadOperation = QStringLiteral("qfc-dir-read");
}  // namespace

// The shared page, mapped for as long as the session or an arm listener running late needs it.
struct ConduitSession::ArmingPage {
    uint64_t* words = nullptr;
    ~ArmingPage() {
        if (words) ::munmap(words, kArmingPageBytes);
    }
    void bump(int index) { std::atomic_ref<uint64_t>(words[index]).fetch_add(1); }
};

ConduitSession::ConduitSession(int fd, std::shared_ptr<DeviceState> device, const std::atomic<bool>& stopping)
    : _fd(fd), _device(std::move(device)), _stopping(stopping) {
    _root.reset(::open(_device->mediaRoot().toLocal8Bit().constData(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    // Room for a whole read answer in the socket: a chunk goes out in one sendfile call
    // instead of in turns with the reader (the kernel caps it at net.core.wmem_max).
    const int sendBuffer = 2 * 1024 * 1024;
    ::setsockopt(_fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    // Read once per connection, like the rest of the device's file system.
    if (const auto plist = platform::plist::readFile(folder::plistPath(_device->folder()))) {
        const QVariant birthTimes = plist->toMap().value(folder::kEmulation).toMap().value(QStringLiteral("BirthTimes"));
        if (birthTimes.isValid()) _birthTimes = birthTimes.toBool();
    }
    makeArmingPage();
}

ConduitSession::~ConduitSession() {
    if (_armListener >= 0) _device->removeArmListener(_armListener);
}

bool ConduitSession::makeArmingPage() {
    wire::UniqueFd page(::memfd_create("qfc-arming", MFD_CLOEXEC));
    if (!page || ::ftruncate(page.get(), kArmingPageBytes) != 0) return false;
    void* words = ::mmap(nullptr, kArmingPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, page.get(), 0);
    if (words == MAP_FAILED) return false;
    _arming = std::make_shared<ArmingPage>();
    _arming->words = static_cast<uint64_t*>(words);
    _armingFd = std::move(page);
    // Bumped after the fault or delay is in place, so a batch made without seeing it is
    // never trusted by a client that read the page before asking for it.
    _armListener = _device->addArmListener([arming = _arming](const QString& operation) {
        if (operation == kInfoOperation) arming->bump(kInfoArmings);
        if (operation == kDirectoryReadOperation) arming->bump(kDirectoryReadArmings);
    });
    return true;
}

int ConduitSession::stat(int dir, const char* name, FileStat* out) const {
    const int error = statEntry(dir, name, out);
    if (!_birthTimes) out->btimeNs.reset();
    return error;
}

void ConduitSession::run() {
    const SigpipeBlock quiet;  // file bytes are spliced into the socket (FileSending.h)
    while (!_stopping.load() && !_device->isDetached()) {
        QCborMap request;
        const wire::ReadResult result = wire::readFrame(_fd, &request);
        if (result == wire::ReadResult::Closed || result == wire::ReadResult::IoError) return;
        if (result != wire::ReadResult::Ok) {
            QCborMap refusal;
            refusal.insert(QStringLiteral("status"), kQFCBadHeaderError);
            refusal.insert(QStringLiteral("error"), QString::fromLatin1(wire::describe(result)));
            answer(refusal);
            return;
        }
        if (dispatch(request) == Outcome::End) return;
    }
}

ConduitSession::Outcome ConduitSession::dispatch(const QCborMap& request) {
    const Request* kind = req::findRow(kRequests, request);
    if (!kind) {
        QCborMap refusal;
        refusal.insert(QStringLiteral("status"), kQFCUnknownPacketError);
        refusal.insert(QStringLiteral("error"), QStringLiteral("unknown request \"%1\"").arg(req::opName(request)));
        answer(refusal);
        return Outcome::End;
    }
    if (const QString why = req::checkFields(request, kind->fields); !why.isEmpty()) {
        QCborMap refusal;
        refusal.insert(QStringLiteral("status"), kQFCInvalidArgumentError);
        refusal.insert(QStringLiteral("error"), why);
        return answer(refusal) ? Outcome::Continue : Outcome::End;
    }
    countReportedReads(request);  // before any fault: those calls were made
    if (kind->operation) {
        if (std::optional<int32_t> fault = _device->receive(QLatin1String(kind->operation), matchText(kind->match, request))) {
            if (_device->isDetached()) return Outcome::End;
            return answerStatus(*fault) ? Outcome::Continue : Outcome::End;
        }
    }
    return (this->*kind->handler)(request);
}

QString ConduitSession::matchText(Match match, const QCborMap& request) const {
    switch (match) {
    case Match::None: return QString();
    case Match::Path: return QString::fromUtf8(codec::pathOf(request));
    case Match::File: {
        auto it = _files.find(request.value(QStringLiteral("ref")).toInteger(-1));
        return it == _files.end() ? QString() : it->second.path;
    }
    case Match::Directory: {
        auto it = _directories.find(request.value(QStringLiteral("dir")).toInteger(-1));
        return it == _directories.end() ? QString() : it->second.path;
    }
    }
    return QString();
}

bool ConduitSession::answer(const QCborMap& map) { return wire::writeFrame(_fd, map); }

bool ConduitSession::answerStatus(int32_t status) {
    QCborMap map;
    map.insert(QStringLiteral("status"), status);
    return answer(map);
}

void ConduitSession::countReportedReads(const QCborMap& request) {
    const qint64 reads = request.value(QStringLiteral("reads")).toInteger(0);
    for (qint64 i = 0; i < std::min<qint64>(reads, std::numeric_limits<int>::max()); ++i)
        _device->countCall(kDirectoryReadOperation);
}

ConduitSession::Outcome ConduitSession::connect(const QCborMap&) {
    return answerConnect(_root ? kQFCSuccess : kQFCNotFoundError) ? Outcome::Continue : Outcome::End;
}

// The connect answer carries the arming page's descriptor (SCM_RIGHTS) with its first byte.
bool ConduitSession::answerConnect(int32_t status) {
    QCborMap map;
    map.insert(QStringLiteral("status"), status);
    if (status != kQFCSuccess || !_armingFd) return answer(map);
    const QByteArray frame = wire::encodeFrame(map);
    iovec iov{const_cast<char*>(frame.constData()), static_cast<size_t>(frame.size())};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int descriptor = _armingFd.get();
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    ssize_t sent;
    do {
        sent = ::sendmsg(_fd, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent <= 0) return false;
    _armingFd.reset();  // the client has its own now; the mapping stays
    return wire::sendAll(_fd, frame.constData() + sent, static_cast<size_t>(frame.size() - sent));
}

ConduitSession::Outcome ConduitSession::disconnect(const QCborMap&) {
    answerStatus(kQFCSuccess);
    return Outcome::End;
}

ConduitSession::OpenFile* ConduitSession::file(const QCborMap& request) {
    auto it = _files.find(request.value(QStringLiteral("ref")).toInteger(-1));
    return it == _files.end() ? nullptr : &it->second;
}

}  // namespace handlink::emu::qfc
