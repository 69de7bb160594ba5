// Copying device files and trees to the computer and walking device folders, against the
// emulator: counts of reads and status updates, mirrored trees, the visit action, and every
// failure with its error text and log line. Calls that touch local files run on a worker
// thread as a job does, without the capabilities that let root pass over file permissions.
#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

#include "DeviceTestbed.h"
#include "device/HLFileConduitProxy.h"
#include "device/QFCFileInfo.h"
#include "platform/PathJoin.h"
#include "platform/SystemLog.h"
#include "status/HLTaskStatus.h"

using devicetest::DeviceTest;
using platform::joinPath;

namespace {

const QString kCopy = QStringLiteral("copyFileFromDevice:toLocalDirectory:error:status:");
const QString kEnumerate = QStringLiteral("enumerateDiretoryContentsFromDevice:error:status:visitItem:");

// Records each update (done count and text) and each error it is asked about.
class Recorder : public HLTaskStatusDelegate {
public:
    explicit Recorder(bool ignore = false) : ignore(ignore) {}
    void taskStatusDidChange(HLTaskStatus* status) override
    {
        done.push_back(status->bytesTransfered());
        texts.append(status->localizedStatusInfo());
    }
    bool respondsToShouldIgnoreError() const override { return true; }
    bool taskStatusShouldIgnoreError(HLTaskStatus*, const Error& error) override
    {
        asked.push_back(error);
        return ignore;
    }
    bool ignore;
    std::vector<uint32_t> done;
    QStringList texts;
    std::vector<Error> asked;
};

QByteArray pattern(int size, int seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 509 + seed) & 0xFF);
    return bytes;
}

QByteArray bytesOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// Drops, for the calling thread only, the capabilities that pass over file permissions.
bool dropPermissionOverride()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    if (::syscall(SYS_capget, &header, data) != 0) return false;
    for (int cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH}) data[cap / 32].effective &= ~(1u << (cap % 32));
    return ::syscall(SYS_capset, &header, data) == 0;
}

// Runs fn on a worker thread without those capabilities; false if they could not be dropped.
bool runAsJob(const std::function<void()>& fn)
{
    bool dropped = false;
    std::thread worker([&] {
        dropped = dropPermissionOverride();
        fn();
    });
    worker.join();
    return dropped;
}

// Files of a local folder, relative to it, sorted.
QStringList filesBelow(const QString& root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files | QDir::System | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) files.append(QDir(root).relativeFilePath(it.next()));
    files.sort();
    return files;
}

}  // namespace

class Transfer : public DeviceTest {
protected:
    // Tree/a.txt, Tree/b.bin (two chunks), Tree/empty/, Tree/sub/c.txt, Tree/sub/deeper/d.txt
    // (empty), and Top.txt in the media root.
    void SetUp() override
    {
        DeviceTest::SetUp();
        ASSERT_TRUE(local.isValid());
        for (const auto& [path, size] : kTree) ASSERT_TRUE(writeFile(media(path), pattern(size, size)));
        ASSERT_TRUE(QDir().mkpath(media(QStringLiteral("Tree/empty"))));
        device->resetCounters();
    }
    QString media(const QString& path) const { return joinPath(device->mediaRoot(), path); }
    QString localPath(const QString& path) const { return joinPath(root, path); }
    QString notice(const QString& operation, const Error& error) const
    {
        return QStringLiteral("NOTICE: -[%1 %2] bxerror = %3").arg(dev->description(), operation, error.description());
    }
    int connectionUses() const
    {
        std::shared_ptr<HLFileConduitProxy> service = dev->activeFileCounduitService();
        return service ? service->sessionConnectionOpenCount() : 0;
    }
    void addFault(const char* operation, int32_t status, const char* match, int after = 0)
    {
        handlink::emu::Fault fault;
        fault.operation = QString::fromLatin1(operation);
        fault.status = status;
        fault.match = QString::fromLatin1(match);
        fault.after = after;
        device->addFault(fault);
    }
    // The paths an enumeration hands to its action.
    QStringList visit(const QString& path, std::optional<Error>* error, HLTaskStatus* status, bool* result,
                      const std::function<bool(int)>& goOn = {})
    {
        QStringList visited;
        *result = dev->enumerateDiretoryContentsFromDevice(
            path, error, status, [&](const QFCFileInfo& item, HLTaskStatus* walkStatus, std::optional<Error>* slot) {
                EXPECT_EQ(walkStatus, status);
                EXPECT_NE(slot, nullptr);
                visited.append(item.path() + (item.isDirectory() ? "/" : ""));
                return !goOn || goOn(visited.size());
            });
        return visited;
    }

