// The transfer benchmark: LinkDev's copy and walk through handlinkd, side by side with cp and
// find over the same cached files.
//  - copy: a 512 MiB device file with copyFileFromDevice in the transfer phase, against cp of
//    the same file and the plain conduit read of it (the client library in 512,000-byte rounds);
//  - walk: a device of about 100,000 entries (sample "1G", 100,000 files), walked depth first
//    with enumerateDiretoryContentsFromDevice and a QFCFileInfo for each entry, and the sizing
//    pass of a deep copy of it, against find -printf over the same folder.
//
//   transfer_bench BUILD_DIR [--work DIR] [--runs N] [--only copy|walk]
// Each figure is the best of N runs (default 5) on warm caches, taken in turns.
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <cstdio>
#include <functional>

#include "BenchSupport.h"
#include "device/LinkDev.h"
#include "device/QFCFileInfo.h"
#include "status/HLTaskStatus.h"

namespace {

using namespace bench;

const QString kCopyDevice = QStringLiteral("BENCH-COPY");
const QString kWalkDevice = QStringLiteral("BENCH-WALK");
const QString kBenchPath = QStringLiteral("Recordings/bench.m4a");

class Observer : public LinkDevObserver {
public:
    void handlinkAvailabliltyDidChange() override {}
};

// Takes every update, as the window's progress display does.
class CountingDelegate : public HLTaskStatusDelegate {
public:
    void taskStatusDidChange(HLTaskStatus*) override { ++updates; }
    uint64_t updates = 0;
};

// The device object of an attached device, once the registry lists both bench devices.
std::shared_ptr<LinkDev> deviceFor(const QString& identifier)
{
    for (QDeadlineTimer deadline(20000); !deadline.hasExpired(); QThread::msleep(5)) {
        const QStringList listed = LinkDev::availableDeviceIdentifiers();
        if (listed.contains(kCopyDevice) && listed.contains(kWalkDevice)) {
            for (const std::shared_ptr<LinkDev>& device : {LinkDev::firstAvailableDevice(), LinkDev::lastAvailableDevice()})
                if (device && HLDeviceCopyDeviceIdentifier(device->deviceRef()) == identifier) return device;
            return nullptr;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return nullptr;
}

bool copyWithLinkDev(LinkDev& device, const QString& target)
{
    CountingDelegate delegate;
    HLTaskStatus status(&delegate);
    status.setTaskPhase(kHLTaskPhaseTransfer);
    std::optional<Error> error;
    const bool copied = device.copyFileFromDevice(kBenchPath, target, &error, &status);
    return copied && status.bytesTransfered() == static_cast<uint32_t>(kFileSize) &&
           QFile(QDir(target).filePath(kBenchPath)).size() == static_cast<qint64>(kFileSize);
}

// Depth first, every entry's information read into a record; the entries seen.
bool walkWithLinkDev(LinkDev& device, const QString& folder, uint64_t* entries)
{
    HLTaskStatus status;  // keeps the first error, so a failure shows in the result
    std::optional<Error> error;
    return device.enumerateDiretoryContentsFromDevice(
        folder, &error, &status, [&](const QFCFileInfo& item, HLTaskStatus*, std::optional<Error>*) {
            ++*entries;
            return !item.isDirectory() || walkWithLinkDev(device, item.path(), entries);
        });
}

bool sizeWithLinkDev(LinkDev& device, const QString& target, uint32_t* total)
{
    CountingDelegate delegate;
    HLTaskStatus status(&delegate);
    std::optional<Error> error;
    const bool sized = device.copyDirectoryFromDevice(QString(), target, true, &error, &status);
    *total = status.totalBytesToTransfer();
    return sized && !QFileInfo::exists(target);  // the sizing pass makes nothing
}

QString commandOutput(const std::string& command)
{
    QProcess process;
    process.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QString::fromStdString(command)});
    process.waitForFinished(-1);
    return QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
}

// Where the figures' files live.
struct Setup {
    QString work;
    QString bigFile;    // the 512 MiB file inside the copy device's media folder
    QString walkMedia;  // the walk device's media folder
};

// The copy figures, printed; false if a run failed.
bool benchCopy(LinkDev& device, const Setup& setup, int runs, std::string* aims)
{
    const QByteArray devicePath = QFile::encodeName(kBenchPath);
    const QString target = setup.work + QStringLiteral("/copy-target");
    const QString cpTarget = setup.work + QStringLiteral("/cp-copy.m4a");
    bool ok = device._qfcConnectionOpen();
    Best cp, conduit, copy;
    // Each destination is removed after its run, so no run writes over another's pages.
    for (int run = 0; ok && run < runs; ++run) {
        cp.time([&] { return shell("cp " + quoted(setup.bigFile) + " " + quoted(cpTarget)); }, &ok);
        QFile::remove(cpTarget);
        conduit.time([&] { return conduitRead(device.qfcConnectionRef(), devicePath.constData()); }, &ok);
        copy.time([&] { return copyWithLinkDev(device, target); }, &ok);
        QFile::remove(QDir(target).filePath(kBenchPath));
    }
    device._qfcConnectionClose();
    std::fprintf(stdout, "copy: 512 MiB device file to a local folder (best of %d)\n", runs);
    printFigure("cp file file2", cp.seconds);
    printFigure("conduit read, 512,000-byte rounds", conduit.seconds,
                ratioNote("vs cp", conduit.seconds / cp.seconds));
    printFigure("copyFileFromDevice, transfer phase", copy.seconds,
                ratioNote("vs cp", copy.seconds / cp.seconds) + ratioNote("vs conduit read", copy.seconds / conduit.seconds));
    const double copyVsCp = copy.seconds / cp.seconds;
    char text[96];
    std::snprintf(text, sizeof text, "copy <= 1.5x cp (%.2fx): %s", copyVsCp, verdict(copyVsCp, 1.5));
    aims->append(text);
    return ok;
}

// The walk figures, printed; false if a run failed or the walk disagrees with find.
bool benchWalk(LinkDev& device, const Setup& setup, int runs, std::string* aims)
{
    const std::string findCommand =
        "find " + quoted(setup.walkMedia) + " -mindepth 1 -printf '%P\\t%y\\t%s\\t%b\\t%n\\t%T@\\t%B@\\n'";
    const QString sizingTarget = setup.work + QStringLiteral("/sizing-target");
    bool ok = device._qfcConnectionOpen();
    Best find, walk, sizing;
    uint64_t walked = 0;
    uint32_t sized = 0;
    for (int run = 0; ok && run < runs; ++run) {
        find.time([&] { return shell(findCommand + " > /dev/null"); }, &ok);
        walk.time([&] {
            walked = 0;
            return walkWithLinkDev(device, QString(), &walked);
        }, &ok);
        sizing.time([&] { return sizeWithLinkDev(device, sizingTarget, &sized); }, &ok);
    }
    device._qfcConnectionClose();
    const uint64_t findEntries = commandOutput(findCommand + " | wc -l").toULongLong();
    const uint64_t fileBytes = commandOutput("find " + quoted(setup.walkMedia) +
                                             " -mindepth 1 ! -type d -printf '%s\\n' | awk '{s+=$1} END {print s}'")
                                   .toULongLong();
    std::fprintf(stdout, "walk: %llu entries (best of %d)\n", static_cast<unsigned long long>(findEntries), runs);
    printFigure("find -printf (type, size, blocks, links, times)", find.seconds);
    printFigure("enumerateDiretoryContentsFromDevice + QFCFileInfo", walk.seconds,
                ratioNote("vs find", walk.seconds / find.seconds));
    printFigure("copyDirectoryFromDevice deep, sizing phase", sizing.seconds,
                ratioNote("vs find", sizing.seconds / find.seconds));
    const double walkVsFind = walk.seconds / find.seconds;
    const double sizingVsFind = sizing.seconds / find.seconds;
    char text[128];
    std::snprintf(text, sizeof text, "walk <= 3x find (%.2fx): %s; sizing <= 4x find (%.2fx): %s", walkVsFind,
                  verdict(walkVsFind, 3.0), sizingVsFind, verdict(sizingVsFind, 4.0));
    aims->append(text);
    if (walked != findEntries) {
        std::fprintf(stderr, "transfer_bench: the walk saw %llu entries, find %llu\n",
                     static_cast<unsigned long long>(walked), static_cast<unsigned long long>(findEntries));
        ok = false;
    }
    if (sized != static_cast<uint32_t>(fileBytes)) {
        std::fprintf(stderr, "transfer_bench: the sizing pass counted %u bytes, find %llu\n", sized,
                     static_cast<unsigned long long>(fileBytes));
        ok = false;
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 2) {
        std::fprintf(stderr, "usage: transfer_bench BUILD_DIR [--work DIR] [--runs N] [--only copy|walk]\n");
        return 2;
    }
    const Options options = parseOptions(args);
    const int runs = options.runs;
    const bool copying = options.only != QLatin1String("walk");
    const bool walking = options.only != QLatin1String("copy");
    QTemporaryDir work(options.workBase + QStringLiteral("/transfer-bench-XXXXXX"));
    if (!work.isValid()) return 1;
    const QString socket = useWorkFolder(work);

    std::fprintf(stdout, "transfer benchmark: preparing data in %s\n", work.path().toLocal8Bit().constData());
    std::fflush(stdout);
    const QString copyDevice = work.filePath(QStringLiteral("copy-device"));
    const QString walkDevice = work.filePath(QStringLiteral("walk-device"));
    const Setup setup{work.path(), copyDevice + QStringLiteral("/Media/") + kBenchPath, walkDevice + QStringLiteral("/Media")};
    // Both devices are always made, so the registry lists two; the walk device's sample only
    // when it is walked.
    if (!makeBenchDevice(copyDevice, kCopyDevice, QString(), 0) || !QDir().mkpath(QFileInfo(setup.bigFile).path()) ||
        (copying && !writeBenchFile(setup.bigFile)) ||
        !makeBenchDevice(walkDevice, kWalkDevice, walking ? QStringLiteral("1G") : QString(), walking ? 100000 : 0))
        return 1;
    shell("cat " + quoted(setup.bigFile) + " > /dev/null 2>&1");
    shell("find " + quoted(setup.walkMedia) + " > /dev/null");

    QProcess daemon;
    if (!startDaemon(&daemon, args[1], socket, {copyDevice, walkDevice}, "transfer_bench")) return 1;
    Observer observer;
    LinkDev::registerDeviceObserver(&observer);
    std::shared_ptr<LinkDev> copier = deviceFor(kCopyDevice);
    std::shared_ptr<LinkDev> walker = deviceFor(kWalkDevice);
    bool ok = copier && walker;
    std::string aims;
    if (!ok)
        std::fprintf(stderr, "transfer_bench: devices not found (listed: %s)\n",
                     LinkDev::availableDeviceIdentifiers().join(u' ').toLocal8Bit().constData());
    if (ok && copying) ok = benchCopy(*copier, setup, runs, &aims);
    if (ok && copying && walking) aims += "; ";
    if (ok && walking) ok = benchWalk(*walker, setup, runs, &aims);
    copier.reset();
    walker.reset();
    LinkDev::unregisterDeviceObserver(&observer);
    daemon.terminate();
    daemon.waitForFinished(10000);
    if (!aims.empty()) std::fprintf(stdout, "aims: %s\n", aims.c_str());
    if (!ok) std::fprintf(stderr, "transfer_bench: a run failed\n");
    return ok ? 0 : 1;
}
