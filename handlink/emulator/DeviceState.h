#pragma once
// One attached emulated device: its folder (device.plist + Media/), values, pairing records,
// counters, injected faults and delays, posted notifications, and the connections open to it.
//
// Thread-safe: every connection thread of the server uses the same object. _mutex guards the
// values, pairing, counters, faults, delays, posts, listeners and connection table; it is never
// held while a delay sleeps or while listeners run.
#include "handlink/emulator/Emulator.h"

#include <QHash>
#include <QList>
#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace handlink::emu {

class DeviceState : public Device, public std::enable_shared_from_this<DeviceState> {
public:
    // Loads a device folder made by makeDevice(); nullptr with *error when it is not one.
    static std::shared_ptr<DeviceState> load(const QString& folder, QString* error);
    ~DeviceState() override;

    // ---- Device (Emulator.h) ----
    QString identifier() const override { return _identifier; }
    QString folder() const override { return _folder; }
    QString mediaRoot() const override;
    int count(const QString& operation) const override;
    int postCount(const QString& notificationName) const override;
    std::map<QString, int> counts() const;       // every operation counted so far
    std::map<QString, int> postCounts() const;   // every notification name posted so far
    QStringList postedNotifications() const override;
    void resetCounters() override;
    void addFault(const Fault& fault) override;
    void delay(const QString& operation, int milliseconds, int times = 1) override;
    void clearFaults() override;
    void setPairing(const QString& mode) override;
    QVariant value(const QString& domain, const QString& key) const override;
    std::unique_ptr<LockHolder> holdLock(const QString& path, const HoldLockOptions& options,
                                         QString* error = nullptr) override;

    // ---- Used by the services ----
    // The device's name ("DeviceName" of the global domain).
    QString name() const;
    // Counts one call of an operation (every call the device receives, failed ones too).
    void countCall(const QString& operation);
    // Applies an armed delay of the operation (sleeping, but waking at once on detach), then
    // offers the call to the armed faults whose match is empty or equals matchText, in the
    // order armed: each that still lets calls through counts it toward its own "after"; the
    // first with none left strikes, and its status is returned. After a detach it answers
    // kHLDNotConnectedError.
    std::optional<int32_t> checkFault(const QString& operation, const QString& matchText = QString());
    // countCall() and checkFault() together: the usual head of every request handler.
    std::optional<int32_t> receive(const QString& operation, const QString& matchText = QString());
    // True while a fault or delay of the operation is armed (the conduit leaves file
    // information out of directory batches then, so every info call reaches the device).
    bool faultOrDelayArmed(const QString& operation) const;

    // Values. A null or empty domain is the global domain.
    QVariantMap values(const QString& domain) const;
    // kHLDSetProhibitedError for read-only identity keys, kHLDInvalidArgumentError for a key
    // that is empty or a value that is not a property-list value, kHLDWriteError when
    // device.plist cannot be written (the value is then left as it was). The file is written
    // atomically before this returns. Dates are kept to the second (a fraction is cut off).
    int32_t setValue(const QString& domain, const QString& key, const QVariant& value);
    static bool isReadOnlyKey(const QString& domain, const QString& key);

    // Pairing records by host identifier.
    bool isPaired(const QString& hostId) const;
    // kHLDPasswordProtectedError when the device refuses pairing.
    int32_t pair(const QString& hostId);
    QString pairingMode() const;  // "accept" or "refuse"

    // Records an accepted post: counted by name, kept in order, printed, handed to the post
    // listeners (in registration order, outside the lock).
    void recordPost(const QString& name);
    // Post listeners: called on the posting thread with the name of every accepted post,
    // without any lock of the device held. A listener may still be running on the posting
    // thread when removePostListener() returns, so it should capture shared state (a
    // shared_ptr or weak_ptr), not a raw pointer to an object about to be destroyed.
    int addPostListener(std::function<void(const QString&)> listener);
    void removePostListener(int token);
    // Arm listeners: called with the operation's name after a fault or a delay of it was armed,
    // on the arming thread, before addFault()/delay() return and without any lock of the device
    // held. The file conduit uses them to tell its clients that names and file information they
    // hold must reach the device again. The same caveat as for post listeners applies.
    int addArmListener(std::function<void(const QString&)> listener);
    void removeArmListener(int token);

    // Where the daemon prints its lines (set by the server at attach).
    void setPrinter(std::function<void(const QString&)> printer);

    // ---- Connections and detach ----
    bool isDetached() const { return _detached.load(); }
    const std::atomic<bool>& detachedFlag() const { return _detached; }
    // Registers an open connection to this device so a detach can shut it down. Returns a
    // token, or -1 when the device is already detached (the caller then closes at once).
    int registerConnection(int fd);
    // Must be called before the descriptor is closed.
    void unregisterConnection(int token);
    // Marks the device detached, shuts every registered connection down (their blocked reads
    // and writes return at once), wakes delayed calls and releases lock holders made by the
    // control connection.
    void detach();
    // Sleeps up to ms; returns false at once when the device is detached meanwhile.
    bool sleepUnlessDetached(int ms);

    // Lock holders started over the control connection live until they let go or detach.
    bool holdLockForControl(const QString& path, const HoldLockOptions& options, QString* error);

    // Attachment number: differs for every attach, so a reference from an earlier attachment
    // of the same device is told apart (it answers not-connected).
    void setAttachment(qint64 attachment) { _attachment = attachment; }
    qint64 attachment() const { return _attachment; }

private:
    DeviceState() = default;
    bool saveLocked(QString* error);  // _mutex held
    QVariantMap domainLocked(const QString& domain) const;

    struct Delay {
        int milliseconds = 0;
        int times = 0;
    };

    QString _folder;
    QString _identifier;
    qint64 _attachment = 0;

    mutable std::mutex _mutex;  // guards everything below
    QVariantMap _global;                 // the global domain
    QMap<QString, QVariantMap> _domains; // other domains
    QVariantMap _pairingRecords;         // host identifier -> record
    QString _pairingMode = QStringLiteral("accept");
    QVariantMap _emulation;              // other emulation settings kept in device.plist
    std::map<QString, int> _counts;
    std::map<QString, int> _postCounts;
    QStringList _posts;
    std::vector<Fault> _faults;
    std::map<QString, Delay> _delays;
    std::vector<std::pair<int, std::function<void(const QString&)>>> _postListeners;
    std::vector<std::pair<int, std::function<void(const QString&)>>> _armListeners;
    int _nextListenerToken = 1;
    std::function<void(const QString&)> _printer;
    std::map<int, int> _connections;  // token -> descriptor
    int _nextConnectionToken = 1;
    std::vector<std::unique_ptr<LockHolder>> _controlHolders;

    std::atomic<bool> _detached{false};
    std::condition_variable _detachedChanged;  // with _mutex; wakes sleeping delays
};

}  // namespace handlink::emu
