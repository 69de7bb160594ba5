// The notification proxy service ("com.corvid.mobile.notification_proxy") on a descriptor from
// HLDeviceStartService. Neither call closes the descriptor.
#include "handlink/Handlink.h"
#include "handlink/client/FdLocks.h"
#include "handlink/wire/Frame.h"
#include "handlink/wire/Values.h"

namespace {

HLDStatus exchange(int socket, const QCborMap& message) {
    if (!handlink::wire::isStreamSocket(socket)) return kHLDInvalidArgumentError;
    std::lock_guard lock(handlink::client::lockForDescriptor(socket));
    QCborMap answer;
    if (!handlink::wire::exchange(socket, message, &answer)) return kHLDNotConnectedError;
    return handlink::wire::statusOf(answer);
}

}  // namespace

HLDStatus HLDPostNotification(int socket, const QString& name, const QVariantMap* userInfo) {
    if (name.isEmpty()) return kHLDInvalidArgumentError;
    QCborMap message;
    message.insert(QStringLiteral("op"), QStringLiteral("post"));
    message.insert(QStringLiteral("name"), name);
    if (userInfo) message.insert(QStringLiteral("userInfo"), handlink::wire::toCbor(*userInfo));
    return exchange(socket, message);
}

HLDStatus HLDShutdownNotificationProxy(int socket) {
    QCborMap message;
    message.insert(QStringLiteral("op"), QStringLiteral("shutdown"));
    return exchange(socket, message);
}
