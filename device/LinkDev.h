#pragma once
// LinkDev: one attached device, and (class side) the registry of attached devices.
//
// Registry: subscribes once to Handlink's device events (on the first registered observer),
// keeps the attached devices in order of arrival (compared by identifier) and tells every
// observer handlinkAvailabliltyDidChange when that list changes. Events arrive on the thread
// that subscribed (the main thread in the app); register/unregister may be called from any
// thread: the observer set and device list are guarded by a std::mutex, and observers are
// told from a copy of the set (an observer unregistered meanwhile is skipped).
//
// Instance: wraps one retained HLDeviceRef and owns its counted lockdown session, its
// notification service, its file-conduit service, the set of its service objects and the
// set of file locks it holds. Always held by std::shared_ptr. Value and session operations
// may run on any thread; file-conduit and lock operations are meant for one device job at a
// time (their bookkeeping is guarded, the library calls are not serialised beyond that).
#include <QString>
#include <QStringList>
#include <QVariant>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "device/HLDError.h"
#include "handlink/Handlink.h"

class HLLockdownSession;
class HLServiceProxy;
class HLFileConduitProxy;
class HLNotificationProxy;
class HLTaskStatus;
class QFCFileInfo;

// Receives handlinkAvailabliltyDidChange on the thread that delivers device events (the main
// thread in the app). Identity by pointer; not owned by the registry.
class LinkDevObserver {
public:
    virtual ~LinkDevObserver() = default;
    virtual void handlinkAvailabliltyDidChange() = 0;
};

// In-process notification posted after a successful setLockdownValue: sender the LinkDev
// pointer, userInfo {"keys": [key]}.
extern const QString LinkDevLockdownValueDidChange;  // "LinkDevLockdownValueDidChange"

class LinkDev : public std::enable_shared_from_this<LinkDev> {
    struct Private {};

public:
    // ---- registry (class side) ----
    static void registerDeviceObserver(LinkDevObserver* observer);
    static void unregisterDeviceObserver(LinkDevObserver* observer);
    // A new device object for the first / last (most recent) attached device each call, or null.
    static std::shared_ptr<LinkDev> firstAvailableDevice();
    static std::shared_ptr<LinkDev> lastAvailableDevice();
    // The identifiers of the attached devices, in order of arrival (for diagnostics and tests).
    static QStringList availableDeviceIdentifiers();
    static void _notifyClientOfDeviceAvailabilityChanges(LinkDevObserver* observer);
    static void _noteDeviceAvailabilityDidChange(HLDeviceRef device, bool available);

    // ---- instance ----
    // initWithDeviceRef: retains the reference; null for a null reference.
    static std::shared_ptr<LinkDev> create(HLDeviceRef ref);
    LinkDev(Private, HLDeviceRef ref);
    ~LinkDev();
    LinkDev(const LinkDev&) = delete;
    LinkDev& operator=(const LinkDev&) = delete;

    HLDeviceRef deviceRef() const { return _deviceRef; }
    // The device's "DeviceName" (null when it has none); "Zephyr" when no session can be had.
    QString name();
    HLLockdownSession* lockdownSession() const { return _lockdownSession.get(); }
    bool _lockdownSessionBegin();
    bool _lockdownSessionEnd();
    void beginLockdownSession();
    void endLockdownSession();

    // ---- values and notifications ----
    // Sets a value inside a lockdown session; an empty key does nothing. Success posts
    // LinkDevLockdownValueDidChange on the calling thread; failure logs one ERROR line.
    void setLockdownValue(const QVariant& value, const QString& key, const QString& domain);
    // The device's value, or defaultValue for an empty key, no session or no value.
    QVariant lockdownValueForKey(const QString& key, const QString& domain, const QVariant& defaultValue);
    void setLockdownBoolValue(bool value, const QString& key, const QString& domain);
    bool lockdownBoolValueForKey(const QString& key, const QString& domain, bool defaultValue);
    // Posts a notification on the device through the notification service, started on first
    // use and kept for the life of this object. True when the device accepted the post.
    bool postNotification(const QString& name);
    std::shared_ptr<HLNotificationProxy> _notificationSessionForPosting();