    static constexpr std::pair<const char*, int> kTree[] = {
        {"Tree/a.txt", 100}, {"Tree/b.bin", 600000}, {"Tree/sub/c.txt", 10}, {"Tree/sub/deeper/d.txt", 0}, {"Top.txt", 5}};
    QTemporaryDir local;
    QString root = local.path();  // where localPath points
};

TEST_F(Transfer, LargeFileSizedThenCopiedInChunks)
{
    const QByteArray data = pattern(1200000, 7);
    ASSERT_TRUE(writeFile(media("Recordings/take.bin"), data));
    Recorder recorder;
    HLTaskStatus status(&recorder);
    std::optional<Error> error;

    // Sizing: nothing read, no local file, the size added to both counts.
    runAsJob([&] { EXPECT_TRUE(dev->copyFileFromDevice("Recordings/take.bin", local.path(), &error, &status)); });
    EXPECT_FALSE(QFileInfo::exists(localPath("Recordings")));
    EXPECT_EQ(device->count("qfc-open"), 0);
    EXPECT_EQ(device->count("qfc-read"), 0);
    EXPECT_EQ(status.bytesTransfered(), 1200000u);
    EXPECT_EQ(status.totalBytesToTransfer(), 1200000u);

    // Transfer over a longer local file, which is replaced.
    ASSERT_TRUE(writeFile(localPath("Recordings/take.bin"), QByteArray(2000000, 'z')));
    status.setTaskPhase(kHLTaskPhaseTransfer);
    recorder.done.clear();
    recorder.texts.clear();
    runAsJob([&] { EXPECT_TRUE(dev->copyFileFromDevice("Recordings/take.bin", local.path(), &error, &status)); });
    EXPECT_FALSE(error.has_value());
    EXPECT_EQ(device->count("qfc-read"), 4);  // 512,000, 512,000, 176,000, then 0
    EXPECT_EQ(recorder.done, (std::vector<uint32_t>{512000, 1024000, 1200000}));
    EXPECT_EQ(recorder.texts, QStringList(3, QStringLiteral("Uploading Recordings/take.bin")));
    EXPECT_EQ(status.bytesTransfered(), 1200000u);
    EXPECT_EQ(status.subtask(), nullptr);
    EXPECT_EQ(bytesOf(localPath("Recordings/take.bin")), data);
    EXPECT_EQ(connectionUses(), 0);
    EXPECT_EQ(device->count("qfc-connect"), device->count("qfc-disconnect"));
    EXPECT_EQ(device->count("qfc-close"), 1);
}

