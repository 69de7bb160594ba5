#include "device/HLFileConduitProxy.h"

#include "device/HLDError.h"
#include "platform/SystemLog.h"

QString HLFileConduitProxy::serviceName()
{
    return QStringLiteral("com.corvid.qfc");
}

HLFileConduitProxy::HLFileConduitProxy(std::shared_ptr<LinkDev> device) : HLServiceProxy(std::move(device), serviceName())
{
}

HLFileConduitProxy::~HLFileConduitProxy()
{
    _closeServiceConnection();
}

bool HLFileConduitProxy::serviceDidStart()
{
    QFCConnectionRef connection = nullptr;
    const HLDStatus status = QFCConnectionOpen(serviceSocket(), 0, &connection);
    if (status == 0) {
        _qfcConnectionRef.store(connection);
        return true;
    }
    platform::logMessage(QStringLiteral("ERROR: Could not open QFC connection, error = %1")
                             .arg(ErrorFromHLDError(status, QStringLiteral("QFCConnectionOpen()")).description()));
    return false;
}

bool HLFileConduitProxy::serviceDidStop()
{
    QFCConnectionRef connection = _qfcConnectionRef.exchange(nullptr);
    const HLDStatus status = QFCConnectionClose(connection);
    if (status == 0) return true;
    platform::logMessage(QStringLiteral("ERROR: Could not close QFC connection, error = %1")
                             .arg(ErrorFromHLDError(status, QStringLiteral("QFCConnectionClose()")).description()));
    return false;
}
