#pragma once
// The media software's sync-debug switch on a device: the lockdown values
// "syncDebug.enabled_v2" and "syncDebug.dataNeedsRemoval" in "com.corvid.mobiletamber",
// and the device notification "com.corvid.mobiletamber.syncDebugChange" after every write.
//
// The first write of the process also sets up, once (safe against concurrent first calls), a
// recursive mutex that a caller may take around the two writes, and an observer of the change
// notification on the desktop's system-wide notification centre, the D-Bus session bus
// (interface "com.corvid.mobiletamber", signal "syncDebugChange"); its callback does nothing.
// Without a session bus the observer is skipped quietly.
//
// Any thread. A null device reads as off and is not written to; results may be ignored.
#include <QString>
#include <memory>

#include "device/LinkDev.h"

extern const QString kLMSyncDebugDomain;            // "com.corvid.mobiletamber"
extern const QString kLMSyncDebugEnabledKey;        // "syncDebug.enabled_v2"
extern const QString kLMSyncDebugDataRemovalKey;    // "syncDebug.dataNeedsRemoval"
extern const QString kLMSyncDebugChangeNotification;  // "com.corvid.mobiletamber.syncDebugChange"

// The device's "syncDebug.enabled_v2" read as a flag (default off); false without a device.
bool LMSyncDebugEnabled(const std::shared_ptr<LinkDev>& device);
// Writes enabled, then dataNeedsRemoval, then posts the change notification on the device,
// whatever the writes gave (a failed write is logged by the device and not undone).
void setLMSyncDebugEnabledAndScheduleDataRemoval(const std::shared_ptr<LinkDev>& device, bool enabled,
                                                 bool dataNeedsRemoval);
// Enabled, no data removal.
void setLMSyncDebugEnabled(const std::shared_ptr<LinkDev>& device);
// Disabled; the device removes the data kept while debugging when removeData is true.
void setLMSyncDebugDisabled(const std::shared_ptr<LinkDev>& device, bool removeData);

// The system-wide observer: true once the set-up has registered it on the session bus, and
// how many change notifications it has received there (for diagnostics and tests).
bool LMSyncDebugObservingSystemWide();
int LMSyncDebugSystemWideChangesReceived();