TEST_F(Transfer, DeepAndShallowCopiesMirrorTheTree)
{
    for (bool deep : {true, false}) {
        SCOPED_TRACE(deep ? "deep" : "shallow");
        QTemporaryDir target;
        const QStringList expected = deep ? QStringList{"Tree/a.txt", "Tree/b.bin", "Tree/sub/c.txt", "Tree/sub/deeper/d.txt"}
                                          : QStringList{"Tree/a.txt", "Tree/b.bin"};
        device->resetCounters();
        Recorder recorder;
        HLTaskStatus status(&recorder);
        std::optional<Error> error;
        runAsJob([&] {
            EXPECT_TRUE(dev->copyDirectoryFromDevice("Tree", target.path(), deep, &error, &status));
            EXPECT_TRUE(filesBelow(target.path()).isEmpty());
            status.setTaskPhase(kHLTaskPhaseTransfer);
            EXPECT_TRUE(dev->copyDirectoryFromDevice("Tree", target.path(), deep, &error, &status));
        });
        EXPECT_FALSE(error.has_value());
        EXPECT_EQ(filesBelow(target.path()), expected);
        uint32_t bytes = 0;
        for (const QString& file : expected) {
            EXPECT_EQ(bytesOf(joinPath(target.path(), file)), bytesOf(media(file))) << file.toStdString();
            bytes += static_cast<uint32_t>(QFileInfo(media(file)).size());
        }
        EXPECT_EQ(status.totalBytesToTransfer(), bytes);
        EXPECT_EQ(status.bytesTransfered(), bytes);
        EXPECT_EQ(device->count("qfc-info"), 0);  // every entry's information came with its listing
        EXPECT_EQ(connectionUses(), 0);
    }
}

TEST_F(Transfer, WalkHandsOutJoinedPathsInDeviceOrder)
{
    const struct {
        const char* path;
        QStringList visited;
    } rows[] = {
        {"Tree", {"Tree/a.txt", "Tree/b.bin", "Tree/empty/", "Tree/sub/"}},
        {"Tree/", {"Tree/a.txt", "Tree/b.bin", "Tree/empty/", "Tree/sub/"}},
        {"/Tree/sub", {"/Tree/sub/c.txt", "/Tree/sub/deeper/"}},
        {"", {"Top.txt", "Tree/"}},
        {"/", {"/Top.txt", "/Tree/"}},
        {"Tree/empty", {}},
    };
    Recorder recorder;
    HLTaskStatus status(&recorder);
    for (const auto& row : rows) {
        std::optional<Error> error;
        bool result = false;
        EXPECT_EQ(visit(QString::fromLatin1(row.path), &error, &status, &result), row.visited) << row.path;
        EXPECT_TRUE(result);
        EXPECT_FALSE(error.has_value());
    }
    EXPECT_EQ(device->count("qfc-info"), 0);
    EXPECT_TRUE(recorder.done.empty());  // a walk counts nothing itself
}

