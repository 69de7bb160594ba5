#include "BenchSupport.h"

#include <fcntl.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "handlink/emulator/Emulator.h"

namespace bench {

void Best::time(const std::function<bool()>& run, bool* ok)
{
    const auto start = std::chrono::steady_clock::now();
    if (!run()) *ok = false;
    seconds = std::min(seconds, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
}

Options parseOptions(const QStringList& arguments)
{
    Options options;
    options.workBase = QDir::tempPath();
    for (qsizetype i = 2; i + 1 < arguments.size(); i += 2) {
        if (arguments[i] == QLatin1String("--work")) options.workBase = arguments[i + 1];
        if (arguments[i] == QLatin1String("--runs")) options.runs = std::max(1, arguments[i + 1].toInt());
        if (arguments[i] == QLatin1String("--only")) options.only = arguments[i + 1];
    }
    return options;
}

QString useWorkFolder(const QTemporaryDir& work)
{
    const QString socket = work.filePath(QStringLiteral("run/handlinkd.sock"));
    qputenv("HANDLINK_SOCKET", QFile::encodeName(socket));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(work.filePath(QStringLiteral("config"))));
    return socket;
}

bool startDaemon(QProcess* daemon, const QString& buildDir, const QString& socket, const QStringList& devices,
                 const char* who)
{
    QStringList arguments{QStringLiteral("--socket"), socket};
    for (const QString& device : devices) arguments << QStringLiteral("--device") << device;
    daemon->setProgram(buildDir + QStringLiteral("/bin/handlinkd"));
    daemon->setArguments(arguments);
    daemon->setStandardOutputFile(QProcess::nullDevice());
    daemon->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    daemon->start();
    if (daemon->waitForStarted()) return true;
    std::fprintf(stderr, "%s: cannot start %s\n", who, daemon->program().toLocal8Bit().constData());
    return false;
}

bool shell(const std::string& command)
{
    return std::system(command.c_str()) == 0;
}

std::string quoted(const QString& path)
{
    return "'" + path.toStdString() + "'";
}

bool writeBenchFile(const QString& path)
{
    const int fd = ::open(path.toLocal8Bit().constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return false;
    std::vector<uint64_t> block(1 << 17);
    uint64_t state = 0x9E3779B97F4A7C15ull;
    bool ok = true;
    for (uint64_t done = 0; ok && done < kFileSize; done += block.size() * 8) {
        for (auto& word : block) word = (state = state * 6364136223846793005ull + 1442695040888963407ull) >> 11;
        ok = ::write(fd, block.data(), block.size() * 8) == static_cast<ssize_t>(block.size() * 8);
    }
    ::close(fd);
    return ok;
}

bool makeBenchDevice(const QString& folder, const QString& identifier, const QString& sample, int files)
{
    handlink::emu::MakeDeviceOptions options;
    options.identifier = identifier;
    options.sample = sample;
    options.files = files;
    options.seed = 42;
    QString error;
    if (handlink::emu::makeDevice(folder, options, &error)) return true;
    std::fprintf(stderr, "bench: %s\n", error.toLocal8Bit().constData());
    return false;
}

bool conduitRead(QFCConnectionRef connection, const char* path)
{
    QFCFileRef ref = kQFCInvalidFileRef;
    if (QFCFileRefOpen(connection, path, kQFCModeReadWriteCreate, &ref) != 0) return false;
    std::vector<char> buffer(kChunk);
    uint64_t total = 0;
    for (;;) {
        uint64_t length = buffer.size();
        if (QFCFileRefRead(connection, ref, buffer.data(), &length) != 0) return false;
        if (length == 0) break;
        total += length;
    }
    QFCFileRefClose(connection, ref);
    return total == kFileSize;
}

void printFigure(const char* label, double seconds, const std::string& note)
{
    std::fprintf(stdout, "  %-48s %7.3f s%s\n", label, seconds, note.c_str());
}

std::string ratioNote(const char* name, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "   %s %.2fx", name, value);
    return std::string(text);
}

const char* verdict(double ratio, double aim)
{
    return ratio <= aim ? "met" : "missed";
}

}  // namespace bench
