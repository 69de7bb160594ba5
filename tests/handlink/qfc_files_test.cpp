// File calls of the conduit against a live emulated device: open, read, close, remove, file
// information, counters and faults.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <fstream>
#include <functional>
#include <thread>
#include <string>
#include <vector>

#include "handlink/wire/Frame.h"
#include "platform/PropertyList.h"
#include "qfc_testbed.h"
#include "support/TestSupport.h"

namespace qfctest {
namespace {

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string pattern(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>((i * 7 + i / 4096) & 0xff);
    return data;
}

using FilesTest = ConduitTest;

// One request written straight onto the conduit's socket (for what the C calls cannot say, such
// as a NUL inside a path); the client library's wrapper is idle meanwhile.
QCborMap rawCall(int fd, const QCborMap& request) {
    QCborMap answer;
    EXPECT_TRUE(handlink::wire::writeFrame(fd, request));
    EXPECT_EQ(handlink::wire::readFrame(fd, &answer), handlink::wire::ReadResult::Ok);
    return answer;
}

QCborMap pathRequest(const char* op, const QByteArray& path) {
    QCborMap request;
    request.insert(QStringLiteral("op"), QLatin1String(op));
    request.insert(QStringLiteral("path"), path);
    request.insert(QStringLiteral("mode"), 2);
    return request;
}

TEST_F(FilesTest, ReadsAFileInTheCallersChunksThenZeroAtTheEnd) {
    const std::string data = pattern(1200000);
    writeFile(media("song.m4a"), data);
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "song.m4a", kQFCModeReadWriteCreate, &ref), kQFCSuccess);
    EXPECT_GT(ref, 0u);
    EXPECT_LT(ref, 0x80000000u);

    std::vector<char> buffer(512000);
    std::vector<uint64_t> counts;
    std::string got;
    for (;;) {
        uint64_t length = buffer.size();
        ASSERT_EQ(QFCFileRefRead(conduit.connection, ref, buffer.data(), &length), kQFCSuccess);
        counts.push_back(length);
        if (length == 0) break;
        got.append(buffer.data(), length);
    }
    EXPECT_EQ(counts, (std::vector<uint64_t>{512000, 512000, 176000, 0}));
    EXPECT_TRUE(got == data);
    EXPECT_EQ(QFCFileRefClose(conduit.connection, ref), kQFCSuccess);
    EXPECT_EQ(device->count("qfc-open"), 1);
    EXPECT_EQ(device->count("qfc-read"), 4);
    EXPECT_EQ(device->count("qfc-close"), 1);
}

TEST_F(FilesTest, OpenCreatesMissingFilesWithoutTruncatingExistingOnes) {
    writeFile(media("keep.txt"), "content");
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "keep.txt", 2, &ref), kQFCSuccess);
    EXPECT_EQ(QFCFileRefClose(conduit.connection, ref), kQFCSuccess);
    EXPECT_EQ(readFile(media("keep.txt")), "content");

    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "com.corvid.lumen.lock_sync", 2, &ref), kQFCSuccess);
    EXPECT_EQ(QFCFileRefClose(conduit.connection, ref), kQFCSuccess);
    struct stat st;
    ASSERT_EQ(::stat(media("com.corvid.lumen.lock_sync").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
}

TEST_F(FilesTest, ReferencesAreSmallUniqueAndEachItsOwn) {
    writeFile(media("a"), "abc");
    QFCFileRef first = kQFCInvalidFileRef, second = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "a", 2, &first), kQFCSuccess);
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "/a", 2, &second), kQFCSuccess);
    EXPECT_NE(first, second);
    char buffer[8];
    uint64_t length = 2;
    ASSERT_EQ(QFCFileRefRead(conduit.connection, first, buffer, &length), kQFCSuccess);
    EXPECT_EQ(std::string(buffer, length), "ab");
    length = sizeof buffer;  // the second reference has its own position
    ASSERT_EQ(QFCFileRefRead(conduit.connection, second, buffer, &length), kQFCSuccess);
    EXPECT_EQ(std::string(buffer, length), "abc");
    EXPECT_EQ(QFCFileRefClose(conduit.connection, first), kQFCSuccess);
    // A closed reference is unknown now; a new one never reuses its number.
    length = sizeof buffer;
    EXPECT_EQ(QFCFileRefRead(conduit.connection, first, buffer, &length), kQFCInvalidArgumentError);
    QFCFileRef third = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "a", 2, &third), kQFCSuccess);
    EXPECT_NE(third, first);
    EXPECT_NE(third, second);
}

