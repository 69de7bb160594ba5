// The transfer benchmark: LinkDev's copy and walk through handlinkd, side by side with cp and
// find over the same cached files.
//  - copy: a 512 MiB device file with copyFileFromDevice in the transfer phase, against cp of
//    the same file and the plain conduit read of it (the client library in 512,000-byte rounds);
//  - walk: a device of about 100,000 entries (sample "1G", 100,000 files), walked depth first
//    with enumerateDiretoryContentsFromDevice and a QFCFileInfo for each entry, and the sizing
//    pass of a deep copy of it, against find -printf over the same folder.
//
//   transfer_bench BUILD_DIR [--work DIR] [--runs N]
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

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 2) {
        std::fprintf(stderr, "usage: transfer_bench BUILD_DIR [--work DIR] [--runs N]\n");
        return 2;
    }
    QString workBase = QDir::tempPath();
    int runs = 5;
    for (qsizetype i = 2; i + 1 < args.size(); i += 2) {
        if (args[i] == QLatin1String("--work")) workBase = args[i + 1];
        if (args[i] == QLatin1String("--runs")) runs = std::max(1, args[i + 1].toInt());
    }
    QTemporaryDir work(workBase + QStringLiteral("/transfer-bench-XXXXXX"));
    if (!work.isValid()) return 1;
    const QString socket = work.filePath(QStringLiteral("run/handlinkd.sock"));
    qputenv("HANDLINK_SOCKET", QFile::encodeName(socket));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(work.filePath(QStringLiteral("config"))));

    std::fprintf(stdout, "transfer benchmark: preparing data in %s\n", work.path().toLocal8Bit().constData());
    std::fflush(stdout);
    const QString copyDevice = work.filePath(QStringLiteral("copy-device"));
    const QString walkDevice = work.filePath(QStringLiteral("walk-device"));
    const QString bigFile = copyDevice + QStringLiteral("/Media/") + kBenchPath;
    const QString walkMedia = walkDevice + QStringLiteral("/Media");
    const QString target = work.filePath(QStringLiteral("target"));
    if (!makeBenchDevice(copyDevice, kCopyDevice, QString(), 0) || !QDir().mkpath(QFileInfo(bigFile).path()) ||
        !writeBenchFile(bigFile) || !makeBenchDevice(walkDevice, kWalkDevice, QStringLiteral("1G"), 100000))
        return 1;
    shell("cat " + quoted(bigFile) + " > /dev/null");
    shell("find " + quoted(walkMedia) + " > /dev/null");

    QProcess daemon;
    daemon.setProgram(args[1] + QStringLiteral("/bin/handlinkd"));
    daemon.setArguments({QStringLiteral("--socket"), socket, QStringLiteral("--device"), copyDevice,
                         QStringLiteral("--device"), walkDevice});
    daemon.setStandardOutputFile(QProcess::nullDevice());
    daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    daemon.start();
    if (!daemon.waitForStarted()) {
        std::fprintf(stderr, "transfer_bench: cannot start %s\n", daemon.program().toLocal8Bit().constData());
        return 1;
    }
    Observer observer;
    LinkDev::registerDeviceObserver(&observer);
    std::shared_ptr<LinkDev> copier = deviceFor(kCopyDevice);
    std::shared_ptr<LinkDev> walker = deviceFor(kWalkDevice);
    if (!copier || !walker || !copier->_qfcConnectionOpen() || !walker->_qfcConnectionOpen()) {
        std::fprintf(stderr, "transfer_bench: no device connection (devices listed: %s)\n",
                     LinkDev::availableDeviceIdentifiers().join(u' ').toLocal8Bit().constData());
        return 1;
    }
    const QByteArray devicePath = QFile::encodeName(kBenchPath);
    const QString copied = QDir(target).filePath(kBenchPath);
    const QString cpTarget = work.filePath(QStringLiteral("cp-copy.m4a"));
    const QString sizingTarget = work.filePath(QStringLiteral("sizing-target"));

    // Each destination is removed after its run, so no run writes over another's pages.
    bool ok = true;
    Best cp, conduit, copy;
    for (int run = 0; run < runs; ++run) {
        cp.time([&] { return shell("cp " + quoted(bigFile) + " " + quoted(cpTarget)); }, &ok);
        QFile::remove(cpTarget);
        conduit.time([&] { return conduitRead(copier->qfcConnectionRef(), devicePath.constData()); }, &ok);
        copy.time([&] { return copyWithLinkDev(*copier, target); }, &ok);
        QFile::remove(copied);
    }
    const std::string findCommand = "find " + quoted(walkMedia) + " -mindepth 1 -printf '%P\\t%y\\t%s\\t%b\\t%n\\t%T@\\t%B@\\n'";
    Best find, walk, sizing;
    uint64_t walked = 0;
    uint32_t sized = 0;
    for (int run = 0; run < runs; ++run) {
        find.time([&] { return shell(findCommand + " > /dev/null"); }, &ok);
        walk.time([&] {
            walked = 0;
            return walkWithLinkDev(*walker, QString(), &walked);
        }, &ok);
        sizing.time([&] { return sizeWithLinkDev(*walker, sizingTarget, &sized); }, &ok);
    }
    const uint64_t findEntries = commandOutput(findCommand + " | wc -l").toULongLong();
    const uint64_t fileBytes =
        commandOutput("find " + quoted(walkMedia) + " -mindepth 1 ! -type d -printf '%s\\n' | awk '{s+=$1} END {print s}'")
            .toULongLong();
    copier->_qfcConnectionClose();
    walker->_qfcConnectionClose();
    copier.reset();
    walker.reset();
    LinkDev::unregisterDeviceObserver(&observer);
    daemon.terminate();
    daemon.waitForFinished(10000);

    std::fprintf(stdout, "copy: 512 MiB device file to a local folder (best of %d)\n", runs);
    printFigure("cp file file2", cp.seconds);
    printFigure("conduit read (client library, 512,000-byte rounds)", conduit.seconds,
                ratioNote("vs cp", conduit.seconds / cp.seconds));
    printFigure("copyFileFromDevice, transfer phase", copy.seconds,
                ratioNote("vs cp", copy.seconds / cp.seconds) + ratioNote("vs conduit read", copy.seconds / conduit.seconds));
    std::fprintf(stdout, "walk: %llu entries (best of %d)\n", static_cast<unsigned long long>(findEntries), runs);
    printFigure("find -printf (type, size, blocks, links, times)", find.seconds);
    printFigure("enumerateDiretoryContentsFromDevice + QFCFileInfo", walk.seconds,
                ratioNote("vs find", walk.seconds / find.seconds));
    printFigure("copyDirectoryFromDevice deep, sizing phase", sizing.seconds,
                ratioNote("vs find", sizing.seconds / find.seconds));
    const double copyVsCp = copy.seconds / cp.seconds;
    const double walkVsFind = walk.seconds / find.seconds;
    const double sizingVsFind = sizing.seconds / find.seconds;
    std::fprintf(stdout, "aims: copy <= 1.5x cp (%.2fx): %s; walk <= 3x find (%.2fx): %s; sizing <= 4x find (%.2fx): %s\n",
                 copyVsCp, verdict(copyVsCp, 1.5), walkVsFind, verdict(walkVsFind, 3.0), sizingVsFind,
                 verdict(sizingVsFind, 4.0));
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
    if (!ok) std::fprintf(stderr, "transfer_bench: a run failed\n");
    return ok ? 0 : 1;
}
