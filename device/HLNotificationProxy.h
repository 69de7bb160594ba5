#pragma once
// HLNotificationProxy: the device's notification proxy ("com.corvid.mobile.notification_proxy").
#include "device/HLServiceProxy.h"

class HLNotificationProxy : public HLServiceProxy {
public:
    static QString serviceName();  // "com.corvid.mobile.notification_proxy"
    explicit HLNotificationProxy(std::shared_ptr<LinkDev> device);
    ~HLNotificationProxy() override;

    bool serviceDidStart() override;
    bool serviceDidStop() override;
    // True when the device accepted the post; a failure is not logged.
    bool postNotification(const QString& name);
};
