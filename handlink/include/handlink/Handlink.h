#pragma once
// Handlink: the device-access library. The client half of the device emulator: every call
// below talks to handlinkd over a Unix-domain socket (see docs/protocol.md).
//
// Daemon socket: $HANDLINK_SOCKET, else $XDG_RUNTIME_DIR/handlink/handlinkd.sock, else
// /tmp/handlink-$UID/handlinkd.sock; read afresh on every (re)connect.
//
// No call throws or raises SIGPIPE; every failure is a status (HandlinkStatus.h). Calls on a
// detached device answer kHLDNotConnectedError (device layer) or kQFCNotConnectedError
// (file conduit) promptly. Each connection serialises its requests, so threads may share one.
#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <cstdint>

#include "handlink/HandlinkStatus.h"

// ---- Devices and events -------------------------------------------------------------------

// Opaque, reference-counted device handle. It knows its identifier, also after a detach.
typedef struct HLDevice* HLDeviceRef;

enum : uint32_t {
    kHLDNotificationConnected = 1,
    kHLDNotificationDisconnected = 2,
    kHLDNotificationUnsubscribed = 3,
};

// The record handed to the callback: the device at offset 0, the message right behind it.
struct HLDeviceNotificationInfo {
    HLDeviceRef device;
    uint32_t msg;
};

typedef void (*HLDeviceNotificationCallback)(HLDeviceNotificationInfo* info, void* context);
typedef struct HLDeviceNotification* HLDeviceNotificationRef;

// Subscribes to attach/detach events. Events are delivered on the calling thread through its
// Qt event loop: the devices present now as attached (1), later attach (1) and detach (2).
// When the daemon goes away every device it had is reported with 3; the library reconnects
// with a short back-off and reports the devices again. Works also when the daemon is not
// running yet. The record and its device reference are valid during the callback only
// (retain the device to keep it). Returns 0.
HLDStatus HLDeviceNotificationSubscribe(HLDeviceNotificationCallback callback, uint32_t unused0,
                                        uint32_t unused1, void* context, HLDeviceNotificationRef* outHandle);
// Ends a subscription (the program never does; tests do). Main thread of the subscription.
HLDStatus HLDeviceNotificationUnsubscribe(HLDeviceNotificationRef handle);

void HLDeviceRetain(HLDeviceRef device);
void HLDeviceRelease(HLDeviceRef device);
// A new text naming the device uniquely, the same across re-attachment; null QString for a
// null reference. Answers without asking the daemon.
QString HLDeviceCopyDeviceIdentifier(HLDeviceRef device);

// ---- Lockdown -------------------------------------------------------------------------------
// One lockdown connection per reference, shared by its holders; connect/disconnect and
// session start/stop nest by count on the reference, while every call still reaches (and is
// counted by) the device.
HLDStatus HLDeviceConnect(HLDeviceRef device);
HLDStatus HLDeviceDisconnect(HLDeviceRef device);
bool HLDeviceIsPaired(HLDeviceRef device);
HLDStatus HLDevicePair(HLDeviceRef device);
HLDStatus HLDeviceStartSession(HLDeviceRef device);
HLDStatus HLDeviceStopSession(HLDeviceRef device);
// A new property-list value (QVariant, see platform/PropertyList.h), or an invalid QVariant
// when there is none or no session. A null domain reads the global domain.
QVariant HLDeviceCopyValue(HLDeviceRef device, const QString& domain, const QString& key);
HLDStatus HLDeviceSetValue(HLDeviceRef device, const QString& domain, const QString& key, const QVariant& value);
// Starts a named service; *outSocket receives a connected socket descriptor that the caller
// closes with close(). Needs a session. The service connection outlives the session.
HLDStatus HLDeviceStartService(HLDeviceRef device, const QString& serviceName, int* outSocket,
                               const QVariantMap* options);

// ---- Notification proxy ("com.corvid.mobile.notification_proxy") ---------------------------
HLDStatus HLDPostNotification(int socket, const QString& name, const QVariantMap* userInfo);
// Ends the service's protocol; does not close the descriptor.
HLDStatus HLDShutdownNotificationProxy(int socket);

// ---- File conduit ("com.corvid.qfc") --------------------------------------------------------
typedef struct QFCConnection* QFCConnectionRef;
typedef uint64_t QFCFileRef;          // small positive numbers; all ones is invalid
typedef struct QFCKeyValue* QFCKeyValueRef;
typedef uint64_t QFCDirectoryRef;
static constexpr QFCFileRef kQFCInvalidFileRef = ~QFCFileRef(0);

enum : uint64_t { kQFCModeReadWriteCreate = 2 };  // read and write, created if missing, not truncated

// Wraps the service descriptor; Close frees the wrapper and does not close the descriptor.
HLDStatus QFCConnectionOpen(int socket, uint32_t options, QFCConnectionRef* outConnection);
HLDStatus QFCConnectionClose(QFCConnectionRef connection);

// Paths are UTF-8, relative to the device's media root ("/" and "" name the root itself).
HLDStatus QFCFileRefOpen(QFCConnectionRef connection, const char* path, uint64_t mode, QFCFileRef* outRef);
// *ioLength: in the buffer size, out the bytes read; 0 at end of file.
HLDStatus QFCFileRefRead(QFCConnectionRef connection, QFCFileRef ref, void* buffer, uint64_t* ioLength);
// exclusive 1, shared 0; never waits: kQFCWouldBlockError when held elsewhere.
HLDStatus QFCFileRefLock(QFCConnectionRef connection, QFCFileRef ref, int exclusive);
HLDStatus QFCFileRefUnlock(QFCConnectionRef connection, QFCFileRef ref);
HLDStatus QFCFileRefClose(QFCConnectionRef connection, QFCFileRef ref);
HLDStatus QFCRemovePath(QFCConnectionRef connection, const char* path);

// File information as pairs of NUL-terminated strings ("st_size", "st_blocks", "st_nlink",
// "st_ifmt", "st_mtime", "st_birthtime" when known). Read returns 0 with *key == nullptr at
// the end. The strings stay valid until the next Read or Close of the iterator.
HLDStatus QFCFileInfoOpen(QFCConnectionRef connection, const char* path, QFCKeyValueRef* outIterator);
HLDStatus QFCKeyValueRead(QFCKeyValueRef iterator, const char** key, const char** value);
HLDStatus QFCKeyValueClose(QFCKeyValueRef iterator);

// Directory listing: ".", "..", then the names in byte order; *name == nullptr after the last.
// A name stays valid until the next Read or Close of the directory.
HLDStatus QFCDirectoryOpen(QFCConnectionRef connection, const char* path, QFCDirectoryRef* outDirectory);
HLDStatus QFCDirectoryRead(QFCConnectionRef connection, QFCDirectoryRef directory, const char** name);
HLDStatus QFCDirectoryClose(QFCConnectionRef connection, QFCDirectoryRef directory);
