#pragma once
// The device emulator, in-process: the same server that handlinkd runs, on a socket of the
// caller's choosing, with direct access to each device's counters, faults and lock holders.
// Tests start one on a temporary socket and point the client library at it with
// HANDLINK_SOCKET. Thread-safe; the server runs on threads of its own.
#include <QString>
#include <QStringList>
#include <QVariant>
#include <cstdint>
#include <functional>
#include <memory>

namespace handlink::emu {

// Names of the counted and fault-injectable operations (also the words of handlinkctl):
//   connect disconnect is-paired pair start-session stop-session get-value set-value
//   start-service post-notification shutdown-notifications
//   qfc-connect qfc-disconnect qfc-open qfc-read qfc-lock qfc-unlock qfc-close qfc-info
//   qfc-dir-open qfc-dir-read qfc-dir-close qfc-remove

// An armed fault. Several may be armed on one operation: a call is offered to each in the
// order they were armed; each one that still lets calls through counts the call toward its own
// "after", and the first one with none left to let through strikes (the later ones do not see
// that call).
struct Fault {
    QString operation;
    int32_t status = 0;
    int times = 1;          // how many calls it strikes
    int after = 0;          // matching calls let through first
    QString match;          // only calls whose path / name / service / key equals this (empty: all)
};

// A device-side holder of a lock file in the media area (the device's own software).
class LockHolder {
public:
    virtual ~LockHolder() = default;
    virtual bool holding() const = 0;
    // Lets go now (idempotent).
    virtual void release() = 0;
    // Blocks until the holder has let go (after its yield condition); false on timeout.
    virtual bool waitReleased(int timeoutMs) = 0;
};

struct HoldLockOptions {
    bool exclusive = true;
    QString yieldOn;          // let go when this notification is posted on the device...
    int afterRequests = 1;    // ...this many times
    int afterMs = 0;          // ...and this much later
    int seconds = 0;          // let go after this long regardless (0: never)
};

class Device {
public:
    virtual ~Device() = default;
    virtual QString identifier() const = 0;
    virtual QString folder() const = 0;
    virtual QString mediaRoot() const = 0;  // folder()/Media

    // Counters: calls the device received, by operation; posts also by name.
    virtual int count(const QString& operation) const = 0;
    virtual int postCount(const QString& notificationName) const = 0;
    virtual QStringList postedNotifications() const = 0;  // in order
    virtual void resetCounters() = 0;

    virtual void addFault(const Fault& fault) = 0;
    virtual void delay(const QString& operation, int milliseconds, int times = 1) = 0;
    virtual void clearFaults() = 0;

    // "accept" (default), "refuse" (pairing answers kHLDPasswordProtectedError), "forget"
    // (drops every pairing record).
    virtual void setPairing(const QString& mode) = 0;

    // Reads a value as the device holds it (no session), for assertions.
    virtual QVariant value(const QString& domain, const QString& key) const = 0;

    // Takes the lock at once; nullptr (with *error set) when it cannot.
    virtual std::unique_ptr<LockHolder> holdLock(const QString& path, const HoldLockOptions& options,
                                                 QString* error = nullptr) = 0;
};

class Emulator {
public:
    // Listens on socketPath. A missing folder is made 0700; an existing one must belong to this
    // user and be writable by nobody else. Call start() before use.
    explicit Emulator(const QString& socketPath);
    ~Emulator();  // stops
    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

    bool start(QString* error = nullptr);
    // Closes every connection and the listening socket; subscribers see message 3. The
    // devices are detached and forgotten: after start() again, attach them anew.
    void stop();
    QString socketPath() const;

    // Attaches the device folder (made with makeDevice); returns it, or nullptr with *error.
    std::shared_ptr<Device> attach(const QString& deviceFolder, QString* error = nullptr);
    // Detaches by identifier: closes its connections; calls in flight answer not-connected.
    bool detach(const QString& identifier);
    std::shared_ptr<Device> device(const QString& identifier) const;
    QStringList attachedIdentifiers() const;  // in order of attachment

    // Lines the daemon prints (attach, detach, posted notifications), for tests. The printer
    // is called on the server's threads.
    void setPrinter(std::function<void(const QString& line)> printer);
    // Which user may connect (checked with SO_PEERCRED); the emulator's own user by default.
    // Tests name another user to see a connection refused.
    void setAllowedUid(uint32_t uid);
    // Service tickets not redeemed within this time are dropped (60 s by default), and so are
    // a device's tickets when it detaches. Tests shorten the lifetime and count what is left.
    void setTicketLifetime(int milliseconds);
    int pendingTicketCount() const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

struct MakeDeviceOptions {
    QString name = QStringLiteral("Tamber");
    QString deviceClass = QStringLiteral("Tamber");  // or "Zephyr"
    QString identifier;        // empty: derived from the folder name and seed
    QString sample;            // "", "small", "large" or a size such as "2G"
    int files = 0;             // with sample: number of files (0: the sample's default)
    uint32_t seed = 1;
};
// Creates a device folder: device.plist with values, Media/ (filled when a sample is asked).
bool makeDevice(const QString& folder, const MakeDeviceOptions& options, QString* error = nullptr);

}  // namespace handlink::emu
