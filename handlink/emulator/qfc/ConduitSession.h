#pragma once
// One file-conduit connection of an emulated device (docs/protocol.md, "File conduit").
//
// Requests are read one at a time from the connection and answered in order. One static table
// names every request with the operation it is counted and faulted as, what its match text is,
// and its fields; the dispatcher checks the fields (a missing or ill-typed one answers
// kQFCInvalidArgumentError, uncounted), counts, applies faults and delays, and calls the handler. File references
// and directory handles are small positive numbers, never reused on a connection; each file
// reference is its own open file, so its flock lock is its own and goes when it is closed or
// the connection ends. Runs on the connection's thread; nothing in it is shared but the arming
// page (below), which the device's arm listener bumps from the arming thread.
//
// The arming page: a small shared memory page handed to the client with the answer to
// "connect". It counts how often a qfc-info and a qfc-dir-read fault or delay was armed on the
// device; the client keeps names and file information of a batch only while the counts are
// those it read before asking for the batch, so a fault armed later strikes the next call.
#include <QByteArray>
#include <QCborMap>
#include <QString>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "handlink/emulator/RequestTable.h"
#include "handlink/emulator/qfc/DirectoryListing.h"
#include "handlink/emulator/qfc/FileSending.h"
#include "handlink/emulator/qfc/FileStat.h"
#include "handlink/wire/UniqueFd.h"

namespace handlink::emu {
class DeviceState;
}

namespace handlink::emu::qfc {

class ConduitSession {
public:
    ConduitSession(int fd, std::shared_ptr<DeviceState> device, const std::atomic<bool>& stopping);
    ~ConduitSession();
    ConduitSession(const ConduitSession&) = delete;
    ConduitSession& operator=(const ConduitSession&) = delete;
    // Serves until the client disconnects or closes, the device detaches or the server stops.
    void run();

    // Entries of one directory batch at most (the client asks for fewer), and its size bound.
    static constexpr int kMaxBatchEntries = 4096;
    static constexpr qsizetype kMaxBatchBytes = 2 * 1024 * 1024;
    static constexpr size_t kMaxOpenFiles = 1024;
    // The arming page: 64-bit counters at these word indexes (docs/protocol.md).
    static constexpr size_t kArmingPageBytes = 4096;
    static constexpr int kInfoArmings = 0;
    static constexpr int kDirectoryReadArmings = 1;

private:
    enum class Match { None, Path, File, Directory };
    enum class Outcome { Continue, End };
    using Handler = Outcome (ConduitSession::*)(const QCborMap& request);
    struct Request {
        const char* op;
        const char* operation;  // counter and fault name
        Match match;
        Handler handler;
        req::Field fields[req::kMaxFields];  // checked before anything else
    };
    static const Request kRequests[];

    struct OpenFile {
        wire::UniqueFd fd;
        QString path;
        uint64_t offset = 0;
        int lock = 0;  // LOCK_SH, LOCK_EX or 0: what the reference holds
    };
    struct ArmingPage;
    struct OpenDirectory {
        std::unique_ptr<DirectoryListing> listing;
        QString path;
        int32_t error = 0;  // a listing that broke off keeps answering its failure
    };

    Outcome dispatch(const QCborMap& request);
    // Counts the directory reads the client answered from its batches since it last said so
    // ("reads" of dir-read, dir-close and disconnect).
    void countReportedReads(const QCborMap& request);
    bool makeArmingPage();
    bool answerConnect(int32_t status);
    QString matchText(Match match, const QCborMap& request) const;
    bool answer(const QCborMap& map);
    bool answerStatus(int32_t status);

    Outcome connect(const QCborMap& request);
    Outcome disconnect(const QCborMap& request);
    Outcome open(const QCborMap& request);
    Outcome read(const QCborMap& request);
    Outcome lock(const QCborMap& request);
    Outcome unlock(const QCborMap& request);
    Outcome close(const QCborMap& request);
    Outcome remove(const QCborMap& request);
    Outcome info(const QCborMap& request);
    Outcome directoryOpen(const QCborMap& request);
    Outcome directoryRead(const QCborMap& request);
    Outcome directoryClose(const QCborMap& request);

    OpenFile* file(const QCborMap& request);
    // statx of an entry; without the birth time when the device's file system keeps none.
    int stat(int dir, const char* name, FileStat* out) const;
    // Appends up to max next names of the directory to answer (none when max is 0), with
    // their information unless a qfc-info fault or delay is armed.
    void addBatch(OpenDirectory& directory, int max, QCborMap* answer);
    // True while a qfc-dir-read fault or delay is armed: batches then hold one name at most,
    // so every QFCDirectoryRead reaches the device.
    bool directoryReadsArmed() const;

    int _fd;
    std::shared_ptr<DeviceState> _device;
    const std::atomic<bool>& _stopping;
    wire::UniqueFd _root;  // Media/, O_PATH
    std::map<int64_t, OpenFile> _files;
    std::map<int64_t, OpenDirectory> _directories;
    int64_t _nextFile = 1;
    int64_t _nextDirectory = 1;
    bool _birthTimes = true;  // device.plist Emulation "BirthTimes" (a file system without them: false)
    FileSender _sender;
    std::shared_ptr<ArmingPage> _arming;
    wire::UniqueFd _armingFd;  // handed to the client with the connect answer, then closed
    int _armListener = -1;
};

}  // namespace handlink::emu::qfc
