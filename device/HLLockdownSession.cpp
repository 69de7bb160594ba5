#include "device/HLLockdownSession.h"

#include "device/HLDError.h"
#include "device/LinkDev.h"
#include "platform/Assert.h"
#include "platform/SystemLog.h"

namespace {
const QString kSourceFile = QStringLiteral("Source/Tools/HLLockdownSession");
}

// The device's reference, or null once the device has gone (the library then answers an
// error status instead of this object touching a destroyed device).
HLDeviceRef HLLockdownSession::deviceRef() const
{
    return _linkdev ? _linkdev->deviceRef() : nullptr;
}

HLLockdownSession::HLLockdownSession(LinkDev* device) : _linkdev(device) {}

HLLockdownSession::~HLLockdownSession()
{
    // An open session is not stopped here: the device closes its connection when it goes.
    _linkdev = nullptr;
}

void HLLockdownSession::clearWeakReference(const void* object)
{
    std::lock_guard guard(_lock);
    if (_linkdev == object) _linkdev = nullptr;
}

LinkDev* HLLockdownSession::linkdev() const
{
    std::lock_guard guard(_lock);
    return _linkdev;
}

QString HLLockdownSession::description() const
{
    return QStringLiteral("<HLLockdownSession: 0x%1>").arg(QString::number(reinterpret_cast<quintptr>(this), 16));
}

// An assertion failure's method text: the method, then the object it was called on.
QString HLLockdownSession::assertionMethod(const QString& method) const
{
    return QStringLiteral("-[HLLockdownSession %1] %2").arg(method, description());
}

intptr_t HLLockdownSession::sessionOpenCount() const
{
    std::lock_guard guard(_lock);
    return _sessionOpenCount;
}

bool HLLockdownSession::beginSession()
{
    std::lock_guard guard(_lock);
    if (_sessionOpenCount <= 0)
        _nts_lockdownSessionStart();
    else
        ++_sessionOpenCount;
    return _sessionOpenCount != 0;
}

bool HLLockdownSession::endSession()
{
    std::lock_guard guard(_lock);
    if (_sessionOpenCount >= 2)
        --_sessionOpenCount;
    else if (_sessionOpenCount == 1)
        _nts_lockdownSessionStop();
    return _sessionOpenCount == 0;
}

bool HLLockdownSession::_nts_ensurePaired()
{
    HLDeviceRef device = deviceRef();
    if (HLDeviceIsPaired(device)) return true;
    const HLDStatus status = HLDevicePair(device);
    if (status == 0) return true;
    platform::logMessage(QStringLiteral("ERROR: could not pair, error=%1.").arg(status));
    return false;
}

bool HLLockdownSession::_nts_lockdownSessionStart()
{
    VR_ASSERT(_sessionOpenCount == 0, assertionMethod(QStringLiteral("_nts_lockdownSessionStart")), kSourceFile, 86,
              QStringLiteral("expected _sessionOpenCount to be == 0."));
    HLDeviceRef device = deviceRef();
    HLDStatus status = HLDeviceConnect(device);
    if (status != 0) {
        platform::logMessage(QStringLiteral("ERROR: could not connect to device, error = %1")
                                 .arg(ErrorFromHLDError(status, QStringLiteral("HLDeviceConnect()")).description()));
        return false;
    }
    // A failed pairing or session start leaves the connection open; the next begin connects
    // again (the library counts connects per reference).
    if (!_nts_ensurePaired()) return false;
    status = HLDeviceStartSession(device);
    if (status != 0) {
        platform::logMessage(QStringLiteral("ERROR: could not start session with device, error = %1")
                                 .arg(ErrorFromHLDError(status, QStringLiteral("HLDevicebeginSession()")).description()));
        return false;
    }
    _sessionOpenCount = 1;
    return true;
}

bool HLLockdownSession::_nts_lockdownSessionStop()
{
    VR_ASSERT(_sessionOpenCount == 1, assertionMethod(QStringLiteral("_nts_lockdownSessionStop")), kSourceFile, 115,
              QStringLiteral("expected _sessionOpenCount to be > 0."));
    HLDeviceRef device = deviceRef();
    HLDStatus status = HLDeviceStopSession(device);
    if (status != 0) {
        platform::logMessage(QStringLiteral("ERROR: could not stop session with device, error = %1")
                                 .arg(ErrorFromHLDError(status, QStringLiteral("HLDeviceendSession()")).description()));
        return false;
    }
    status = HLDeviceDisconnect(device);
    if (status != 0) {
        platform::logMessage(QStringLiteral("ERROR: could not disconnect from the device, error = %1")
                                 .arg(ErrorFromHLDError(status, QStringLiteral("HLDeviceDisconnect()")).description()));
        return false;
    }
    _sessionOpenCount = 0;
    return true;
}
