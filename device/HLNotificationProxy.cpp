#include "device/HLNotificationProxy.h"

#include "handlink/Handlink.h"
#include "platform/SystemLog.h"

QString HLNotificationProxy::serviceName()
{
    return QStringLiteral("com.corvid.mobile.notification_proxy");
}

HLNotificationProxy::HLNotificationProxy(std::shared_ptr<LinkDev> device)
    : HLServiceProxy(std::move(device), serviceName())
{
}

HLNotificationProxy::~HLNotificationProxy()
{
    _closeServiceConnection();
}

bool HLNotificationProxy::serviceDidStart()
{
    return true;
}

bool HLNotificationProxy::serviceDidStop()
{
    const HLDStatus status = HLDShutdownNotificationProxy(serviceSocket());
    if (status == 0) return true;
    platform::writeStandardError(QStringLiteral("Could not shut down notifications: %1\n").arg(status));
    return false;
}

bool HLNotificationProxy::postNotification(const QString& name)
{
    return HLDPostNotification(serviceSocket(), name, nullptr) == 0;
}
