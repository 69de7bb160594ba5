#pragma once
// The file-conduit service ("com.corvid.qfc") of an emulated device.
#include <atomic>
#include <memory>

namespace handlink::emu {

class DeviceState;

// Serves one file-conduit connection until the client closes it, the device detaches or the
// server stops. The server has already answered the service request on fd (status 0) and
// keeps fd registered with the device, so a detach shuts it down; the server closes fd after
// this returns. Runs on the connection's own thread.
void serveFileConduit(int fd, std::shared_ptr<DeviceState> device, const std::atomic<bool>& stopping);

}  // namespace handlink::emu
