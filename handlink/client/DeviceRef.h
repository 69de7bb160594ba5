#pragma once
// The device reference behind HLDeviceRef: identifier and attachment number (known without
// the daemon), and the one lockdown connection shared by every holder of the reference.
#include "handlink/Handlink.h"
#include "handlink/wire/UniqueFd.h"

#include <QString>
#include <atomic>
#include <cstdint>
#include <mutex>

struct HLDevice {
    HLDevice(QString id, int64_t attach) : identifier(std::move(id)), attachment(attach) {}

    std::atomic<int> references{1};
    const QString identifier;
    const int64_t attachment;  // the daemon's number for this attachment; 0 for "any"

    // Set for good once this attachment is over: the device detached or the daemon went away
    // (the lockdown connection broke, or the subscription reported message 2 or 3). Every call
    // that needs the device then answers kHLDNotConnectedError at once.
    std::atomic<bool> gone{false};

    // Guards the lockdown connection and its nesting count. Held across each request and its
    // answer, so holders on several threads take turns on the one connection. (Sessions nest
    // on the device's side of the connection; the library keeps no count of them.)
    std::mutex mutex;
    handlink::wire::UniqueFd lockdown;
    int connectDepth = 0;
};

namespace handlink::client {

// A new reference (one reference count, owned by the caller).
HLDeviceRef makeDeviceRef(const QString& identifier, int64_t attachment);

}  // namespace handlink::client
