// The lockdown calls: one connection per reference, connect and session nested by count on the
// reference, every call sent to the device (which counts it). A broken connection means the
// device detached or the daemon went away: the reference is then gone for good, and every later
// call that needs the device answers kHLDNotConnectedError without asking anybody.
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

// The last disconnect: the connection closes, the reference may connect again.
void close(HLDevice& device) {
    device.lockdown.reset();
    device.connectDepth = 0;
}

// The connection broke: this attachment of the device is over.
void lose(HLDevice& device) {
    close(device);
    device.gone.store(true);
}

// Sends a request on the open connection (device.mutex held). On a broken connection the
// reference is marked gone and kHLDNotConnectedError answered.
HLDStatus send(HLDevice& device, const QCborMap& message, QCborMap* answer = nullptr) {
    QCborMap reply;
    if (!handlink::wire::exchange(device.lockdown.get(), message, &reply)) {
        lose(device);
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
    return kHLDSuccess;
}

// What a call answers before anything is sent: kHLDNotConnectedError once the reference is
// gone; otherwise, without a connection, the status of the broken sequence (0 when the
// connection is open).
HLDStatus precheck(const HLDevice& device, HLDStatus withoutConnection) {
    if (device.gone.load()) return kHLDNotConnectedError;
    return device.lockdown ? kHLDSuccess : withoutConnection;
}

}  // namespace

HLDStatus HLDeviceConnect(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (device->gone.load()) return kHLDNotConnectedError;
    if (!device->lockdown) return open(*device);
    const HLDStatus status = send(*device, request("connect"));
    if (status == kHLDSuccess) ++device->connectDepth;
    return status;
}

HLDStatus HLDeviceDisconnect(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (const HLDStatus status = precheck(*device, kHLDNotConnectedError)) return status;
    const HLDStatus status = send(*device, request("disconnect"));
    if (status == kHLDSuccess && --device->connectDepth == 0) close(*device);
    return status;
}

bool HLDeviceIsPaired(HLDeviceRef device) {
    if (!device) return false;
    std::lock_guard lock(device->mutex);
    if (precheck(*device, kHLDNotConnectedError) != kHLDSuccess) return false;
    QCborMap answer;
    if (send(*device, request("is-paired"), &answer) != kHLDSuccess) return false;
    return answer.value(QStringLiteral("paired")).toBool();
}

HLDStatus HLDevicePair(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (const HLDStatus status = precheck(*device, kHLDNotConnectedError)) return status;
    return send(*device, request("pair"));
}

HLDStatus HLDeviceStartSession(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (const HLDStatus status = precheck(*device, kHLDNotConnectedError)) return status;
    return send(*device, request("start-session"));
}

HLDStatus HLDeviceStopSession(HLDeviceRef device) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (const HLDStatus status = precheck(*device, kHLDSessionInactiveError)) return status;
    return send(*device, request("stop-session"));
}

QVariant HLDeviceCopyValue(HLDeviceRef device, const QString& domain, const QString& key) {
    if (!device) return QVariant();
    std::lock_guard lock(device->mutex);
    if (precheck(*device, kHLDSessionInactiveError) != kHLDSuccess) return QVariant();
    QCborMap message = request("get-value");
    if (!domain.isEmpty()) message.insert(QStringLiteral("domain"), domain);
    if (!key.isNull()) message.insert(QStringLiteral("key"), key);
    QCborMap answer;
    if (send(*device, message, &answer) != kHLDSuccess) return QVariant();
    return handlink::wire::valueField(answer, QStringLiteral("value"));
}

HLDStatus HLDeviceSetValue(HLDeviceRef device, const QString& domain, const QString& key, const QVariant& value) {
    if (!device) return kHLDInvalidArgumentError;
    std::lock_guard lock(device->mutex);
    if (const HLDStatus status = precheck(*device, kHLDSessionInactiveError)) return status;
    QCborMap message = request("set-value");
    if (!domain.isEmpty()) message.insert(QStringLiteral("domain"), domain);
    message.insert(QStringLiteral("key"), key);
    handlink::wire::insertValue(&message, QStringLiteral("value"), value);  // no value: no field
    return send(*device, message);
}

HLDStatus HLDeviceStartService(HLDeviceRef device, const QString& serviceName, int* outSocket, const QVariantMap*) {
    if (!device || !outSocket) return kHLDInvalidArgumentError;
    *outSocket = -1;
    QString ticket;
    {
        std::lock_guard lock(device->mutex);
        if (const HLDStatus status = precheck(*device, kHLDSessionInactiveError)) return status;
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
    HLDStatus status = handlink::wire::statusOf(answer);
    // The daemon issued the ticket a moment ago; it forgets a device's tickets when the device
    // detaches, so a ticket it no longer knows means the device went away in between.
    if (status == kHLDInvalidCheckinError) status = kHLDNotConnectedError;
    if (status != kHLDSuccess) return status;
    *outSocket = fd.release();
    return kHLDSuccess;
}
