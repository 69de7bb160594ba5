// LinkDev: creation, destruction, name and the lockdown session forwarders.
#include "device/LinkDev.h"

#include "device/HLFileConduitProxy.h"
#include "device/HLLockdownSession.h"
#include "device/HLNotificationProxy.h"

std::shared_ptr<LinkDev> LinkDev::create(HLDeviceRef ref)
{
    if (!ref) return nullptr;
    return std::make_shared<LinkDev>(Private{}, ref);
}

LinkDev::LinkDev(Private, HLDeviceRef ref)
    : _deviceRef(ref),
      _lockdownSession(std::make_unique<HLLockdownSession>(this)),
      _qfcLockedFiles(std::make_unique<std::set<QFCFileRef>>())
{
    HLDeviceRetain(_deviceRef);
}

LinkDev::~LinkDev()
{
    HLDeviceRelease(_deviceRef);
    _deviceRef = nullptr;
    _qfcLockedFiles.reset();
    _lockdownSession->clearWeakReference(this);
    _lockdownSession.reset();
    // Each service in the set owns this device, so any service still here has already let the
    // device go; it is told to forget it all the same, so that no service can be left pointing
    // at this object once it is destroyed.
    for (const auto& service : _activeServiceSessions) service->clearWeakReference(this);
    _activeFileCounduitService.reset();
    _notificationService.reset();
}

QString LinkDev::name()
{
    if (!_lockdownSessionBegin()) return QStringLiteral("Zephyr");
    const QVariant value = HLDeviceCopyValue(_deviceRef, QString(), QStringLiteral("DeviceName"));
    _lockdownSessionEnd();
    return value.isValid() ? value.toString() : QString();
}

bool LinkDev::_lockdownSessionBegin()
{
    return _lockdownSession->beginSession();
}

bool LinkDev::_lockdownSessionEnd()
{
    return _lockdownSession->endSession();
}

void LinkDev::beginLockdownSession()
{
    _lockdownSessionBegin();
}

void LinkDev::endLockdownSession()
{
    _lockdownSessionEnd();
}

QString LinkDev::description() const
{
    return QStringLiteral("<LinkDev 0x%1: %2>")
        .arg(QString::number(reinterpret_cast<quintptr>(this), 16), HLDeviceCopyDeviceIdentifier(_deviceRef));
}