// An action that says stop, and a deep copy with a failing read, under a status whose delegate
// keeps errors, one that ignores them, and no status at all.
TEST_F(Transfer, ErrorsStopTheWalkUnlessIgnoredOrWithoutStatus)
{
    const Error stopped = ErrorFromHLDError(kHLDUndefinedError, QStringLiteral("Unknown Error reported by block"));
    const Error readFailed = ErrorFromHLDError(kQFCReadError, QStringLiteral("Reading Bytes from device path: Tree/b.bin"));
    ASSERT_EQ(stopped.description(),
              QStringLiteral("HLDError: 'Unknown Error reported by block', hld_error = -402653183 (kHLDUndefinedError)."));
    enum Kind { Kept, Ignored, NoStatus };
    for (Kind kind : {Kept, Ignored, NoStatus}) {
        SCOPED_TRACE(kind);
        Recorder recorder(kind == Ignored);
        HLTaskStatus walkStatus(&recorder), copyStatus(&recorder);
        HLTaskStatus* given = kind == NoStatus ? nullptr : &walkStatus;
        platform::LogCapture log;
        device->resetCounters();

        std::optional<Error> error;
        bool result = false;
        const QStringList visited = visit("Tree", &error, given, &result, [](int visits) { return visits != 2; });
        EXPECT_EQ(visited.size(), 2);
        EXPECT_EQ(device->count("qfc-dir-read"), 7);  // ".", "..", four names and the end: read to the end
        EXPECT_EQ(result, kind != Kept);
        EXPECT_EQ(error, kind == Kept ? std::optional(stopped) : std::nullopt);
        EXPECT_EQ(log.linesStartingWith("NOTICE: "),
                  kind == Kept ? QStringList{notice(kEnumerate, stopped)} : QStringList());

        // A deep copy whose second file cannot be read.
        log.clear();
        error.reset();
        copyStatus.setTaskPhase(kHLTaskPhaseTransfer);
        given = kind == NoStatus ? nullptr : &copyStatus;
        addFault("qfc-read", kQFCReadError, "Tree/b.bin");
        QTemporaryDir target;
        runAsJob([&] { result = dev->copyDirectoryFromDevice("Tree", target.path(), true, &error, given); });
        EXPECT_EQ(result, kind != Kept);
        EXPECT_EQ(error, kind == Kept ? std::optional(readFailed) : std::nullopt);
        // The failing file stays, empty; after a kept error nothing more is copied.
        const QStringList copied = kind == Kept ? QStringList{"Tree/a.txt", "Tree/b.bin"}
                                                : QStringList{"Tree/a.txt", "Tree/b.bin", "Tree/sub/c.txt", "Tree/sub/deeper/d.txt"};
        EXPECT_EQ(filesBelow(target.path()), copied);
        EXPECT_EQ(QFileInfo(joinPath(target.path(), "Tree/b.bin")).size(), 0);
        const QStringList notices = kind == Kept ? QStringList{notice(kCopy, readFailed), notice(kEnumerate, readFailed)}
                                                 : QStringList();
        EXPECT_EQ(log.linesStartingWith("NOTICE: "), notices);
        EXPECT_EQ(recorder.asked.size(), kind == NoStatus ? 0u : 2u);  // one question per call
        EXPECT_EQ(connectionUses(), 0);
    }
}

// One failure each, with a status whose delegate keeps errors: the result, the error in the
// slot and in the status, the log lines, and what is left.
struct FailureRow {
    const char* name;
    std::function<void()> prepare;
    std::function<bool(std::optional<Error>*, HLTaskStatus*)> call;
    QString operation;
    std::function<Error()> expected;
    std::function<void()> remains;
    std::function<QStringList()> errorLines = [] { return QStringList(); };
};

class TransferFailures : public Transfer {
protected:
    std::function<bool(std::optional<Error>*, HLTaskStatus*)> copy(const QString& path, const QString& into = {})
    {
        return [=, this](std::optional<Error>* error, HLTaskStatus* status) {
            return dev->copyFileFromDevice(path, into.isEmpty() ? root : into, error, status);
        };
    }
    // A walk whose action says stop at visit stopAt (0: never).
    std::function<bool(std::optional<Error>*, HLTaskStatus*)> walk(const QString& path, int stopAt = 0)
    {
        return [=, this](std::optional<Error>* error, HLTaskStatus* status) {
            bool result = false;
            visited = visit(path, error, status, &result, [=](int visits) { return visits != stopAt; });
            return result;
        };
    }
    static std::function<Error()> hld(HLDStatus status, const char* context)
    {
        return [=] { return ErrorFromHLDError(status, QString::fromLatin1(context)); };
    }
    std::function<Error()> posix(int errorNumber, const QString& path)
    {
        return [=, this] { return ErrorFromPOSIXError(localPath(path), errorNumber); };
    }
    void run(const FailureRow& row)
    {
        SCOPED_TRACE(row.name);
        device->resetCounters();
        device->clearFaults();
        visited.clear();
        if (row.prepare) row.prepare();
        Recorder recorder;
        HLTaskStatus status(&recorder);
        status.setTaskPhase(kHLTaskPhaseTransfer);
        platform::LogCapture log;
        std::optional<Error> error;
        bool result = true;
        runAsJob([&] { result = row.call(&error, &status); });
        const Error expected = row.expected();
        EXPECT_FALSE(result);
        EXPECT_EQ(error, expected);
        EXPECT_EQ(status.error(), expected);
        EXPECT_EQ(log.linesStartingWith("NOTICE: "), QStringList{notice(row.operation, expected)});
        EXPECT_EQ(log.linesStartingWith("ERROR: "), row.errorLines());
        EXPECT_EQ(connectionUses(), 0);
        row.remains();
    }
    QStringList visited;
};

