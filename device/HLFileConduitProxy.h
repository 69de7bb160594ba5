#pragma once
// HLFileConduitProxy: the device's file-conduit service ("com.corvid.qfc"). Opens a QFC
// connection on the service socket when the service starts and closes it when it stops.
#include <atomic>

#include "device/HLServiceProxy.h"
#include "handlink/Handlink.h"

class HLFileConduitProxy : public HLServiceProxy {
public:
    static QString serviceName();  // "com.corvid.qfc"
    explicit HLFileConduitProxy(std::shared_ptr<LinkDev> device);
    ~HLFileConduitProxy() override;

    bool serviceDidStart() override;
    bool serviceDidStop() override;
    // The connection for file operations while the service is started; null otherwise.
    QFCConnectionRef qfcConnectionRef() const { return _qfcConnectionRef.load(); }

private:
    std::atomic<QFCConnectionRef> _qfcConnectionRef{nullptr};
};