TEST_F(FilesTest, StatusesTheDeviceClassesTestByNumber) {
    ASSERT_EQ(::mkdir(media("Folder").c_str(), 0755), 0);
    QFCFileRef ref = 12345;
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, "Missing/file", 2, &ref), kQFCNotFoundError);
    EXPECT_EQ(ref, kQFCInvalidFileRef);
    ref = 12345;
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, "Folder", 2, &ref), kQFCIsDirectoryError);
    EXPECT_EQ(ref, kQFCInvalidFileRef);
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, "/", 2, &ref), kQFCIsDirectoryError);

    char buffer[16];
    for (QFCFileRef bad : {kQFCInvalidFileRef, QFCFileRef(999), QFCFileRef(0)}) {
        uint64_t length = sizeof buffer;
        EXPECT_EQ(QFCFileRefRead(conduit.connection, bad, buffer, &length), kQFCInvalidArgumentError);
        EXPECT_EQ(length, 0u);
        EXPECT_EQ(QFCFileRefLock(conduit.connection, bad, 1), kQFCInvalidArgumentError);
        EXPECT_EQ(QFCFileRefUnlock(conduit.connection, bad), kQFCInvalidArgumentError);
        EXPECT_EQ(QFCFileRefClose(conduit.connection, bad), kQFCInvalidArgumentError);
    }
    // Every one of those calls reached the device.
    EXPECT_EQ(device->count("qfc-read"), 3);
    EXPECT_EQ(device->count("qfc-close"), 3);

    EXPECT_EQ(QFCRemovePath(conduit.connection, "Missing"), kQFCNotFoundError);
    EXPECT_EQ(QFCRemovePath(conduit.connection, "Missing/deeper"), kQFCNotFoundError);
    HLDStatus status = 0;
    infoPairs(conduit.connection, "Missing", &status);
    EXPECT_EQ(status, kQFCNotFoundError);
    listNames(conduit.connection, "Missing", &status);
    EXPECT_EQ(status, kQFCNotFoundError);
}

