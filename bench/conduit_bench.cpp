// The file-conduit benchmark: reading a 512 MiB file in 512,000-byte chunks and walking a
// media area of about 100,000 entries with file information for each, through handlinkd, side
// by side with the plain local equivalents (cat, find -printf) and with the plainest possible
// link between two processes (a socket pair, a 4-byte request, a 4-byte length, the payload).
//
//   conduit_bench BUILD_DIR [--work DIR] [--runs N]
// Each figure is the best of N runs (default 5) on warm caches, taken in turns.
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "handlink/Handlink.h"
#include "handlink/client/ControlClient.h"
#include "handlink/emulator/Emulator.h"

namespace {

using namespace bench;

constexpr int kListingFiles = 90000;  // with their artist and album folders, about 100,000 entries

bool fullRead(int fd, void* data, size_t length) {
    char* p = static_cast<char*>(data);
    while (length > 0) {
        ssize_t n = ::read(fd, p, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool fullWrite(int fd, const void* data, size_t length) {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        ssize_t n = ::write(fd, p, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// The floor: a child process serves the file over one socket pair in 512,000-byte rounds.
bool socketFloor(const QString& path, bool useSendfile) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return false;
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pair[0]);
        const int file = ::open(path.toLocal8Bit().constData(), O_RDONLY);
        std::vector<char> buffer(kChunk);
        off_t offset = 0;
        uint32_t request;
        while (fullRead(pair[1], &request, sizeof request)) {
            const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(request, kFileSize - static_cast<uint64_t>(offset)));
            if (!fullWrite(pair[1], &n, sizeof n)) break;
            if (useSendfile) {
                size_t left = n;
                while (left > 0) {
                    ssize_t sent = ::sendfile(pair[1], file, &offset, left);
                    if (sent <= 0) _exit(1);
                    left -= static_cast<size_t>(sent);
                }
            } else {
                if (::pread(file, buffer.data(), n, offset) != static_cast<ssize_t>(n) || !fullWrite(pair[1], buffer.data(), n))
                    _exit(1);
                offset += n;
            }
        }
        _exit(0);
    }
    ::close(pair[1]);
    std::vector<char> buffer(kChunk);
    uint64_t total = 0;
    for (;;) {
        const uint32_t request = kChunk;
        uint32_t n = 0;
        if (!fullWrite(pair[0], &request, sizeof request) || !fullRead(pair[0], &n, sizeof n)) break;
        if (n == 0 || !fullRead(pair[0], buffer.data(), n)) break;
        total += n;
    }
    ::close(pair[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    return total == kFileSize;
}

struct Link {
    HLDeviceRef device = nullptr;
    int fd = -1;
    QFCConnectionRef connection = nullptr;
};

bool openConduit(const QString& socket, const QString& identifier, Link* link) {
    QString error;
    // The daemon attaches its devices as it starts: ask until this one is listed.
    for (int attempt = 0; attempt < 400 && !link->device; ++attempt) {
        link->device = handlink::client::copyDeviceForIdentifier(socket, identifier, &error);
        if (!link->device) QThread::msleep(25);
    }
    if (!link->device) {
        std::fprintf(stderr, "conduit_bench: %s\n", error.toLocal8Bit().constData());
        return false;
    }
    if (HLDeviceConnect(link->device) != 0) return false;
    if (!HLDeviceIsPaired(link->device) && HLDevicePair(link->device) != 0) return false;
    if (HLDeviceStartSession(link->device) != 0) return false;
    if (HLDeviceStartService(link->device, QStringLiteral("com.corvid.qfc"), &link->fd, nullptr) != 0) return false;
    HLDeviceStopSession(link->device);
    HLDeviceDisconnect(link->device);
    return QFCConnectionOpen(link->fd, 0, &link->connection) == 0;
}

// The walk of the transfer routines: depth first, each entry's information read as pairs.
bool conduitWalk(QFCConnectionRef connection, const std::string& path, uint64_t* entries) {
    QFCDirectoryRef directory = 0;
    if (QFCDirectoryOpen(connection, path.c_str(), &directory) != 0) return false;
    bool ok = true;
    for (;;) {
        const char* name = nullptr;
        if (QFCDirectoryRead(connection, directory, &name) != 0) {
            ok = false;
            break;
        }
        if (!name) break;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        const std::string child = path.empty() ? std::string(name) : path + "/" + name;
        QFCKeyValueRef pairs = nullptr;
        if (QFCFileInfoOpen(connection, child.c_str(), &pairs) != 0) {
            ok = false;
            continue;
        }
        bool folder = false;
        const char* key = nullptr;
        const char* value = nullptr;
        while (QFCKeyValueRead(pairs, &key, &value) == 0 && key && value)
            if (std::strcmp(key, "st_ifmt") == 0) folder = std::strstr(value, "S_IFDIR") != nullptr;
        QFCKeyValueClose(pairs);
        ++*entries;
        if (folder) ok = conduitWalk(connection, child, entries) && ok;
    }
    QFCDirectoryClose(connection, directory);
    return ok;
}

long peakMemoryKiB(qint64 pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:")) return line.mid(6).trimmed().split(' ').value(0).toLong();
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 2) {
        std::fprintf(stderr, "usage: conduit_bench BUILD_DIR [--work DIR] [--runs N]\n");
        return 2;
    }
    const Options options = parseOptions(args);
    const int runs = options.runs;
    QTemporaryDir work(options.workBase + QStringLiteral("/conduit-bench-XXXXXX"));
    if (!work.isValid()) return 1;
    const QString socket = useWorkFolder(work);

    std::fprintf(stdout, "conduit benchmark: preparing data in %s\n", work.path().toLocal8Bit().constData());
    std::fflush(stdout);
    const QString readDevice = work.filePath(QStringLiteral("read-device"));
    const QString listDevice = work.filePath(QStringLiteral("list-device"));
    const QString bigFile = readDevice + QStringLiteral("/Media/Recordings/bench.m4a");
    if (!makeBenchDevice(readDevice, QStringLiteral("BENCH-READ"), QString(), 0) ||
        !QDir().mkpath(readDevice + QStringLiteral("/Media/Recordings")) || !writeBenchFile(bigFile) ||
        !makeBenchDevice(listDevice, QStringLiteral("BENCH-LIST"), QStringLiteral("32M"), kListingFiles))
        return 1;
    const QString listMedia = listDevice + QStringLiteral("/Media");
    shell("cat " + quoted(bigFile) + " > /dev/null");
    shell("find " + quoted(listMedia) + " > /dev/null");

    QProcess daemon;
    if (!startDaemon(&daemon, args[1], socket, {readDevice, listDevice}, "conduit_bench")) return 1;
    Link readLink, listLink;
    if (!openConduit(socket, QStringLiteral("BENCH-READ"), &readLink) ||
        !openConduit(socket, QStringLiteral("BENCH-LIST"), &listLink)) {
        std::fprintf(stderr, "conduit_bench: no conduit connection\n");
        return 1;
    }

    // The figures of one kind are taken in turns, run after run, so that a passing load on the
    // machine weighs on all of them alike; each is the best of its runs.
    bool ok = true;
    Best cat, floorWrite, floorSendfile, conduit;
    for (int run = 0; run < runs; ++run) {
        cat.time([&] { return shell("cat " + quoted(bigFile) + " > /dev/null"); }, &ok);
        floorWrite.time([&] { return socketFloor(bigFile, false); }, &ok);
        floorSendfile.time([&] { return socketFloor(bigFile, true); }, &ok);
        conduit.time([&] { return conduitRead(readLink.connection, "Recordings/bench.m4a"); }, &ok);
    }
    const double floor = std::min(floorWrite.seconds, floorSendfile.seconds);
    const std::string findCommand = "find " + quoted(listMedia) + " -mindepth 1 -printf '%P\\t%y\\t%s\\t%b\\t%n\\t%T@\\t%B@\\n'";
    Best find, listing;
    uint64_t walked = 0;
    for (int run = 0; run < runs; ++run) {
        find.time([&] { return shell(findCommand + " > /dev/null"); }, &ok);
        listing.time([&] {
            walked = 0;
            return conduitWalk(listLink.connection, "", &walked);
        }, &ok);
    }
    QProcess counter;
    counter.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QString::fromStdString(findCommand + " | wc -l")});
    counter.waitForFinished(-1);
    const uint64_t findEntries = counter.readAllStandardOutput().trimmed().toULongLong();
    const long peakKiB = peakMemoryKiB(daemon.processId());
    QFCConnectionClose(readLink.connection);
    QFCConnectionClose(listLink.connection);
    ::close(readLink.fd);
    ::close(listLink.fd);
    HLDeviceRelease(readLink.device);
    HLDeviceRelease(listLink.device);
    daemon.terminate();
    daemon.waitForFinished(10000);

    std::fprintf(stdout, "read: 512 MiB file in 512,000-byte chunks (best of %d)\n", runs);
    printFigure("cat file > /dev/null", cat.seconds);
    printFigure("socket pair floor, read/write", floorWrite.seconds);
    printFigure("socket pair floor, sendfile", floorSendfile.seconds);
    printFigure("conduit through handlinkd", conduit.seconds,
                ratioNote("vs floor", conduit.seconds / floor) + ratioNote("vs cat", conduit.seconds / cat.seconds));
    std::fprintf(stdout, "list: %llu entries with file information (best of %d)\n", static_cast<unsigned long long>(findEntries), runs);
    printFigure("find -printf (type, size, blocks, links, times)", find.seconds);
    printFigure("conduit walk through handlinkd", listing.seconds, ratioNote("vs find", listing.seconds / find.seconds));
    std::fprintf(stdout, "handlinkd peak memory: %ld KiB\n", peakKiB);
    const double readVsCat = conduit.seconds / cat.seconds;
    const double readVsFloor = conduit.seconds / floor;
    const double listVsFind = listing.seconds / find.seconds;
    std::fprintf(stdout, "required aims: read <= 2x cat (%.2fx): %s; listing <= 10x find (%.2fx): %s\n", readVsCat,
                 verdict(readVsCat, 2.0), listVsFind, verdict(listVsFind, 10.0));
    std::fprintf(stdout, "design aims:   read <= 1.3x floor (%.2fx): %s; listing <= 3x find (%.2fx): %s\n", readVsFloor,
                 verdict(readVsFloor, 1.3), listVsFind, verdict(listVsFind, 3.0));
    if (walked != findEntries) {
        std::fprintf(stderr, "conduit_bench: the walk saw %llu entries, find %llu\n",
                     static_cast<unsigned long long>(walked), static_cast<unsigned long long>(findEntries));
        ok = false;
    }
    if (!ok) std::fprintf(stderr, "conduit_bench: a run failed\n");
    return ok ? 0 : 1;
}