TEST_F(TransferFailures, EachFailureWithItsTextAndWhatRemains)
{
    const QByteArray bData = bytesOf(media("Tree/b.bin"));
    const FailureRow rows[] = {
        {"file information unreadable", {}, copy("Tree/none.txt"), kCopy,
         hld(kQFCNotFoundError, "unable to get file info for: Tree/none.txt."),
         [&] {
             EXPECT_EQ(device->count("qfc-open"), 0);
             EXPECT_FALSE(QFileInfo::exists(localPath("Tree")));
         }},
        {"device file cannot be opened", [&] { addFault("qfc-open", kQFCPermissionError, "Tree/a.txt"); },
         copy("Tree/a.txt"), kCopy, hld(kQFCPermissionError, "Attempt open remote file: Tree/a.txt."),
         [&] {
             EXPECT_EQ(device->count("qfc-read"), 0);
             EXPECT_FALSE(QFileInfo::exists(localPath("Tree")));
         }},
        {"device read fails mid-file", [&] { addFault("qfc-read", kQFCReadError, "Tree/b.bin", 1); },
         copy("Tree/b.bin"), kCopy, hld(kQFCReadError, "Reading Bytes from device path: Tree/b.bin"),
         [&] { EXPECT_EQ(bytesOf(localPath("Tree/b.bin")), bData.left(512000)); }},
        {"local write takes nothing",
         [&] {
             QDir().mkpath(localPath("Tree"));
             QFile::link(QStringLiteral("/dev/full"), localPath("Tree/b.bin"));
         },
         copy("Tree/b.bin"), kCopy, posix(ENOSPC, "Tree/b.bin"),
         [&] { EXPECT_EQ(device->count("qfc-read"), 1); },
         [&] { return QStringList{"ERROR: Unexpected error writing to local file: " + localPath("Tree/b.bin")}; }},
        {"plain file where a local folder must go", [&] { writeFile(localPath("Tree"), "plain"); },
         copy("Tree/sub/c.txt"), kCopy, posix(ENOTDIR, "Tree/sub/c.txt"),
         [&] {
             EXPECT_EQ(bytesOf(localPath("Tree")), "plain");
             EXPECT_EQ(device->count("qfc-read"), 0);
         }},
        {"folder given as a file", {}, copy("Tree/sub"), kCopy,
         hld(kQFCInvalidArgumentError, "Reading Bytes from device path: Tree/sub"),
         [&] {
             EXPECT_TRUE(QFileInfo(localPath("Tree/sub")).isFile());
             EXPECT_EQ(QFileInfo(localPath("Tree/sub")).size(), 0);
         }},
        {"folder cannot be opened", {}, walk("Tree/none"), kEnumerate,
         hld(kQFCNotFoundError, "Attempt to open remote directory: Tree/none"),
         [&] { EXPECT_TRUE(visited.isEmpty()); }},
        {"listing breaks off", [&] { addFault("qfc-dir-read", kQFCReadError, "Tree", 4); }, walk("Tree"), kEnumerate,
         hld(kQFCReadError, "Reading Directory Entries of: Tree."),
         [&] { EXPECT_EQ(visited, (QStringList{"Tree/a.txt", "Tree/b.bin"})); }},
        {"folder cannot be closed", [&] { addFault("qfc-dir-close", kQFCUndefinedError, "Tree"); }, walk("Tree"),
         kEnumerate, hld(kQFCUndefinedError, "Attempt to close remote directory: Tree."),
         [&] { EXPECT_EQ(visited.size(), 4); }},
        // A later failure of the listing replaces the action's refusal, and a failed close both.
        {"listing breaks off after a stop", [&] { addFault("qfc-dir-read", kQFCReadError, "Tree", 4); }, walk("Tree", 1),
         kEnumerate, hld(kQFCReadError, "Reading Directory Entries of: Tree."),
         [&] { EXPECT_EQ(visited.size(), 1); }},
        {"folder cannot be closed after a break",
         [&] {
             addFault("qfc-dir-read", kQFCReadError, "Tree", 4);
             addFault("qfc-dir-close", kQFCUndefinedError, "Tree");
         },
         walk("Tree"), kEnumerate, hld(kQFCUndefinedError, "Attempt to close remote directory: Tree."),
         [&] { EXPECT_EQ(visited.size(), 2); }},
    };
    for (const FailureRow& row : rows) {
        QTemporaryDir rowRoot;
        root = rowRoot.path();
        run(row);
    }
}

