// The class side of LinkDev: the device registry.
#include <QList>
#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "device/LinkDev.h"
#include "platform/MainThread.h"
#include "platform/SystemLog.h"

namespace {

// One per process, created on first use and never freed.
struct Registry {
    std::mutex mutex;                          // guards the fields below
    std::vector<LinkDevObserver*> observers;   // a set by pointer; not owned
    QList<HLDeviceRef> devices;                // attached devices, in order of arrival; retained
    bool subscribed = false;
    // Observers being told right now, and on which thread. An observer that unregisters on
    // another thread waits until its call is over, so it can be destroyed right after.
    std::vector<std::pair<LinkDevObserver*, std::thread::id>> calling;
    std::condition_variable callEnded;
};

Registry& registry()
{
    static Registry* instance = new Registry;
    return *instance;
}

// Two references are the same device when their identifiers are the same text (or both absent).
bool sameDevice(HLDeviceRef a, HLDeviceRef b)
{
    const QString first = HLDeviceCopyDeviceIdentifier(a);
    const QString second = HLDeviceCopyDeviceIdentifier(b);
    if (first.isNull() || second.isNull()) return first.isNull() && second.isNull();
    return first == second;
}

qsizetype indexOfDevice(const QList<HLDeviceRef>& devices, HLDeviceRef device)
{
    for (qsizetype i = 0; i < devices.size(); ++i)
        if (sameDevice(devices[i], device)) return i;
    return -1;
}

bool isRegisteredLocked(const Registry& r, LinkDevObserver* observer)
{
    return std::find(r.observers.begin(), r.observers.end(), observer) != r.observers.end();
}

// Tells the observer if it is still registered; its unregistration on another thread waits
// for the call to end.
void tellIfRegistered(LinkDevObserver* observer)
{
    Registry& r = registry();
    const std::pair<LinkDevObserver*, std::thread::id> call{observer, std::this_thread::get_id()};
    {
        std::lock_guard guard(r.mutex);
        if (!isRegisteredLocked(r, observer)) return;
        r.calling.push_back(call);
    }
    struct EndCall {
        Registry& r;
        std::pair<LinkDevObserver*, std::thread::id> call;
        ~EndCall()
        {
            {
                std::lock_guard guard(r.mutex);
                r.calling.erase(std::find(r.calling.begin(), r.calling.end(), call));
            }
            r.callEnded.notify_all();
        }
    } endCall{r, call};
    SetApplyPostAvailabiltyChangedFunction(observer, nullptr);
}

void subscribe()
{
    HLDeviceNotificationRef handle = nullptr;  // never kept: the subscription lasts for the process
    HLDeviceNotificationSubscribe(HandleDeviceNotification, 0, 1, nullptr, &handle);
}

// A new device object for the list element chosen by pick, or null when the list is empty.
template <typename Pick>
std::shared_ptr<LinkDev> availableDevice(Pick pick)
{
    HLDeviceRef ref = nullptr;
    {
        Registry& r = registry();
        std::lock_guard guard(r.mutex);
        if (r.devices.isEmpty()) return nullptr;
        ref = pick(r.devices);
        HLDeviceRetain(ref);  // keeps it valid should a detach remove it meanwhile
    }
    std::shared_ptr<LinkDev> device = LinkDev::create(ref);
    HLDeviceRelease(ref);
    return device;
}

}  // namespace

void LinkDev::registerDeviceObserver(LinkDevObserver* observer)
{
    Registry& r = registry();
    bool subscribeNow = false;
    bool tellNow = false;
    {
        std::lock_guard guard(r.mutex);
        if (std::find(r.observers.begin(), r.observers.end(), observer) == r.observers.end())
            r.observers.push_back(observer);
        if (!r.subscribed) {
            r.subscribed = true;  // whatever the subscription answers: no second attempt
            subscribeNow = true;
        } else {
            tellNow = !r.devices.isEmpty();
        }
    }
    if (subscribeNow) {
        // Events arrive on the subscribing thread's event loop, so subscribe on the main thread.
        if (platform::mainthread::isMainThread())
            subscribe();
        else
            platform::mainthread::post(subscribe);
    } else if (tellNow) {
        _notifyClientOfDeviceAvailabilityChanges(observer);
    }
}

void LinkDev::unregisterDeviceObserver(LinkDevObserver* observer)
{
    Registry& r = registry();
    std::unique_lock lock(r.mutex);
    r.observers.erase(std::remove(r.observers.begin(), r.observers.end(), observer), r.observers.end());
    // A call to this observer on another thread may be under way: wait for it to end, so the
    // caller may destroy the observer at once. A call on this thread (the observer
    // unregistering from inside its own notification) is not waited for.
    const auto self = std::this_thread::get_id();
    r.callEnded.wait(lock, [&] {
        return std::none_of(r.calling.begin(), r.calling.end(),
                            [&](const auto& call) { return call.first == observer && call.second != self; });
    });
}

std::shared_ptr<LinkDev> LinkDev::firstAvailableDevice()
{
    return availableDevice([](const QList<HLDeviceRef>& devices) { return devices.first(); });
}

std::shared_ptr<LinkDev> LinkDev::lastAvailableDevice()
{
    return availableDevice([](const QList<HLDeviceRef>& devices) { return devices.last(); });
}

QStringList LinkDev::availableDeviceIdentifiers()
{
    Registry& r = registry();
    std::lock_guard guard(r.mutex);
    QStringList identifiers;
    for (HLDeviceRef device : r.devices) identifiers << HLDeviceCopyDeviceIdentifier(device);
    return identifiers;
}

void LinkDev::_notifyClientOfDeviceAvailabilityChanges(LinkDevObserver* observer)
{
    observer->handlinkAvailabliltyDidChange();
}

void LinkDev::_noteDeviceAvailabilityDidChange(HLDeviceRef device, bool available)
{
    Registry& r = registry();
    bool changed = false;
    std::vector<LinkDevObserver*> observers;
    {
        std::lock_guard guard(r.mutex);
        const qsizetype index = indexOfDevice(r.devices, device);
        if (available && index < 0) {
            HLDeviceRetain(device);
            r.devices.append(device);
            changed = true;
        } else if (!available && index >= 0) {
            HLDeviceRelease(r.devices.takeAt(index));
            changed = true;
        }
        if (changed) observers = r.observers;
    }
    // Told outside the lock (an observer asks the registry again); one that unregistered
    // while others were told is skipped.
    for (LinkDevObserver* observer : observers) tellIfRegistered(observer);
}

void HandleDeviceNotification(HLDeviceNotificationInfo* info, void* /*context*/)
{
    switch (info->msg) {
    case kHLDNotificationConnected:
        LinkDev::_noteDeviceAvailabilityDidChange(info->device, true);
        break;
    case kHLDNotificationDisconnected:
    case kHLDNotificationUnsubscribed:
        LinkDev::_noteDeviceAvailabilityDidChange(info->device, false);
        break;
    default:
        platform::writeStandardError(QStringLiteral("Unknown action: %1\n").arg(static_cast<int32_t>(info->msg)));
        break;
    }
}

void SetApplyPostAvailabiltyChangedFunction(LinkDevObserver* observer, void* /*context*/)
{
    LinkDev::_notifyClientOfDeviceAvailabilityChanges(observer);
}
