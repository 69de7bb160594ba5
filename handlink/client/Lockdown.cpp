// The lockdown calls: one connection per reference, connect and session nested by count on the
// reference, every call sent to the device (which counts it). A broken connection (detach,
// daemon gone) answers kHLDNotConnectedError and resets the reference to "not connected".
#include "handlink/Handlink.h"
#include "handlink/client/DaemonSocket.h"
#include "handlink/client/DeviceRef.h"
#include "handlink/client/HostId.h"
#include "handlink/wire/Frame.h"
#include "handlink/wire/Values.h"

namespace {

using handlink::wire::UniqueFd;

QCborMap request(const char* op) {
    QCborMap map;
    map.insert(QStringLiteral("op"), QLatin1String(op));
    return map;
}

void reset(HLDevice& device) {
    device.lockdown.reset();
    device.connectDepth = 0;
    device.sessionDepth = 0;
}

// Sends a request on the open connection (device.mutex held). On a broken connection the
// reference is reset and kHLDNotConnectedError answered.
HLDStatus send(HLDevice& device, const QCborMap& message, QCborMap* answer = nullptr) {
    QCborMap reply;
    if (!handlink::wire::exchange(device.lockdown.get(), message, &reply)) {
        reset(device);
        return kHLDNotConnectedError;
    }
    const HLDStatus status = handlink::wire::statusOf(reply);
    if (answer) *answer = reply;
    return status;
}

// Opens the connection: the first request names the device, its attachment and this host.
HLDStatus open(HLDevice& device) {
    UniqueFd fd = handlink::client::connectToDaemon();
    if (!fd) return kHLDNotConnectedError;
    QCborMap message = request("connect");
    message.insert(QStringLiteral("device"), device.identifier);
    message.insert(QStringLiteral("attachment"), qint64(device.attachment));
    message.insert(QStringLiteral("host"), handlink::client::hostIdentifier());
    QCborMap reply;
    if (!handlink::wire::exchange(fd.get(), message, &reply)) return kHLDNotConnectedError;
    const HLDStatus status = handlink::wire::statusOf(reply);
    if (status != kHLDSuccess) return status;
    device.lockdown = std::move(fd);
    device.connectDepth = 1;
    device.sessionDepth = 0;
    return kHLDSuccess;
}

}  // namespace

HLDStatus HLDeviceConnect(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (!device->lockdown) return open(*device);
    const HLDStatus status = send(*device, request("connect"));
    if (status == kHLDSuccess) ++device->connectDepth;
    return status;
}

HLDStatus HLDeviceDisconnect(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (!device->lockdown) return kHLDNotConnectedError;
    const HLDStatus status = send(*device, request("disconnect"));
    if (status == kHLDSuccess && --device->connectDepth == 0) reset(*device);
    return status;
}

bool HLDeviceIsPaired(HLDeviceRef device) {
    if (!device) return false;
    std::lock_guard lock(device->mutex);
    if (!device->lockdown) return false;
    QCborMap answer;
    if (send(*device, request("is-paired"), &answer) != kHLDSuccess) return false;
    return answer.value(QStringLiteral("paired")).toBool();
}

HLDStatus HLDevicePair(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (!device->lockdown) return kHLDNotConnectedError;
    return send(*device, request("pair"));
}

HLDStatus HLDeviceStartSession(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (!device->lockdown) return kHLDNotConnectedError;
    const HLDStatus status = send(*device, request("start-session"));
    if (status == kHLDSuccess) ++device->sessionDepth;
    return status;
}

HLDStatus HLDeviceStopSession(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (!device->lockdown) return kHLDSessionInactiveError;
    const HLDStatus status = send(*device, request("stop-session"));
    if (status == kHLDSuccess && device->sessionDepth > 0) --device->sessionDepth;
    return status;
}

QVariant HLDeviceCopyValue(HLDeviceRef device, const QString& domain, const QString& key) {
    if (!device) return QVariant();
    std::lock_guard lock(device->mutex);
    if (!device->lockdown) return QVariant();
    QCborMap message = request("get-value");
    if (!domain.isEmpty()) message.insert(QStringLiteral("domain"), domain);
    if (!key.isNull()) message.insert(QStringLiteral("key"), key);
    QCborMap answer;
    if (send(*device, message, &answer) != kHLDSuccess) return QVariant();
    return handlink::wire::fromCbor(answer.value(QStringLiteral("value")));
}

HLDStatus HLDeviceSetValue(HLDeviceRef device, const QString& domain, const QString& key, const QVariant& value) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (!device->lockdown) return kHLDSessionInactiveError;
    QCborMap message = request("set-value");
    if (!domain.isEmpty()) message.insert(QStringLiteral("domain"), domain);
    message.insert(QStringLiteral("key"), key);
    message.insert(QStringLiteral("value"), handlink::wire::toCbor(value));
    return send(*device, message);
}

HLDStatus HLDeviceStartService(HLDeviceRef device, const QString& serviceName, int* outSocket, const QVariantMap*) {
    if (!device || !outSocket) return kHLDInvalidArgumentError;
    *outSocket = -1;
    QString ticket;
    {
        std::lock_guard lock(device->mutex);
        if (!device->lockdown) return kHLDSessionInactiveError;
        QCborMap message = request("start-service");
        message.insert(QStringLiteral("service"), serviceName);
        QCborMap answer;
        const HLDStatus status = send(*device, message, &answer);
        if (status != kHLDSuccess) return status;
        ticket = answer.value(QStringLiteral("ticket")).toString();
    }
    // The service connection is a connection of its own, independent of the lockdown one.
    UniqueFd fd = handlink::client::connectToDaemon();
    if (!fd) return kHLDNotConnectedError;
    QCborMap message = request("service");
    message.insert(QStringLiteral("ticket"), ticket);
    QCborMap answer;
    if (!handlink::wire::exchange(fd.get(), message, &answer)) return kHLDNotConnectedError;
    const HLDStatus status = handlink::wire::statusOf(answer);
    if (status != kHLDSuccess) return status;
    *outSocket = fd.release();
    return kHLDSuccess;
}