// A folder the job may not write to, for root as well: the file's own open fails, or, below
// a folder that cannot be made, the open of the file in the missing folder.
TEST_F(TransferFailures, ReadOnlyLocalFolder)
{
    if (::geteuid() == 0 && !runAsJob([] {}))
        GTEST_SKIP() << "root could not give up passing over file permissions";
    ASSERT_TRUE(QFile::setPermissions(root, QFile::ReadOwner | QFile::ExeOwner));
    const FailureRow rows[] = {
        {"file in a read-only folder", {}, copy("Top.txt"), kCopy, posix(EACCES, "Top.txt"),
         [&] { EXPECT_EQ(device->count("qfc-read"), 0); }},
        {"folder in a read-only folder", {}, copy("Tree/a.txt"), kCopy, posix(ENOENT, "Tree/a.txt"),
         [&] {
             EXPECT_FALSE(QFileInfo::exists(localPath("Tree")));
             EXPECT_EQ(device->count("qfc-read"), 0);
         }},
    };
    for (const FailureRow& row : rows) run(row);
    QFile::setPermissions(root, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

TEST_F(TransferFailures, EarlierErrorStaysAndClosedConnectionTouchesNothing)
{
    // The status already holds an error: it keeps it; the new one is logged and handed out.
    const Error earlier = ErrorFromHLDError(kQFCBusyError, QStringLiteral("earlier"));
    const Error missing = ErrorFromHLDError(kQFCNotFoundError, QStringLiteral("unable to get file info for: Nope.bin."));
    Recorder recorder;
    HLTaskStatus status(&recorder);
    status.didFailWithError(earlier);
    platform::LogCapture log;
    std::optional<Error> error;
    EXPECT_FALSE(dev->copyFileFromDevice("Nope.bin", local.path(), &error, &status));
    EXPECT_EQ(error, missing);
    EXPECT_EQ(status.error(), earlier);
    EXPECT_EQ(log.linesStartingWith("NOTICE: "), QStringList{notice(kCopy, missing)});

    // No connection: NO at once, nothing logged, the slot and the status untouched.
    log.clear();
    device->resetCounters();
    addFault("qfc-connect", kQFCUndefinedError, "");
    addFault("qfc-connect", kQFCUndefinedError, "");
    HLTaskStatus fresh(&recorder);
    const Error sentinel = ErrorFromHLDError(1, QStringLiteral("sentinel"));
    error = sentinel;
    EXPECT_FALSE(dev->copyFileFromDevice("Tree/a.txt", local.path(), &error, &fresh));
    EXPECT_FALSE(dev->enumerateDiretoryContentsFromDevice("Tree", &error, &fresh, {}));
    EXPECT_EQ(error, sentinel);
    EXPECT_FALSE(fresh.error().has_value());
    EXPECT_EQ(fresh.totalBytesToTransfer(), 0u);
    EXPECT_TRUE(log.linesStartingWith("NOTICE: ").isEmpty());
    EXPECT_EQ(dev->activeFileCounduitService(), nullptr);
    EXPECT_EQ(device->count("qfc-connect"), 2);
}
