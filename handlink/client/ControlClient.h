#pragma once
// The client side of the daemon's control connection (docs/protocol.md, "Control"), for
// handlinkctl and for programs that drive an emulator in another process. Not part of the
// device-access API. One thread at a time per object.
#include "handlink/Handlink.h"
#include "handlink/wire/UniqueFd.h"

#include <QCborMap>
#include <QString>

namespace handlink::client {

class ControlClient {
public:
    // Connects to the socket (the default daemon socket when path is empty) and opens a
    // control connection.
    bool open(const QString& socketPath, QString* error);
    // One request: true when the daemon answered status 0. Otherwise *error holds the daemon's
    // message (or what went wrong on the way) and *status its status.
    bool call(const QCborMap& request, QCborMap* answer, QString* error, int32_t* status = nullptr);
    int fd() const { return _fd.get(); }

private:
    wire::UniqueFd _fd;
};

// A new device reference for an attached device, found through the control connection's
// device list (handlinkctl post uses it; so may tests that run without a subscription).
// nullptr with *error when no such device is attached.
HLDeviceRef copyDeviceForIdentifier(const QString& socketPath, const QString& identifier, QString* error);

}  // namespace handlink::client
