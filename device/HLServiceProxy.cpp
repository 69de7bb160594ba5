#include "device/HLServiceProxy.h"

#include <unistd.h>

#include "device/HLDError.h"
#include "device/HLLockdownSession.h"
#include "device/LinkDev.h"
#include "platform/Assert.h"
#include "platform/Describe.h"
#include "platform/SystemLog.h"

namespace {

// The base class names no service: the failure names the method and the object it was asked
// for.
[[noreturn]] void subclassMustImplement(const QString& object)
{
    platform::assertionFailed(QStringLiteral("+[HLServiceProxy serviceName] %1").arg(object),
                              QStringLiteral("Source/Tools/HLServiceProxy"), 26, QStringLiteral("Subclass must implement"));
}

}  // namespace

QString HLServiceProxy::serviceName()
{
    // Asked of the class itself, so the class is the object.
    subclassMustImplement(QStringLiteral("HLServiceProxy"));
}

QString HLServiceProxy::serviceNameForBaseObject(const HLServiceProxy* object)
{
    // Only the address is used: the object is still being made.
    subclassMustImplement(
        QStringLiteral("<HLServiceProxy: 0x%1>").arg(QString::number(reinterpret_cast<quintptr>(object), 16)));
}

HLServiceProxy::HLServiceProxy(std::shared_ptr<LinkDev> device)
    : HLServiceProxy(std::move(device), serviceNameForBaseObject(this))
{
}

HLServiceProxy::HLServiceProxy(std::shared_ptr<LinkDev> device, const QString& serviceName)
    : _linkdev(std::move(device)), _serviceName(serviceName)
{
}

HLServiceProxy::~HLServiceProxy()
{
    // Subclasses close the connection in their own destructors, where their hooks still run;
    // this close only finds something to do for a proxy without hooks of its own.
    _closeServiceConnection();
}

void HLServiceProxy::clearWeakReference(const void* object)
{
    std::lock_guard guard(_lock);
    if (_linkdev.get() == object) _linkdev.reset();
}

std::shared_ptr<LinkDev> HLServiceProxy::linkdev() const
{
    std::lock_guard guard(_lock);
    return _linkdev;
}

int32_t HLServiceProxy::sessionConnectionOpenCount() const
{
    std::lock_guard guard(_lock);
    return _sessionConnectionOpenCount;
}

bool HLServiceProxy::beginSession()
{
    std::lock_guard guard(_lock);
    if (_sessionConnectionOpenCount <= 0)
        _openServiceConnectionNamed(_serviceName);
    else
        ++_sessionConnectionOpenCount;
    return _sessionConnectionOpenCount != 0;
}

bool HLServiceProxy::endSession()
{
    std::lock_guard guard(_lock);
    if (_sessionConnectionOpenCount >= 2)
        --_sessionConnectionOpenCount;
    else if (_sessionConnectionOpenCount == 1)
        _closeServiceConnection();
    return _sessionConnectionOpenCount == 0;
}

bool HLServiceProxy::_lockdownSessionBegin()
{
    return _linkdev && _linkdev->lockdownSession()->beginSession();
}

bool HLServiceProxy::_lockdownSessionEnd()
{
    return _linkdev && _linkdev->lockdownSession()->endSession();
}

bool HLServiceProxy::serviceDidStart()
{
    return true;
}

bool HLServiceProxy::serviceDidStop()
{
    return true;
}

void HLServiceProxy::_closeServiceSocket()
{
    close(_serviceSock.load());
    _serviceSock.store(0);
}

bool HLServiceProxy::_openServiceConnectionNamed(const QString& name)
{
    if (_sessionConnectionOpenCount == 0 && _lockdownSessionBegin()) {
        int socket = _serviceSock.load();
        const HLDStatus status = HLDeviceStartService(_linkdev->deviceRef(), name, &socket, nullptr);
        _serviceSock.store(socket);
        if (status != 0) {
            platform::logMessage(
                QStringLiteral("ERROR: Could not start %1 service, error = %2")
                    .arg(platform::describeString(name),
                         ErrorFromHLDError(status, QStringLiteral("HLDeviceStartService()")).description()));
        } else if (serviceDidStart()) {
            _sessionConnectionOpenCount = 1;
        } else {
            _closeServiceSocket();
            _sessionConnectionOpenCount = 0;
        }
        // The lockdown session is needed only to start the service; the service lives on.
        _lockdownSessionEnd();
    }
    return _sessionConnectionOpenCount > 0;
}

void HLServiceProxy::_closeServiceConnection()
{
    if (_sessionConnectionOpenCount <= 0) return;
    _sessionConnectionOpenCount = 0;
    // A hook that could not tear its protocol down leaves the socket as it is; the next
    // start overwrites the number.
    if (serviceDidStop()) _closeServiceSocket();
}
