#pragma once
// HLTaskStatus: the progress and error record that one long device job carries from start to
// end. A job sizes its work in phase 1 (each increment grows done and total together), then
// transfers in phase 2 (each file is a subtask of its own), and records its first failure.
//
// Thread affinity: none of its own and no lock. One job's worker is the only writer; the
// delegate is told synchronously on that thread. A reader on another thread must make the
// worker wait while it reads (the app's progress display does).
#include <QString>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/ErrorRecord.h"
#include "status/HLTaskStatusDelegate.h"

enum : int32_t {
    kHLTaskPhaseNone = 0,      // plain counting; every subtask is in this phase
    kHLTaskPhaseSizing = 1,    // each increment also grows the total; the initial phase
    kHLTaskPhaseTransfer = 2,  // each file gets its own subtask
};

class HLTaskStatus {
public:
    // Phase 1, counts 0, no text, no error, no subtask. Raises "Invalid delegate" for a
    // delegate that does not take change notices; nullptr is allowed.
    explicit HLTaskStatus(HLTaskStatusDelegate* delegate = nullptr);
    ~HLTaskStatus();
    HLTaskStatus(const HLTaskStatus&) = delete;
    HLTaskStatus& operator=(const HLTaskStatus&) = delete;

    // Not owned. Raises "Invalid delegate" (Vireo/HLTaskStatus:35) for a delegate that does
    // not take change notices.
    void setDelegate(HLTaskStatusDelegate* delegate);
    HLTaskStatusDelegate* delegate() const { return _delegate; }

    // A different phase zeroes the done count (the total stays); the same phase changes
    // nothing. Posts no update.
    void setTaskPhase(int32_t phase);
    int32_t taskPhase() const { return _phase; }

    // Tells the delegate now, or owes it one update while notices are disabled.
    void _postUpdate();
    // Nested; re-enabling to depth 0 posts one update if any was withheld. The depth is an
    // unsigned count: an unpaired enable wraps it and withholds every later update.
    void disableChangeNotifications();
    void enableChangeNotifications();

    // Phase 2: starts a subtask (phase 0, total bytes, text) that counts the file.
    // Phases 0 and 1: exactly incrementBytesTransfered(bytes); the text is unused.
    void willBeginSubtask(const QString& statusText, uint32_t bytes);
    // Phase 2: counts what the subtask had left, so the file counts its announced size.
    // Every phase: drops the subtask.
    void didEndSubtask();
    // Asks the delegate whether to ignore the error; if not, drops the subtask (its rest is
    // not counted) and stores the error in place of any earlier one. Posts nothing.
    void didFailWithError(const platform::Error& error);

    // Counts bytes (through the subtask first, if any) modulo 2^32; in phase 1 the total
    // grows too. Returns what was counted; 0 changes and posts nothing.
    uint32_t incrementBytesTransfered(uint32_t bytes);
    uint32_t bytesTransfered() const { return _bytesTransfered; }
    // Total minus done, never below 0.
    uint32_t remainingBytesToTransfer() const;
    // Stores and posts only when the value differs.
    void _setTotalBytesToTransfer(uint32_t total);
    uint32_t totalBytesToTransfer() const { return _totalBytesToTransfer; }

    // Stores and posts unless it is the very same string (identity, not equal text).
    void _setLocalizedStatusInfo(const QString& text);
    // The subtask's text while there is a subtask, otherwise this status's own.
    QString localizedStatusInfo() const;

    // The stored error, as a value: a caller's copy stays valid when a later failure
    // replaces the stored one.
    std::optional<platform::Error> error() const { return _bxerror; }

    // The current subtask, or nullptr (owned by this status).
    HLTaskStatus* subtask() const { return _subtask.get(); }

private:
    bool _postUpdateSkipped = false;
    uint32_t _bytesTransfered = 0;
    uint32_t _totalBytesToTransfer = 0;
    uint32_t _postUpdateDisabledCount = 0;
    int32_t _phase = kHLTaskPhaseNone;
    QString _localizedStatusInfo;
    std::optional<platform::Error> _bxerror;
    std::unique_ptr<HLTaskStatus> _subtask;
    HLTaskStatusDelegate* _delegate = nullptr;
};
