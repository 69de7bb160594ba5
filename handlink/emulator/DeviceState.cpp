#include "handlink/emulator/DeviceState.h"

#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/DeviceFolder.h"
#include "platform/PropertyList.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <chrono>
#include <sys/socket.h>

#ifdef VIREO_HANDLINK_HAVE_LOCK_HOLDERS
#include "handlink/emulator/qfc/LockHolders.h"
#endif

namespace handlink::emu {

namespace {

QString domainKey(const QString& domain) { return domain.isEmpty() ? QString() : domain; }

// The device keeps dates to the second, as device.plist holds them: a fraction of a second is
// cut off when a value is set, so a date reads back the same before and after the device is
// loaded again.
QVariant wholeSeconds(const QVariant& value) {
    switch (value.typeId()) {
    case QMetaType::QDateTime: {
        const QDateTime date = value.toDateTime().toUTC();
        return date.addMSecs(-date.time().msec());
    }
    case QMetaType::QVariantList: {
        QVariantList list = value.toList();
        for (QVariant& item : list) item = wholeSeconds(item);
        return list;
    }
    case QMetaType::QVariantMap: {
        QVariantMap map = value.toMap();
        for (QVariant& item : map) item = wholeSeconds(item);
        return map;
    }
    default: return value;
    }
}

}  // namespace

std::shared_ptr<DeviceState> DeviceState::load(const QString& folderPath, QString* error) {
    const QString folder = QFileInfo(folderPath).absoluteFilePath();
    QString readError;
    const auto root = platform::plist::readFile(folder::plistPath(folder), &readError);
    if (!root) {
        if (error) *error = QStringLiteral("%1 is not a device folder: %2").arg(folder, readError);
        return nullptr;
    }
    const QVariantMap map = root->toMap();
    const QString identifier = map.value(folder::kIdentifier).toString();
    if (root->typeId() != QMetaType::QVariantMap || identifier.isEmpty()) {
        if (error) *error = QStringLiteral("%1 has no device identifier").arg(folder::plistPath(folder));
        return nullptr;
    }
    std::shared_ptr<DeviceState> device(new DeviceState());
    device->_folder = folder;
    device->_identifier = identifier;
    device->_global = map.value(folder::kValues).toMap();
    const QVariantMap domains = map.value(folder::kDomains).toMap();
    for (auto it = domains.begin(); it != domains.end(); ++it) device->_domains.insert(it.key(), it.value().toMap());
    device->_pairingRecords = map.value(folder::kPairingRecords).toMap();
    device->_emulation = map.value(folder::kEmulation).toMap();
    if (device->_emulation.value(folder::kPairing).toString() == QLatin1String("refuse"))
        device->_pairingMode = QStringLiteral("refuse");
    QDir().mkpath(folder::mediaPath(folder));
    return device;
}

DeviceState::~DeviceState() {
    // Holders may refer back to this device through post listeners; let go of them first.
    std::vector<std::unique_ptr<LockHolder>> holders;
    {
        std::lock_guard lock(_mutex);
        holders.swap(_controlHolders);
    }
    holders.clear();
}

QString DeviceState::mediaRoot() const { return folder::mediaPath(_folder); }

QString DeviceState::name() const { return value(QString(), QStringLiteral("DeviceName")).toString(); }

// ---- counters ----

int DeviceState::count(const QString& operation) const {
    std::lock_guard lock(_mutex);
    auto it = _counts.find(operation);
    return it == _counts.end() ? 0 : it->second;
}

int DeviceState::postCount(const QString& notificationName) const {
    std::lock_guard lock(_mutex);
    auto it = _postCounts.find(notificationName);
    return it == _postCounts.end() ? 0 : it->second;
}

std::map<QString, int> DeviceState::counts() const {
    std::lock_guard lock(_mutex);
    return _counts;
}

std::map<QString, int> DeviceState::postCounts() const {
    std::lock_guard lock(_mutex);
    return _postCounts;
}

QStringList DeviceState::postedNotifications() const {
    std::lock_guard lock(_mutex);
    return _posts;
}

void DeviceState::resetCounters() {
    std::lock_guard lock(_mutex);
    _counts.clear();
    _postCounts.clear();
    _posts.clear();
}

void DeviceState::countCall(const QString& operation) {
    std::lock_guard lock(_mutex);
    ++_counts[operation];
}

// ---- faults and delays ----

void DeviceState::addFault(const Fault& fault) {
    if (fault.times <= 0) return;
    std::vector<std::function<void(const QString&)>> listeners;
    {
        std::lock_guard lock(_mutex);
        _faults.push_back(fault);
        for (const auto& entry : _armListeners) listeners.push_back(entry.second);
    }
    for (const auto& listener : listeners) listener(fault.operation);
}

void DeviceState::delay(const QString& operation, int milliseconds, int times) {
    std::vector<std::function<void(const QString&)>> listeners;
    {
        std::lock_guard lock(_mutex);
        if (milliseconds <= 0 || times <= 0) {
            _delays.erase(operation);
            return;
        }
        _delays[operation] = Delay{milliseconds, times};
        for (const auto& entry : _armListeners) listeners.push_back(entry.second);
    }
    for (const auto& listener : listeners) listener(operation);
}

void DeviceState::clearFaults() {
    std::lock_guard lock(_mutex);
    _faults.clear();
    _delays.clear();
}

bool DeviceState::faultOrDelayArmed(const QString& operation) const {
    std::lock_guard lock(_mutex);
    if (_delays.count(operation)) return true;
    for (const Fault& fault : _faults)
        if (fault.operation == operation) return true;
    return false;
}

bool DeviceState::sleepUnlessDetached(int ms) {
    std::unique_lock lock(_mutex);
    return !_detachedChanged.wait_for(lock, std::chrono::milliseconds(ms), [this] { return _detached.load(); });
}

std::optional<int32_t> DeviceState::checkFault(const QString& operation, const QString& matchText) {
    int sleepMs = 0;
    {
        std::lock_guard lock(_mutex);
        auto it = _delays.find(operation);
        if (it != _delays.end()) {
            sleepMs = it->second.milliseconds;
            if (--it->second.times <= 0) _delays.erase(it);
        }
    }
    if (sleepMs > 0) sleepUnlessDetached(sleepMs);
    if (_detached.load()) return kHLDNotConnectedError;

    // Every armed fault of the operation sees the call in the order armed: one still letting
    // calls through counts it toward its own "after"; the first with none left strikes.
    std::lock_guard lock(_mutex);
    for (auto it = _faults.begin(); it != _faults.end(); ++it) {
        Fault& fault = *it;
        if (fault.operation != operation) continue;
        if (!fault.match.isEmpty() && fault.match != matchText) continue;
        if (fault.after > 0) {
            --fault.after;
            continue;
        }
        const int32_t status = fault.status;
        if (--fault.times <= 0) _faults.erase(it);
        return status;
    }
    return std::nullopt;
}

std::optional<int32_t> DeviceState::receive(const QString& operation, const QString& matchText) {
    countCall(operation);
    return checkFault(operation, matchText);
}

// ---- values ----

bool DeviceState::isReadOnlyKey(const QString& domain, const QString& key) {
    if (!domain.isEmpty()) return false;
    static const QStringList readOnly = {
        QStringLiteral("UniqueDeviceID"), QStringLiteral("SerialNumber"), QStringLiteral("DeviceClass"),
        QStringLiteral("ProductType"), QStringLiteral("ModelNumber"),
        QStringLiteral("InternationalMobileEquipmentIdentity"), QStringLiteral("WiFiAddress"),
        QStringLiteral("BluetoothAddress"),
    };
    return readOnly.contains(key);
}

QVariantMap DeviceState::domainLocked(const QString& domain) const {
    if (domain.isEmpty()) return _global;
    return _domains.value(domain);
}

QVariantMap DeviceState::values(const QString& domain) const {
    std::lock_guard lock(_mutex);
    return domainLocked(domain);
}

QVariant DeviceState::value(const QString& domain, const QString& key) const {
    std::lock_guard lock(_mutex);
    if (domain.isEmpty()) return _global.value(key);
    auto it = _domains.find(domain);
    return it == _domains.end() ? QVariant() : it->value(key);
}

int32_t DeviceState::setValue(const QString& domain, const QString& key, const QVariant& value) {
    if (key.isEmpty() || !value.isValid() || !platform::plist::isPropertyListValue(value))
        return kHLDInvalidArgumentError;
    if (isReadOnlyKey(domain, key)) return kHLDSetProhibitedError;
    std::lock_guard lock(_mutex);
    // The value changes only when device.plist holds it: on a failed write, the old state
    // (value, or no value, or no domain) is put back.
    const bool global = domainKey(domain).isEmpty();
    const bool hadDomain = global || _domains.contains(domain);
    QVariantMap& map = global ? _global : _domains[domain];
    const std::optional<QVariant> previous = map.contains(key) ? std::optional<QVariant>(map.value(key)) : std::nullopt;
    map.insert(key, wholeSeconds(value));
    if (saveLocked(nullptr)) return kHLDSuccess;
    if (!hadDomain)
        _domains.remove(domain);
    else if (previous)
        map.insert(key, *previous);
    else
        map.remove(key);
    return kHLDWriteError;
}

bool DeviceState::saveLocked(QString* error) {
    QVariantMap domains;
    for (auto it = _domains.begin(); it != _domains.end(); ++it) domains.insert(it.key(), it.value());
    QVariantMap emulation = _emulation;
    emulation.insert(folder::kPairing, _pairingMode);
    QVariantMap root;
    root.insert(folder::kIdentifier, _identifier);
    root.insert(folder::kValues, _global);
    root.insert(folder::kDomains, domains);
    root.insert(folder::kPairingRecords, _pairingRecords);
    root.insert(folder::kEmulation, emulation);
    return platform::plist::writeFile(folder::plistPath(_folder), root, error);
}

// ---- pairing ----

bool DeviceState::isPaired(const QString& hostId) const {
    std::lock_guard lock(_mutex);
    return !hostId.isEmpty() && _pairingRecords.contains(hostId);
}

int32_t DeviceState::pair(const QString& hostId) {
    if (hostId.isEmpty()) return kHLDMissingHostIDError;
    std::lock_guard lock(_mutex);
    if (_pairingMode == QLatin1String("refuse")) return kHLDPasswordProtectedError;
    QVariantMap record;
    record.insert(QStringLiteral("HostID"), hostId);
    record.insert(QStringLiteral("PairingDate"), QDateTime::currentDateTimeUtc());
    const QVariant previous = _pairingRecords.value(hostId);  // invalid when there was none
    _pairingRecords.insert(hostId, record);
    if (saveLocked(nullptr)) return kHLDSuccess;
    if (previous.isValid())
        _pairingRecords.insert(hostId, previous);
    else
        _pairingRecords.remove(hostId);
    return kHLDWriteError;
}

QString DeviceState::pairingMode() const {
    std::lock_guard lock(_mutex);
    return _pairingMode;
}

void DeviceState::setPairing(const QString& mode) {
    std::lock_guard lock(_mutex);
    if (mode == QLatin1String("forget"))
        _pairingRecords.clear();
    else if (mode == QLatin1String("accept") || mode == QLatin1String("refuse"))
        _pairingMode = mode;
    else
        return;
    saveLocked(nullptr);
}

// ---- posts ----

void DeviceState::recordPost(const QString& name) {
    std::vector<std::function<void(const QString&)>> listeners;
    std::function<void(const QString&)> printer;
    {
        std::lock_guard lock(_mutex);
        ++_postCounts[name];
        _posts.append(name);
        for (const auto& entry : _postListeners) listeners.push_back(entry.second);
        printer = _printer;
    }
    if (printer) printer(QStringLiteral("posted %1 %2").arg(_identifier, name));
    for (const auto& listener : listeners) listener(name);
}

int DeviceState::addPostListener(std::function<void(const QString&)> listener) {
    std::lock_guard lock(_mutex);
    const int token = _nextListenerToken++;
    _postListeners.emplace_back(token, std::move(listener));
    return token;
}

void DeviceState::removePostListener(int token) {
    std::lock_guard lock(_mutex);
    for (auto it = _postListeners.begin(); it != _postListeners.end(); ++it) {
        if (it->first == token) {
            _postListeners.erase(it);
            return;
        }
    }
}

int DeviceState::addArmListener(std::function<void(const QString&)> listener) {
    std::lock_guard lock(_mutex);
    const int token = _nextListenerToken++;
    _armListeners.emplace_back(token, std::move(listener));
    return token;
}

void DeviceState::removeArmListener(int token) {
    std::lock_guard lock(_mutex);
    for (auto it = _armListeners.begin(); it != _armListeners.end(); ++it) {
        if (it->first == token) {
            _armListeners.erase(it);
            return;
        }
    }
}

void DeviceState::setPrinter(std::function<void(const QString&)> printer) {
    std::lock_guard lock(_mutex);
    _printer = std::move(printer);
}

// ---- connections and detach ----

int DeviceState::registerConnection(int fd) {
    std::lock_guard lock(_mutex);
    if (_detached.load()) return -1;
    const int token = _nextConnectionToken++;
    _connections.emplace(token, fd);
    return token;
}

void DeviceState::unregisterConnection(int token) {
    std::lock_guard lock(_mutex);
    _connections.erase(token);
}

void DeviceState::detach() {
    std::vector<std::unique_ptr<LockHolder>> holders;
    {
        std::lock_guard lock(_mutex);
        _detached.store(true);
        for (const auto& entry : _connections) ::shutdown(entry.second, SHUT_RDWR);
        holders.swap(_controlHolders);
    }
    _detachedChanged.notify_all();
    for (auto& holder : holders) holder->release();
}

// ---- lock holders ----

std::unique_ptr<LockHolder> DeviceState::holdLock(const QString& path, const HoldLockOptions& options,
                                                  QString* error) {
#ifdef VIREO_HANDLINK_HAVE_LOCK_HOLDERS
    return makeLockHolder(shared_from_this(), path, options, error);
#else
    (void)path;
    (void)options;
    if (error) *error = QStringLiteral("this build has no device-side lock holders");
    return nullptr;
#endif
}

bool DeviceState::holdLockForControl(const QString& path, const HoldLockOptions& options, QString* error) {
    std::unique_ptr<LockHolder> holder = holdLock(path, options, error);
    if (!holder) return false;
    std::vector<std::unique_ptr<LockHolder>> finished;  // destroyed outside the lock
    std::lock_guard lock(_mutex);
    if (_detached.load()) {
        finished.push_back(std::move(holder));
        if (error) *error = QStringLiteral("the device is detached");
        return false;
    }
    // Forget holders that have let go by now.
    for (auto it = _controlHolders.begin(); it != _controlHolders.end();) {
        if ((*it)->holding()) {
            ++it;
        } else {
            finished.push_back(std::move(*it));
            it = _controlHolders.erase(it);
        }
    }
    _controlHolders.push_back(std::move(holder));
    return true;
}

}  // namespace handlink::emu