TEST_F(FilesTest, RemovesFilesEmptyFoldersAndRefusesTheRoot) {
    writeFile(media("gone.txt"), "x");
    ASSERT_EQ(::mkdir(media("Empty").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(media("Full").c_str(), 0755), 0);
    writeFile(media("Full/inside"), "x");
    EXPECT_EQ(QFCRemovePath(conduit.connection, "gone.txt"), kQFCSuccess);
    EXPECT_NE(::access(media("gone.txt").c_str(), F_OK), 0);
    EXPECT_EQ(QFCRemovePath(conduit.connection, "Empty"), kQFCSuccess);
    EXPECT_NE(::access(media("Empty").c_str(), F_OK), 0);
    EXPECT_EQ(QFCRemovePath(conduit.connection, "Full"), kQFCBusyError);
    EXPECT_EQ(::access(media("Full/inside").c_str(), F_OK), 0);
    for (const char* root : {"", "/", "./", "//"}) EXPECT_EQ(QFCRemovePath(conduit.connection, root), kQFCPermissionError);
    EXPECT_EQ(::access(media().c_str(), F_OK), 0);
    EXPECT_EQ(device->count("qfc-remove"), 7);
}

TEST_F(FilesTest, FileInformationOfFilesFoldersAndLinks) {
    writeFile(media("file.bin"), std::string(5000, 'x'));
    ASSERT_EQ(::mkdir(media("Folder").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("file.bin", media("link").c_str()), 0);
    struct timespec times[2] = {{1234567890, 123456789}, {1234567890, 123456789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, media("file.bin").c_str(), times, 0), 0);
    struct stat st;
    ASSERT_EQ(::stat(media("file.bin").c_str(), &st), 0);

    HLDStatus status = 0;
    auto pairs = infoPairs(conduit.connection, "file.bin", &status);
    ASSERT_EQ(status, kQFCSuccess);
    EXPECT_EQ(pairs["st_size"], "5000");
    EXPECT_EQ(pairs["st_blocks"], std::to_string(st.st_blocks));
    EXPECT_EQ(pairs["st_nlink"], "1");
    EXPECT_EQ(pairs["st_ifmt"], "S_IFREG");
    EXPECT_EQ(pairs["st_mtime"], "1234567890123456789");

    pairs = infoPairs(conduit.connection, "Folder", &status);
    ASSERT_EQ(status, kQFCSuccess);
    EXPECT_EQ(pairs["st_ifmt"], "S_IFDIR");
    EXPECT_EQ(pairs["st_nlink"], "2");
    for (const char* root : {"", "/", "./", "//"}) {
        pairs = infoPairs(conduit.connection, root, &status);
        EXPECT_EQ(status, kQFCSuccess) << root;
        EXPECT_EQ(pairs["st_ifmt"], "S_IFDIR") << root;
    }

    // A link is described as itself.
    pairs = infoPairs(conduit.connection, "link", &status);
    ASSERT_EQ(status, kQFCSuccess);
    EXPECT_EQ(pairs["st_ifmt"], "S_IFLNK");
    EXPECT_EQ(pairs["st_size"], "8");  // the length of "file.bin"
    EXPECT_EQ(device->count("qfc-info"), 7);
}

TEST_F(FilesTest, BirthTimeIsReportedWhenTheFileSystemKeepsOne) {
    writeFile(media("new.txt"), "x");
    struct statx sx;
    ASSERT_EQ(::statx(AT_FDCWD, media("new.txt").c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &sx), 0);
    HLDStatus status = 0;
    auto pairs = infoPairs(conduit.connection, "new.txt", &status);
    ASSERT_EQ(status, kQFCSuccess);
    if (sx.stx_mask & STATX_BTIME) {
        const int64_t expected = int64_t(sx.stx_btime.tv_sec) * 1000000000LL + sx.stx_btime.tv_nsec;
        EXPECT_EQ(pairs["st_birthtime"], std::to_string(expected));
    } else {
        EXPECT_EQ(pairs.count("st_birthtime"), 0u);
    }
}

TEST_F(FilesTest, ADeviceWhoseFileSystemKeepsNoBirthTimesLeavesTheKeyOut) {
    const QString plistPath = device->folder() + QStringLiteral("/device.plist");
    auto plist = platform::plist::readFile(plistPath);
    ASSERT_TRUE(plist);
    QVariantMap root = plist->toMap();
    QVariantMap emulation = root.value(QStringLiteral("Emulation")).toMap();
    emulation.insert(QStringLiteral("BirthTimes"), false);
    root.insert(QStringLiteral("Emulation"), emulation);
    ASSERT_TRUE(platform::plist::writeFile(plistPath, root));
    ASSERT_EQ(::mkdir(media("D").c_str(), 0755), 0);
    writeFile(media("D/new.txt"), "x");

    Conduit other = openConduit();  // the device's file system is looked at per connection
    HLDStatus status = 0;
    auto pairs = infoPairs(other.connection, "D/new.txt", &status);
    ASSERT_EQ(status, kQFCSuccess);
    EXPECT_EQ(pairs.count("st_birthtime"), 0u);
    EXPECT_EQ(pairs.count("st_mtime"), 1u);
    EXPECT_EQ(pairs.size(), 5u);
    // The same from a directory batch.
    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(other.connection, "D", &dir), kQFCSuccess);
    const int infoCalls = device->count("qfc-info");
    pairs = infoPairs(other.connection, "D/new.txt", &status);
    EXPECT_EQ(device->count("qfc-info"), infoCalls);
    EXPECT_EQ(pairs.count("st_birthtime"), 0u);
    EXPECT_EQ(pairs["st_size"], "1");
}

TEST_F(FilesTest, SizesOfTwoGibibytesAndMoreAreExactAndDataBeyondIsReadBackRight) {
    ASSERT_EQ(::mkdir(media("Big").c_str(), 0755), 0);
    const std::string path = media("Big/huge.bin");
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    const off_t size = (off_t(5) << 30) + 7;  // sparse: takes no space
    ASSERT_EQ(::ftruncate(fd, size), 0);
    // Data at a known place beyond 2^31, astride two of the reads below.
    const std::string marker = "beyond two gibibytes";
    const off_t markerAt = (off_t(1) << 31) + (off_t(1) << 20) - 5;
    ASSERT_EQ(::pwrite(fd, marker.data(), marker.size(), markerAt), static_cast<ssize_t>(marker.size()));
    HLDStatus status = 0;
    auto pairs = infoPairs(conduit.connection, "Big/huge.bin", &status);
    ASSERT_EQ(status, kQFCSuccess);
    EXPECT_EQ(pairs["st_size"], std::to_string(size));

    // The same size from a directory batch, without a round trip.
    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "Big", &dir), kQFCSuccess);
    const int infoCalls = device->count("qfc-info");
    pairs = infoPairs(conduit.connection, "Big/huge.bin", &status);
    ASSERT_EQ(status, kQFCSuccess);
    EXPECT_EQ(pairs["st_size"], std::to_string(size));
    EXPECT_EQ(device->count("qfc-info"), infoCalls);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);

    // Read from the start (there is no seeking) until past the marker: 64-bit positions.
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "Big/huge.bin", 1, &ref), kQFCSuccess);
    std::vector<char> buffer(512000);
    std::string around;  // the bytes from markerAt - 16 on
    uint64_t position = 0;
    while (position < static_cast<uint64_t>(markerAt) + (2u << 20)) {
        uint64_t length = buffer.size();
        ASSERT_EQ(QFCFileRefRead(conduit.connection, ref, buffer.data(), &length), kQFCSuccess);
        ASSERT_EQ(length, buffer.size()) << position;
        const uint64_t from = static_cast<uint64_t>(markerAt) - 16;
        for (uint64_t i = std::max(position, from); i < position + length && i < from + 64; ++i)
            around += buffer[i - position];
        position += length;
    }
    EXPECT_EQ(around, std::string(16, '\0') + marker + std::string(64 - 16 - marker.size(), '\0'));
    EXPECT_EQ(QFCFileRefClose(conduit.connection, ref), kQFCSuccess);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);  // give the page cache back
    ::close(fd);
    ::unlink(path.c_str());
}

