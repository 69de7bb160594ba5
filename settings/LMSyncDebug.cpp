#include "settings/LMSyncDebug.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QObject>
#include <atomic>
#include <mutex>
#include <optional>

const QString kLMSyncDebugDomain = QStringLiteral("com.corvid.mobiletamber");
const QString kLMSyncDebugEnabledKey = QStringLiteral("syncDebug.enabled_v2");
const QString kLMSyncDebugDataRemovalKey = QStringLiteral("syncDebug.dataNeedsRemoval");
const QString kLMSyncDebugChangeNotification = QStringLiteral("com.corvid.mobiletamber.syncDebugChange");

namespace {

// The system-wide observer's callback. It does nothing with the notification; it counts it,
// so that one can tell the observer is live.
class SyncDebugChangeObserver : public QObject {
    Q_OBJECT
public:
    std::atomic<int> received{0};

public slots:
    void syncDebugChange() { ++received; }
};

std::once_flag g_setUpOnce;
// Kept as the guard a caller may take around the two writes; this program never locks it.
std::optional<std::recursive_mutex> g_syncDebugMutex;
// Set once, lives for the process.
std::atomic<SyncDebugChangeObserver*> g_systemWideObserver{nullptr};

// Observes the change notification on the session bus: the name split at its last dot is
// the signal's interface and member, from any sender and object path. Delivery happens on
// the main thread whenever its event loop runs. Skipped without an application (nowhere to
// deliver) or without a session bus.
void observeSystemWide()
{
    QCoreApplication* application = QCoreApplication::instance();
    if (!application)
        return;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    const qsizetype dot = kLMSyncDebugChangeNotification.lastIndexOf(u'.');
    auto* observer = new SyncDebugChangeObserver;
    if (!bus.connect(QString(), QString(), kLMSyncDebugChangeNotification.left(dot),
                     kLMSyncDebugChangeNotification.mid(dot + 1), observer, SLOT(syncDebugChange()))) {
        delete observer;
        return;
    }
    observer->moveToThread(application->thread());
    g_systemWideObserver = observer;
}

void setUpOnce()
{
    std::call_once(g_setUpOnce, [] {
        g_syncDebugMutex.emplace();
        observeSystemWide();
    });
}

// The private twins do the work; the public functions only forward to them.
namespace twins {

bool LMSyncDebugEnabled(const std::shared_ptr<LinkDev>& device)
{
    if (!device)
        return false;
    return device->lockdownBoolValueForKey(kLMSyncDebugEnabledKey, kLMSyncDebugDomain, false);
}

void setLMSyncDebugEnabledAndScheduleDataRemoval(const std::shared_ptr<LinkDev>& device, bool enabled,
                                                 bool dataNeedsRemoval)
{
    setUpOnce();
    if (!device)
        return;
    device->setLockdownBoolValue(enabled, kLMSyncDebugEnabledKey, kLMSyncDebugDomain);
    device->setLockdownBoolValue(dataNeedsRemoval, kLMSyncDebugDataRemovalKey, kLMSyncDebugDomain);
    device->postNotification(kLMSyncDebugChangeNotification);
}

void setLMSyncDebugEnabled(const std::shared_ptr<LinkDev>& device)
{
    twins::setLMSyncDebugEnabledAndScheduleDataRemoval(device, true, false);
}

void setLMSyncDebugDisabled(const std::shared_ptr<LinkDev>& device, bool removeData)
{
    twins::setLMSyncDebugEnabledAndScheduleDataRemoval(device, false, removeData);
}

}  // namespace twins

}  // namespace

bool LMSyncDebugEnabled(const std::shared_ptr<LinkDev>& device)
{
    return twins::LMSyncDebugEnabled(device);
}

void setLMSyncDebugEnabledAndScheduleDataRemoval(const std::shared_ptr<LinkDev>& device, bool enabled,
                                                 bool dataNeedsRemoval)
{
    twins::setLMSyncDebugEnabledAndScheduleDataRemoval(device, enabled, dataNeedsRemoval);
}

void setLMSyncDebugEnabled(const std::shared_ptr<LinkDev>& device)
{
    twins::setLMSyncDebugEnabled(device);
}

void setLMSyncDebugDisabled(const std::shared_ptr<LinkDev>& device, bool removeData)
{
    twins::setLMSyncDebugDisabled(device, removeData);
}

bool LMSyncDebugObservingSystemWide()
{
    return g_systemWideObserver.load() != nullptr;
}

int LMSyncDebugSystemWideChangesReceived()
{
    const SyncDebugChangeObserver* observer = g_systemWideObserver.load();
    return observer ? observer->received.load() : 0;
}

#include "LMSyncDebug.moc"
