#pragma once
// Sample media for new device folders (makeDevice with a sample): a realistic, deterministic
// Media/ folder.
//
// Every path that Get Files asks for by default is named: most are present, a few are left out
// on purpose (as on real devices). The library databases and their journals, artwork, purchases
// and podcasts with their databases, recordings, folders nested several levels deep, names
// with spaces and non-ASCII characters, empty files and a few large files. The same seed gives
// the same tree, the same bytes and the same modification times.
#include "handlink/emulator/Emulator.h"

#include <QString>
#include <cstdint>

namespace handlink::emu {

// Fills mediaRoot (an existing, empty Media/ folder) with the sample named in options.sample
// ("small", "large" or a size such as "2G"), options.files files, seeded by options.seed.
// false with *error on failure. Defined in sample/SampleMedia.cpp.
bool fillSampleMedia(const QString& mediaRoot, const MakeDeviceOptions& options, QString* error);

namespace sample {

struct SamplePlan {
    uint64_t bytes = 0;  // content budget
    int files = 0;       // files in the whole area (at least the fixed set)
};

// "small" (about 15 MiB, under 20 MB), "large" (1 GiB) or a size such as "600M", "2G",
// "123456" (suffixes K, M, G, T in powers of 1024). `files` 0 takes the kind's default.
// False (with *error) for a text that is none of these.
bool planSample(const QString& sample, int files, SamplePlan* plan, QString* error = nullptr);

// The paths of the default Get Files lists that a sample leaves out on purpose (null-ended).
const char* const* sampleMissingPaths();

}  // namespace sample
}  // namespace handlink::emu
