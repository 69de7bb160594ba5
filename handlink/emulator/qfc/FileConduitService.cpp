#include "handlink/emulator/qfc/FileConduitService.h"

#include "handlink/emulator/qfc/ConduitSession.h"

namespace handlink::emu {

void serveFileConduit(int fd, std::shared_ptr<DeviceState> device, const std::atomic<bool>& stopping) {
    qfc::ConduitSession session(fd, std::move(device), stopping);
    session.run();
}

}  // namespace handlink::emu
