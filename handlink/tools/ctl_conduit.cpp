// handlinkctl commands of the file conduit. Each registers itself here with
// registerCommand() (see CtlCommands.h); main() calls registerConduitCommands() once.
//
// The daemon side of "hold-lock" already exists: the control request
//   {"op":"hold-lock","id":ID,"path":PATH,"exclusive":bool,"yieldOn":NAME,
//    "afterRequests":K,"afterMs":MS,"seconds":N}
// answers status 0 once the device holds the lock (docs/protocol.md, "Control").
// "make-device --sample/--files/--seed" is parsed by the core make-device command and handed
// to makeDevice(), which calls fillSampleMedia() (emulator/sample/SampleMedia.h).
#include "handlink/tools/CtlCommands.h"

namespace handlink::ctl {

void registerConduitCommands() {}

}  // namespace handlink::ctl
