#pragma once
// Shared pieces of the benchmarks: best-of-N timing, shell commands, the 512 MiB bench file,
// device folders, a plain conduit read, and the printed figures.
#include <QString>
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
