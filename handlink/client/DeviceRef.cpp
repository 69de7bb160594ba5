// Reference counting and identity of device references.
#include "handlink/client/DeviceRef.h"

namespace handlink::client {

HLDeviceRef makeDeviceRef(const QString& identifier, int64_t attachment) { return new HLDevice(identifier, attachment); }

}  // namespace handlink::client

void HLDeviceRetain(HLDeviceRef device) {
    if (device) device->references.fetch_add(1, std::memory_order_relaxed);
}

void HLDeviceRelease(HLDeviceRef device) {
    if (device && device->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete device;
}

QString HLDeviceCopyDeviceIdentifier(HLDeviceRef device) { return device ? device->identifier : QString(); }
