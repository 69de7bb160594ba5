#pragma once
// Receiver of an HLTaskStatus's change notices and error questions.
//
// Both messages arrive on the thread that changed the status (a worker during a device job).
#include "platform/ErrorRecord.h"

class HLTaskStatus;

class HLTaskStatusDelegate {
public:
    virtual ~HLTaskStatusDelegate() = default;

    // Required: sent synchronously for every posted update.
    virtual void taskStatusDidChange(HLTaskStatus* status) = 0;
    // A delegate that does not take change notices says so here; setDelegate() refuses it.
    virtual bool respondsToTaskStatusDidChange() const { return true; }

    // Optional: asked when a failure is recorded. True means: record nothing, go on.
    // Only asked when respondsToShouldIgnoreError() is true.
    virtual bool taskStatusShouldIgnoreError(HLTaskStatus* status, const platform::Error& error);
    virtual bool respondsToShouldIgnoreError() const { return false; }
};