TEST_F(FilesTest, AClientThatGoesAwayInTheMiddleOfAReadLeavesTheProcessAndTheDeviceServing) {
    const std::string data = pattern(24u << 20);
    writeFile(media("long.m4a"), data);
    QFCFileRef ref = kQFCInvalidFileRef, lock = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "long.m4a", 1, &ref), kQFCSuccess);
    // A lock that goes when the device has ended this connection.
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "gone.lock", 2, &lock), kQFCSuccess);
    ASSERT_EQ(QFCFileRefLock(conduit.connection, lock, 1), kQFCSuccess);

    // Ask for more than the socket holds (several answers in a row, unread), take the first
    // bytes, then hang up while the device is still sending.
    QCborMap request;
    request.insert(QStringLiteral("op"), QStringLiteral("read"));
    request.insert(QStringLiteral("ref"), static_cast<qint64>(ref));
    request.insert(QStringLiteral("length"), 512000);
    for (int i = 0; i < 32; ++i) ASSERT_TRUE(handlink::wire::writeFrame(conduit.fd, request));
    QCborMap answer;
    ASSERT_EQ(handlink::wire::readFrame(conduit.fd, &answer), handlink::wire::ReadResult::Ok);
    ASSERT_EQ(answer.value(QStringLiteral("status")).toInteger(-1), 0);
    ASSERT_EQ(answer.value(QStringLiteral("length")).toInteger(), 512000);
    char head[4096];
    ASSERT_TRUE(handlink::wire::recvAll(conduit.fd, head, sizeof head));
    EXPECT_EQ(std::string(head, sizeof head), data.substr(0, sizeof head));
    ::shutdown(conduit.fd, SHUT_RDWR);
    closeConduit(conduit);

    // Still here (no SIGPIPE ended the process), and the device ended that connection only.
    Conduit other = openConduit();
    QFCFileRef again = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(other.connection, "gone.lock", 2, &again), kQFCSuccess);
    EXPECT_TRUE(testsupport::runUntil([&] { return QFCFileRefLock(other.connection, again, 1) == kQFCSuccess; }));
    ASSERT_EQ(QFCFileRefOpen(other.connection, "long.m4a", 1, &again), kQFCSuccess);
    std::vector<char> buffer(512000);
    std::string got;
    for (;;) {
        uint64_t length = buffer.size();
        ASSERT_EQ(QFCFileRefRead(other.connection, again, buffer.data(), &length), kQFCSuccess);
        if (length == 0) break;
        got.append(buffer.data(), length);
    }
    EXPECT_TRUE(got == data);
}