    // ---- file-conduit connection, locks and simple file operations ----
    // One counted use of the file-conduit connection; every successful open is matched by
    // exactly one close.
    bool _qfcConnectionOpen();
    void _qfcConnectionClose();
    // Opens (creating) the lock file and locks it; needs an open connection. All ones for none.
    QFCFileRef _qfcAcquireFilelockAtRelativePath(const QString& path, bool block, bool shared);
    void _qfcReleaseFilelockForFileRef(QFCFileRef ref);
    // One attempt; a handle (keeping one connection use) or -1.
    int32_t acquireSharedFilelockAtRelativePath(const QString& path);
    int32_t acquireExclusiveFilelockAtRelativePath(const QString& path);
    // Attempts every 0.1 s until timeout seconds have passed, posting notification (when not
    // null) before every pause. Sleeps on the calling thread.
    int32_t blockingAquireSharedFilelockAtRelativePath(const QString& path, const QString& notification, double timeout);
    int32_t blockingAquireExclusiveFilelockAtRelativePath(const QString& path, const QString& notification, double timeout);
    // Unlocks and closes a handle from the acquire operations, and gives back one connection use
    // (also for an unknown handle).
    void releaseFilelock(int32_t handle);
    // Creates the file if missing (content kept). *error is never written.
    bool makeEmptyFileOnDevice(const QString& path, std::optional<Error>* error);
    // True when removed, and also when no connection could be had. *error is never written.
    bool removeFileFromDevice(const QString& path, std::optional<Error>* error);

    // ---- file and directory transfer ----
    // Device paths are relative to the media root; a file lands at localDirectory joined with
    // its whole device path, so copied trees mirror the device's. With a status in the sizing
    // phase nothing is read and only sizes are counted; in the transfer phase each file is a
    // subtask ("Uploading <path>") counted chunk by chunk. A failure is offered to the status
    // (whose delegate may ignore it: then the call succeeds); one that stays is logged as a
    // "NOTICE: " line and put in *error. Without a status every failure is dropped that way,
    // so only a connection that cannot be opened makes these calls fail. error and status may
    // be null. Blocking; run on the job's worker thread, one job per device object at a time.

    // The visit action: the entry's information, the walk's status and the walk's error slot
    // (the action may fill it); true to go on. Used only during the call.
    using VisitItem = std::function<bool(const QFCFileInfo& item, HLTaskStatus* status, std::optional<Error>* error)>;

    // Copies one device file into localDirectory (parent folders made as needed; an existing
    // local file is replaced; a partial file is kept after a failure).
    bool copyFileFromDevice(const QString& path, const QString& localDirectory, std::optional<Error>* error,
                            HLTaskStatus* status);
    // Copies the files of a device folder, and with deepCopy its subfolders depth first.
    bool copyDirectoryFromDevice(const QString& path, const QString& localDirectory, bool deepCopy,
                                 std::optional<Error>* error, HLTaskStatus* status);
    // Calls visitItem for every entry of the folder but "." and "..", in the device's order,
    // until the action says stop or an error is recorded; the listing is read to its end
    // either way. An empty action goes on.
    bool enumerateDiretoryContentsFromDevice(const QString& path, std::optional<Error>* error, HLTaskStatus* status,
                                             const VisitItem& visitItem);

    // The open file-conduit service (null when none), its connection, and the locks held.
    std::shared_ptr<HLFileConduitProxy> activeFileCounduitService() const;
    QFCConnectionRef qfcConnectionRef() const;
    std::set<QFCFileRef> qfcLockedFiles() const;
    std::set<std::shared_ptr<HLServiceProxy>> activeServiceSessions() const;

    // "<LinkDev 0x…: identifier>", for "%@".
    QString description() const;

private:
    int32_t _blockingAquireFilelock(const QString& path, const QString& notification, double timeout, bool shared);
    // The transfer calls' use of the connection: a failed open discards the proxy it left.
    bool _qfcTransferConnectionOpen();
    // The data of one file copy (device file to local file); the copy's error, if any.
    std::optional<Error> _copyFileData(const QString& path, const QString& localPath, HLTaskStatus* status);
    // The common ending of a copy and a walk: offers error to the status, logs and hands out
    // what stays, gives back the connection use; true when no error stays.
    bool _finishTransfer(const QString& operation, std::optional<Error> failure, std::optional<Error>* error,
                         HLTaskStatus* status);

    HLDeviceRef _deviceRef = nullptr;
    std::unique_ptr<HLLockdownSession> _lockdownSession;
    std::shared_ptr<HLNotificationProxy> _notificationService;
    std::shared_ptr<HLFileConduitProxy> _activeFileCounduitService;
    std::set<std::shared_ptr<HLServiceProxy>> _activeServiceSessions;
    std::unique_ptr<std::set<QFCFileRef>> _qfcLockedFiles;
    // Guards the four fields above across threads. Held across the counted open and close of
    // the file-conduit connection and the first start of the notification service; taken
    // before any service lock (which is taken before the lockdown session's lock).
    mutable std::recursive_mutex _servicesLock;
};

// The library callback: 1 attached, 2 detached, 3 subscription ended; anything else writes
// "Unknown action: <n>\n" to standard error.
void HandleDeviceNotification(HLDeviceNotificationInfo* info, void* context);
// Applied to each observer when the device list changed.
void SetApplyPostAvailabiltyChangedFunction(LinkDevObserver* observer, void* context);
