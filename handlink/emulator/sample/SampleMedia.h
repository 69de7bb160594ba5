#pragma once
// Sample media for new device folders (makeDevice with a sample).
#include "handlink/emulator/Emulator.h"

#include <QString>

namespace handlink::emu {

// Fills mediaRoot (an existing, empty Media/ folder) with the sample named in options.sample
// ("small", "large" or a size such as "2G"), options.files files, seeded by options.seed.
// false with *error on failure. Defined in sample/SampleMedia.cpp.
bool fillSampleMedia(const QString& mediaRoot, const MakeDeviceOptions& options, QString* error);

}  // namespace handlink::emu