TEST_F(FilesTest, AFileThatShrankBetweenReadsAnswersOnlyWhatIsLeft) {
    writeFile(media("shrinking.db"), pattern(1000));
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "shrinking.db", 1, &ref), kQFCSuccess);
    char buffer[1000];
    uint64_t length = 100;
    ASSERT_EQ(QFCFileRefRead(conduit.connection, ref, buffer, &length), kQFCSuccess);
    ASSERT_EQ(::truncate(media("shrinking.db").c_str(), 300), 0);
    length = sizeof buffer;
    ASSERT_EQ(QFCFileRefRead(conduit.connection, ref, buffer, &length), kQFCSuccess);
    EXPECT_EQ(length, 200u);
    EXPECT_EQ(std::string(buffer, length), pattern(1000).substr(100, 200));
    ASSERT_EQ(::truncate(media("shrinking.db").c_str(), 10), 0);
    length = sizeof buffer;
    ASSERT_EQ(QFCFileRefRead(conduit.connection, ref, buffer, &length), kQFCSuccess);
    EXPECT_EQ(length, 0u);
}

TEST_F(FilesTest, FifosAndOtherSpecialFilesAreRefusedWithoutHoldingUpTheConnection) {
    ASSERT_EQ(::mkfifo(media("pipe").c_str(), 0644), 0);
    ASSERT_TRUE(makeSocketFile(media("socket")));
    for (const auto& [name, type] : {std::pair{"pipe", "S_IFIFO"}, std::pair{"socket", "S_IFSOCK"}}) {
        for (uint64_t mode : {uint64_t(1), uint64_t(2)}) {
            QFCFileRef ref = 12345;
            EXPECT_EQ(QFCFileRefOpen(conduit.connection, name, mode, &ref), kQFCPermissionError) << name << " " << mode;
            EXPECT_EQ(ref, kQFCInvalidFileRef);
        }
        // The connection goes on; the file is described like any entry.
        HLDStatus status = 0;
        EXPECT_EQ(infoPairs(conduit.connection, name, &status)["st_ifmt"], type);
        EXPECT_EQ(status, kQFCSuccess);
    }
    EXPECT_EQ(device->count("qfc-open"), 4);
}

TEST_F(FilesTest, ANameLongerThanTheFileSystemAllowsIsAnInvalidArgument) {
    const std::string name(300, 'n');
    QFCFileRef ref = kQFCInvalidFileRef;
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, name.c_str(), 2, &ref), kQFCInvalidArgumentError);
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, ("Folder/" + name).c_str(), 2, &ref), kQFCNotFoundError);
    EXPECT_EQ(QFCFileRefOpen(conduit.connection, (name + "/x").c_str(), 2, &ref), kQFCInvalidArgumentError);
    HLDStatus status = 0;
    infoPairs(conduit.connection, name.c_str(), &status);
    EXPECT_EQ(status, kQFCInvalidArgumentError);
    EXPECT_EQ(QFCRemovePath(conduit.connection, name.c_str()), kQFCInvalidArgumentError);
    listNames(conduit.connection, name.c_str(), &status);
    EXPECT_EQ(status, kQFCInvalidArgumentError);
    // 255 bytes is still a name.
    const std::string longest(255, 'n');
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, longest.c_str(), 2, &ref), kQFCSuccess);
    EXPECT_EQ(::access(media(longest).c_str(), F_OK), 0);
}

