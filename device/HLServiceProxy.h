#pragma once
// HLServiceProxy: one named service of one device, started on the first beginSession and
// stopped on the last endSession, like the lockdown session. Subclasses name the service and
// set up / tear down their protocol on the service socket in serviceDidStart/serviceDidStop.
//
// beginSession and endSession hold the object's recursive lock for their whole run, service
// start and hooks included. The lockdown session begun while starting has its own lock,
// always taken after this one. The proxy owns its device (std::shared_ptr).
#include <QString>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

class LinkDev;

class HLServiceProxy {
public:
    // The base class names no service: an assertion failure "Subclass must implement".
    static QString serviceName();

    // initWithDevice: with the class's serviceName (so, for the base class, the assertion,
    // naming the object being made).
    explicit HLServiceProxy(std::shared_ptr<LinkDev> device);
    virtual ~HLServiceProxy();
    HLServiceProxy(const HLServiceProxy&) = delete;
    HLServiceProxy& operator=(const HLServiceProxy&) = delete;

    void clearWeakReference(const void* object);

    // True when the service is started afterwards.
    bool beginSession();
    // True when the service is stopped afterwards (also when it never was started).
    bool endSession();

    bool _lockdownSessionBegin();
    bool _lockdownSessionEnd();

    // Hooks: called once the socket exists / when the service is being closed (true: close
    // the socket now). The base answers true to both.
    virtual bool serviceDidStart();
    virtual bool serviceDidStop();

    void _closeServiceSocket();
    bool _openServiceConnectionNamed(const QString& name);
    void _closeServiceConnection();

    std::shared_ptr<LinkDev> linkdev() const;
    const QString& serviceNameOfInstance() const { return _serviceName; }
    int32_t serviceSocket() const { return _serviceSock.load(); }
    void setServiceSocket(int32_t socket) { _serviceSock.store(socket); }
    int32_t sessionConnectionOpenCount() const;  // under the lock

protected:
    HLServiceProxy(std::shared_ptr<LinkDev> device, const QString& serviceName);

private:
    // serviceName for a base-class object being made: the assertion failure, naming it.
    [[noreturn]] static QString serviceNameForBaseObject(const HLServiceProxy* object);

    std::shared_ptr<LinkDev> _linkdev;
    QString _serviceName;
    std::atomic<int32_t> _serviceSock{0};
    int32_t _sessionConnectionOpenCount = 0;
    mutable std::recursive_mutex _lock;  // guards _linkdev and _sessionConnectionOpenCount
};
