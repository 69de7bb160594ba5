// Directory requests of the conduit: open (with the first batch), read (the next batch), close.
#include <fcntl.h>

#include <QCborArray>
#include <algorithm>

#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/DeviceState.h"
#include "handlink/emulator/qfc/ConduitCodec.h"
#include "handlink/emulator/qfc/ConduitSession.h"
#include "handlink/emulator/qfc/MediaPath.h"

namespace handlink::emu::qfc {

namespace {
const QString kDirectoryRead = QStringLiteral("qfc-dir-read");
const QString kInfo = QStringLiteral("qfc-info");
}  // namespace

bool ConduitSession::directoryReadsArmed() const { return _device->faultOrDelayArmed(kDirectoryRead); }

// The first batch comes with the open; it holds no names while a qfc-dir-read fault or delay is
// armed, so that the first QFCDirectoryRead reaches the device as well.
ConduitSession::Outcome ConduitSession::directoryOpen(const QCborMap& request) {
    QCborMap map;
    int32_t status = kQFCNotFoundError;
    ResolvedPath where;
    const std::string path = codec::pathOf(request);
    if (_root) status = resolvePath(_root.get(), path, FinalLink::Follow, &where);
    wire::UniqueFd folder;
    if (status == kQFCSuccess) {
        const char* name = where.name.empty() ? "." : where.name.c_str();
        folder.reset(::openat(where.parent.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder) status = statusFromErrno(errno);
    }
    if (status == kQFCSuccess && _directories.size() >= kMaxOpenFiles) status = kQFCNoResourcesError;
    map.insert(QStringLiteral("status"), status);
    if (status == kQFCSuccess) {
        const int64_t handle = _nextDirectory++;
        OpenDirectory& directory = _directories[handle];
        directory.listing = std::make_unique<DirectoryListing>(std::move(folder));
        directory.path = QString::fromUtf8(path.data(), static_cast<qsizetype>(path.size()));
        map.insert(QStringLiteral("dir"), static_cast<qint64>(handle));
        const int max = static_cast<int>(std::min<qint64>(request.value(QStringLiteral("max")).toInteger(0), kMaxBatchEntries));
        addBatch(directory, directoryReadsArmed() ? 0 : max, &map);
    }
    return answer(map) ? Outcome::Continue : Outcome::End;
}

// A dir-read is one QFCDirectoryRead call of the client: counted and offered to the faults as
// one qfc-dir-read. Without "held" it asks for the next batch, whose first name answers this
// call; with "held" the client answers the call from a batch it holds, and only asks whether
// the device lets the call through (a fault armed after that batch came).
ConduitSession::Outcome ConduitSession::directoryRead(const QCborMap& request) {
    auto it = _directories.find(request.value(QStringLiteral("dir")).toInteger(-1));
    if (it == _directories.end()) {
        // Still a call the device received.
        if (std::optional<int32_t> fault = _device->receive(kDirectoryRead)) {
            if (_device->isDetached()) return Outcome::End;
            return answerStatus(*fault) ? Outcome::Continue : Outcome::End;
        }
        return answerStatus(kQFCInvalidArgumentError) ? Outcome::Continue : Outcome::End;
    }
    OpenDirectory& directory = it->second;
    QCborMap map;
    map.insert(QStringLiteral("status"), kQFCSuccess);
    if (std::optional<int32_t> fault = _device->receive(kDirectoryRead, directory.path)) {
        if (_device->isDetached()) return Outcome::End;
        directory.error = *fault;  // the listing breaks off here
        map.insert(QStringLiteral("entries"), QCborArray());
        map.insert(QStringLiteral("end"), false);
        map.insert(QStringLiteral("error"), *fault);
        return answer(map) ? Outcome::Continue : Outcome::End;
    }
    if (request.value(QStringLiteral("held")).toBool()) return answer(map) ? Outcome::Continue : Outcome::End;
    const int max = static_cast<int>(std::min<qint64>(request.value(QStringLiteral("max")).toInteger(1), kMaxBatchEntries));
    addBatch(directory, directoryReadsArmed() ? 1 : std::max(max, 1), &map);
    return answer(map) ? Outcome::Continue : Outcome::End;
}

ConduitSession::Outcome ConduitSession::directoryClose(const QCborMap& request) {
    const bool known = _directories.erase(request.value(QStringLiteral("dir")).toInteger(-1)) > 0;
    return answerStatus(known ? kQFCSuccess : kQFCInvalidArgumentError) ? Outcome::Continue : Outcome::End;
}

void ConduitSession::addBatch(OpenDirectory& directory, int max, QCborMap* answer) {
    max = std::clamp(max, 0, kMaxBatchEntries);
    // While an info fault or delay is armed, entries go without information so that every info
    // call reaches the device.
    const bool withInfo = !_device->faultOrDelayArmed(kInfo);
    QCborArray entries;
    qsizetype bytes = 0;
    bool end = false;
    int32_t error = directory.error;
    while (error == kQFCSuccess && entries.size() < max && bytes < kMaxBatchBytes) {
        std::string name;
        int readError = 0;
        if (!directory.listing->next(&name, &readError)) {
            if (readError)
                error = statusFromErrno(readError);
            else
                end = true;
            break;
        }
        QCborArray entry;
        entry.append(QByteArray(name.data(), static_cast<qsizetype>(name.size())));
        FileStat st;
        if (withInfo && name != "." && name != ".." && stat(directory.listing->fd(), name.c_str(), &st) == 0)
            entry.append(codec::infoArray(st));
        else
            entry.append(QCborValue(QCborValue::Null));
        entries.append(entry);
        bytes += static_cast<qsizetype>(name.size()) + 64;
    }
    directory.error = error;
    answer->insert(QStringLiteral("entries"), entries);
    answer->insert(QStringLiteral("end"), end);
    if (error != kQFCSuccess) answer->insert(QStringLiteral("error"), error);
}

}  // namespace handlink::emu::qfc