TEST_F(FilesTest, ANulInsideAPathIsAnInvalidArgument) {
    writeFile(media("a"), "x");
    const QByteArray withNul("a\0b", 3);
    for (const char* op : {"open", "info", "remove", "dir-open"}) {
        const QCborMap answer = rawCall(conduit.fd, pathRequest(op, withNul));
        EXPECT_EQ(answer.value(QStringLiteral("status")).toInteger(-1), kQFCInvalidArgumentError) << op;
    }
    EXPECT_EQ(::access(media("a").c_str(), F_OK), 0);
    EXPECT_EQ(device->count("qfc-remove"), 1);
    // The connection goes on.
    HLDStatus status = 0;
    EXPECT_EQ(infoPairs(conduit.connection, "a", &status)["st_size"], "1");
}

TEST_F(FilesTest, InformationOfAPathThisConnectionRemovedOrCreatedIsNotAnsweredFromAnOldBatch) {
    ASSERT_EQ(::mkdir(media("D").c_str(), 0755), 0);
    writeFile(media("D/a"), "12345");
    writeFile(media("D/b"), "1234567");
    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "D", &dir), kQFCSuccess);
    HLDStatus status = 0;
    EXPECT_EQ(infoPairs(conduit.connection, "D/a", &status)["st_size"], "5");
    EXPECT_EQ(device->count("qfc-info"), 0);

    EXPECT_EQ(QFCRemovePath(conduit.connection, "D/a"), kQFCSuccess);
    infoPairs(conduit.connection, "D/a", &status);
    EXPECT_EQ(status, kQFCNotFoundError);
    EXPECT_EQ(device->count("qfc-info"), 1);

    // Gone behind the connection's back, then made again (empty) by an open that creates.
    ASSERT_EQ(::unlink(media("D/b").c_str()), 0);
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "D/b", 2, &ref), kQFCSuccess);
    EXPECT_EQ(infoPairs(conduit.connection, "D/b", &status)["st_size"], "0");
    EXPECT_EQ(status, kQFCSuccess);
    EXPECT_EQ(QFCDirectoryClose(conduit.connection, dir), kQFCSuccess);
}

TEST_F(FilesTest, AReadFaultStrikesInTheMiddleOfOneFile) {
    writeFile(media("other.db"), pattern(100));
    writeFile(media("Library.db"), pattern(5 * 1000));
    handlink::emu::Fault fault;
    fault.operation = "qfc-read";
    fault.status = kQFCReadError;
    fault.after = 2;
    fault.match = "Library.db";
    device->addFault(fault);

    QFCFileRef other = kQFCInvalidFileRef, ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "other.db", 2, &other), kQFCSuccess);
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "Library.db", 2, &ref), kQFCSuccess);
    char buffer[1000];
    std::vector<HLDStatus> statuses;
    for (int i = 0; i < 5; ++i) {
        uint64_t length = sizeof buffer;
        statuses.push_back(QFCFileRefRead(conduit.connection, ref, buffer, &length));
        uint64_t otherLength = 10;  // reads of another file neither strike nor count toward it
        EXPECT_EQ(QFCFileRefRead(conduit.connection, other, buffer, &otherLength), kQFCSuccess);
    }
    EXPECT_EQ(statuses, (std::vector<HLDStatus>{0, 0, kQFCReadError, 0, 0}));
    // The failed read moved nothing: the data goes on where it stopped.
    uint64_t length = sizeof buffer;
    ASSERT_EQ(QFCFileRefRead(conduit.connection, ref, buffer, &length), kQFCSuccess);
    EXPECT_EQ(std::string(buffer, length), pattern(5000).substr(4000, 1000));
}

