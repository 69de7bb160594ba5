#pragma once
// Shared pieces of the benchmarks: best-of-N timing, shell commands, the 512 MiB bench file,
// device folders, a plain conduit read, and the printed figures.
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "handlink/Handlink.h"

namespace bench {

constexpr uint64_t kFileSize = 512ull << 20;
constexpr size_t kChunk = 512000;

// The best (shortest) of the runs of one figure.
struct Best {
    double seconds = 1e30;
    // Times run; a run that answers false clears *ok.
    void time(const std::function<bool()>& run, bool* ok);
};

// The options both benchmarks take after BUILD_DIR: --work DIR, --runs N, --only PART.
struct Options {
    QString workBase;  // default: the temporary folder
    int runs = 5;
    QString only;      // empty: every part
};
Options parseOptions(const QStringList& arguments);

// Points the client library and this host's configuration into work (HANDLINK_SOCKET,
// XDG_CONFIG_HOME); the daemon's socket path.
QString useWorkFolder(const QTemporaryDir& work);
// Starts BUILD_DIR/bin/handlinkd on socket with the device folders; false (said on standard
// error, naming who) when it does not start.
bool startDaemon(QProcess* daemon, const QString& buildDir, const QString& socket, const QStringList& devices,
                 const char* who);

bool shell(const std::string& command);
std::string quoted(const QString& path);

// Writes kFileSize bytes of fixed pseudo-random data.
bool writeBenchFile(const QString& path);
// Makes a device folder (sample media as handlinkctl make-device --sample SAMPLE --files N).
bool makeBenchDevice(const QString& folder, const QString& identifier, const QString& sample, int files);

// Reads a kFileSize device file through the client library in kChunk rounds.
bool conduitRead(QFCConnectionRef connection, const char* path);

// "  <label>   <seconds> s<note>"
void printFigure(const char* label, double seconds, const std::string& note = std::string());
// "   <name> <value>x"
std::string ratioNote(const char* name, double value);
const char* verdict(double ratio, double aim);  // "met" or "missed"

}  // namespace bench
