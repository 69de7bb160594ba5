#pragma once
// HLLockdownSession: the counted lockdown session of one LinkDev.
//
// The first successful beginSession connects, pairs if needed and starts the session; the
// last endSession stops it and disconnects. beginSession and endSession hold the object's
// recursive lock for their whole run, library calls included, so two threads never start or
// stop the same session twice. The _nts_ methods take no lock: call them with it held.
// The device is referred to without being owned; the device clears it when it goes away.
#include <QString>
#include <cstdint>
#include <mutex>

#include "handlink/Handlink.h"

class LinkDev;

class HLLockdownSession {
public:
    explicit HLLockdownSession(LinkDev* device);  // initWithDevice:
    ~HLLockdownSession();
    HLLockdownSession(const HLLockdownSession&) = delete;
    HLLockdownSession& operator=(const HLLockdownSession&) = delete;

    // Forgets the device if it is this object.
    void clearWeakReference(const void* object);

    // True when a session is open afterwards. A false result must not be matched by an end.
    bool beginSession();
    // True when no session remains open afterwards (a balanced inner end answers false).
    bool endSession();

    bool _nts_ensurePaired();
    // Count must be 0 (else an assertion failure); sets it to 1 on success.
    bool _nts_lockdownSessionStart();
    // Count must be exactly 1 (else an assertion failure); sets it to 0 on success.
    bool _nts_lockdownSessionStop();

    LinkDev* linkdev() const;
    intptr_t sessionOpenCount() const;  // under the lock
    // "<HLLockdownSession: 0x…>", for "%@" and assertion failures.
    QString description() const;

private:
    HLDeviceRef deviceRef() const;
    QString assertionMethod(const QString& method) const;

    LinkDev* _linkdev;
    intptr_t _sessionOpenCount = 0;
    mutable std::recursive_mutex _lock;  // guards _linkdev and _sessionOpenCount
};