TEST_F(FilesTest, EveryOperationCanBeFailedAndCounts) {
    writeFile(media("f"), "data");
    ASSERT_EQ(::mkdir(media("d").c_str(), 0755), 0);
    struct Case {
        const char* operation;
        std::function<HLDStatus()> call;
    };
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "f", 2, &ref), kQFCSuccess);
    QFCDirectoryRef dir = 0;
    ASSERT_EQ(QFCDirectoryOpen(conduit.connection, "d", &dir), kQFCSuccess);
    char buffer[8];
    const std::vector<Case> cases = {
        {"qfc-open", [&] { QFCFileRef r; return QFCFileRefOpen(conduit.connection, "f", 2, &r); }},
        {"qfc-read", [&] { uint64_t n = sizeof buffer; return QFCFileRefRead(conduit.connection, ref, buffer, &n); }},
        {"qfc-lock", [&] { return QFCFileRefLock(conduit.connection, ref, 1); }},
        {"qfc-unlock", [&] { return QFCFileRefUnlock(conduit.connection, ref); }},
        {"qfc-info", [&] { QFCKeyValueRef kv; return QFCFileInfoOpen(conduit.connection, "f", &kv); }},
        {"qfc-dir-open", [&] { QFCDirectoryRef d; return QFCDirectoryOpen(conduit.connection, "d", &d); }},
        {"qfc-remove", [&] { return QFCRemovePath(conduit.connection, "f"); }},
        {"qfc-close", [&] { return QFCFileRefClose(conduit.connection, ref); }},
        {"qfc-dir-close", [&] { return QFCDirectoryClose(conduit.connection, dir); }},
    };
    for (const Case& c : cases) {
        const int before = device->count(c.operation);
        handlink::emu::Fault fault;
        fault.operation = c.operation;
        fault.status = kQFCTimeOutError;
        device->addFault(fault);
        EXPECT_EQ(c.call(), kQFCTimeOutError) << c.operation;
        EXPECT_EQ(device->count(c.operation), before + 1) << c.operation;
    }
    EXPECT_EQ(::access(media("f").c_str(), F_OK), 0);  // the failed removal removed nothing

    // Connecting and disconnecting are counted and can fail too.
    EXPECT_EQ(device->count("qfc-connect"), 1);
    handlink::emu::Fault connectFault;
    connectFault.operation = "qfc-connect";
    connectFault.status = kQFCNoResourcesError;
    device->addFault(connectFault);
    const int fd = startService("com.corvid.qfc");
    QFCConnectionRef refused = reinterpret_cast<QFCConnectionRef>(1);
    EXPECT_EQ(QFCConnectionOpen(fd, 0, &refused), kQFCNoResourcesError);
    EXPECT_EQ(refused, nullptr);
    ::close(fd);
    EXPECT_EQ(device->count("qfc-connect"), 2);
    EXPECT_EQ(QFCConnectionClose(conduit.connection), kQFCSuccess);
    conduit.connection = nullptr;
    EXPECT_EQ(device->count("qfc-disconnect"), 1);
}

TEST_F(FilesTest, ADetachEndsTheConnectionAndCallsAnswerNotConnected) {
    writeFile(media("f"), "data");
    QFCFileRef ref = kQFCInvalidFileRef;
    ASSERT_EQ(QFCFileRefOpen(conduit.connection, "f", 2, &ref), kQFCSuccess);
    // A read held up on the device while the device goes away.
    device->delay("qfc-read", 60000);
    std::thread reader([&] {
        char buffer[8];
        uint64_t length = sizeof buffer;
        EXPECT_EQ(QFCFileRefRead(conduit.connection, ref, buffer, &length), kQFCNotConnectedError);
    });
    ASSERT_TRUE(testsupport::runUntil([&] { return device->count("qfc-read") == 1; }));
    emulator().detach(device->identifier());
    reader.join();
    char buffer[8];
    uint64_t length = sizeof buffer;
    EXPECT_EQ(QFCFileRefRead(conduit.connection, ref, buffer, &length), kQFCNotConnectedError);
    QFCKeyValueRef kv = nullptr;
    EXPECT_EQ(QFCFileInfoOpen(conduit.connection, "f", &kv), kQFCNotConnectedError);
    QFCDirectoryRef dir = 0;
    EXPECT_EQ(QFCDirectoryOpen(conduit.connection, "", &dir), kQFCNotConnectedError);
    EXPECT_EQ(QFCConnectionClose(conduit.connection), kQFCNotConnectedError);
    conduit.connection = nullptr;
}

}  // namespace
}  // namespace qfctest
