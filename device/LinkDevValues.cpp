// LinkDev: device values and notification posting.
#include "device/HLNotificationProxy.h"
#include "device/LinkDev.h"
#include "platform/Describe.h"
#include "platform/NotificationCenter.h"
#include "platform/SystemLog.h"

const QString LinkDevLockdownValueDidChange = QStringLiteral("LinkDevLockdownValueDidChange");

namespace {

// A property-list value read as a flag: a number is true when it is not 0.
bool flagFromValue(const QVariant& value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool();
    case QMetaType::QString: {
        const QString text = value.toString().trimmed();
        if (text.isEmpty()) return false;
        const QChar first = text.at(0).toLower();
        return first == u'y' || first == u't' || text.toLongLong() != 0;
    }
    default:
        return value.toDouble() != 0.0;
    }
}

}  // namespace

void LinkDev::setLockdownValue(const QVariant& value, const QString& key, const QString& domain)
{
    if (key.isEmpty()) return;
    if (!_lockdownSessionBegin()) return;
    const QString domainText = platform::describeString(domain);
    const QString keyText = platform::describeString(key);
    const QString valueText = platform::describe(value);
    platform::logMessage(QStringLiteral("setting lockdown value domain=%1, key=%2, value=%3").arg(domainText, keyText, valueText));
    const HLDStatus status = HLDeviceSetValue(_deviceRef, domain, key, value);
    if (status == 0) {
        platform::NotificationCenter::defaultCenter().post(LinkDevLockdownValueDidChange, this,
                                                           {{QStringLiteral("keys"), QVariantList{key}}});
    } else {
        platform::logMessage(QStringLiteral("ERROR: Attempt to set lockdown domain=%1, key=%2, value=%3, failed.  error = %4")
                                 .arg(domainText, keyText, valueText,
                                      ErrorFromHLDError(status, QStringLiteral("HLDeviceSetValue()")).description()));
    }
    _lockdownSessionEnd();
}

QVariant LinkDev::lockdownValueForKey(const QString& key, const QString& domain, const QVariant& defaultValue)
{
    if (key.isEmpty()) return defaultValue;
    if (!_lockdownSessionBegin()) return defaultValue;
    const QVariant value = HLDeviceCopyValue(_deviceRef, domain, key);
    _lockdownSessionEnd();
    return value.isValid() ? value : defaultValue;
}

void LinkDev::setLockdownBoolValue(bool value, const QString& key, const QString& domain)
{
    // Flags are stored on the device as the integers 0 and 1, not as booleans.
    setLockdownValue(QVariant(qint64(value ? 1 : 0)), key, domain);
}

bool LinkDev::lockdownBoolValueForKey(const QString& key, const QString& domain, bool defaultValue)
{
    return flagFromValue(lockdownValueForKey(key, domain, QVariant(qint64(defaultValue ? 1 : 0))));
}

bool LinkDev::postNotification(const QString& name)
{
    return _notificationSessionForPosting()->postNotification(name);
}

std::shared_ptr<HLNotificationProxy> LinkDev::_notificationSessionForPosting()
{
    std::lock_guard guard(_servicesLock);
    if (!_notificationService) {
        // The proxy owns this device and the device owns the proxy: both stay until the
        // process ends, with the service open, which keeps posting cheap.
        _notificationService = std::make_shared<HLNotificationProxy>(shared_from_this());
        _notificationService->beginSession();
        _activeServiceSessions.insert(_notificationService);
    }
    return _notificationService;
}
