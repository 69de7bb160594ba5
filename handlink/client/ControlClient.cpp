#include "handlink/client/ControlClient.h"

#include "handlink/client/DaemonSocket.h"
#include "handlink/client/DeviceRef.h"
#include "handlink/wire/Frame.h"

#include <QCborArray>

namespace handlink::client {

bool ControlClient::open(const QString& socketPath, QString* error) {
    _fd = socketPath.isEmpty() ? connectToDaemon(error) : connectToSocket(socketPath, error);
    if (!_fd) return false;
    QCborMap hello;
    hello.insert(QStringLiteral("op"), QStringLiteral("control"));
    QCborMap answer;
    if (!call(hello, &answer, error)) {
        _fd.reset();
        return false;
    }
    return true;
}

bool ControlClient::call(const QCborMap& request, QCborMap* answer, QString* error, int32_t* status) {
    QCborMap reply;
    if (!_fd || !wire::exchange(_fd.get(), request, &reply)) {
        if (error) *error = QStringLiteral("the daemon closed the connection");
        if (status) *status = kHLDNotConnectedError;
        return false;
    }
    const int32_t code = wire::statusOf(reply);
    if (status) *status = code;
    if (answer) *answer = reply;
    if (code != kHLDSuccess) {
        const QString message = reply.value(QStringLiteral("error")).toString();
        if (error)
            *error = message.isEmpty() ? QStringLiteral("the daemon answered status %1 (0x%2)")
                                             .arg(QString::number(code), QString::number(quint32(code), 16))
                                       : message;
        return false;
    }
    return true;
}

HLDeviceRef copyDeviceForIdentifier(const QString& socketPath, const QString& identifier, QString* error) {
    ControlClient control;
    if (!control.open(socketPath, error)) return nullptr;
    QCborMap request;
    request.insert(QStringLiteral("op"), QStringLiteral("list"));
    QCborMap answer;
    if (!control.call(request, &answer, error)) return nullptr;
    for (const QCborValue& entry : answer.value(QStringLiteral("devices")).toArray()) {
        const QCborMap device = entry.toMap();
        if (device.value(QStringLiteral("id")).toString() == identifier)
            return makeDeviceRef(identifier, device.value(QStringLiteral("attachment")).toInteger());
    }
    if (error) *error = QStringLiteral("no device %1 is attached").arg(identifier);
    return nullptr;
}

}  // namespace handlink::client
