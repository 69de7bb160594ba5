// Simulate Sync in the real window: the status line while the device's software holds the
// sync lock, and the run that waits for a device.
#include <QLabel>
#include <mutex>
#include <vector>

#include "AppTestbed.h"
#include "app/AppInterface.h"
#include "app/MainWindow.h"
#include "app/VRAppController.h"
#include "platform/Defaults.h"
#include "platform/MainThread.h"
#include "support/TestSupport.h"

using apptest::AppTest;
using apptest::Testbed;
using platform::Defaults;

namespace {

const QString kWillStart = QStringLiteral("com.corvid.lumen-linkdev.syncWillStart");
const QString kDidStart = QStringLiteral("com.corvid.lumen-linkdev.syncDidStart");
const QString kDidFinish = QStringLiteral("com.corvid.lumen-linkdev.syncDidFinish");
const QString kLockPath = QStringLiteral("com.corvid.lumen.lock_sync");
const QString kWaiting = QStringLiteral("waiting to acquire lock....");

struct Window {
    Defaults& store = Defaults::standard();
    AppInterface interface{store};
    VRAppController& controller = interface.controller();
    QLabel* text = interface.mainWindow().opStatusText();

    Window() { interface.show(); }
    // Chooses Simulate Sync and presses the button.
    void simulateSync()
    {
        store.setInteger(QStringLiteral("linkDevAction"), 1);
        controller.doIt();
    }
    bool idle() const { return store.boolForKey(QStringLiteral("appInactive")); }
    bool syncing() const { return store.boolForKey(QStringLiteral("activeLinkDevActionSyncing")); }
};

// What the window showed each time the device saw the will-start notification, looked at on
// the main thread while the post was under way (before the holder could react to it).
struct Sighting {
    QString shown;
    bool holderHolding;
    bool operator==(const Sighting&) const = default;
};

class Sightings {
public:
    void add(const Sighting& sighting)
    {
        std::lock_guard guard(_mutex);
        _sightings.push_back(sighting);
    }
    std::vector<Sighting> all() const
    {
        std::lock_guard guard(_mutex);
        return _sightings;
    }

private:
    mutable std::mutex _mutex;  // guards _sightings (the emulator's thread and the test's)
    std::vector<Sighting> _sightings;
};

void PrintTo(const Sighting& sighting, std::ostream* os)
{
    *os << '"' << sighting.shown.toStdString() << "\" " << (sighting.holderHolding ? "held" : "free");
}

}  // namespace

TEST_F(AppTest, SimulateSyncShowsTheWaitWhileTheDeviceHoldsTheLock)
{
    Window w;
    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Tamber"));
    ASSERT_TRUE(testsupport::runUntil([&] { return w.store.boolForKey(QStringLiteral("connected")); }));

    // The device's software lets go of the sync lock at the fourth will-start it sees: the
    // sync's own post and three lock requests of the waiting acquisition.
    handlink::emu::HoldLockOptions yielding;
    yielding.yieldOn = kWillStart;
    yielding.afterRequests = 4;
    std::shared_ptr<handlink::emu::LockHolder> holder = device->holdLock(kLockPath, yielding);
    ASSERT_TRUE(holder);

    // The emulator prints a post before the device's software hears of it and before the
    // poster gets its answer, so the window is looked at while the holder still decides.
    auto sightings = std::make_shared<Sightings>();
    QLabel* text = w.text;
    Testbed::instance().emulator().setPrinter([sightings, holder, text](const QString& line) {
        if (!line.startsWith(QLatin1String("posted ")) || !line.endsWith(QLatin1Char(' ') + kWillStart)) return;
        const bool holding = holder->holding();
        QString shown;
        platform::mainthread::postAndWait([&] { shown = text->text(); });
        sightings->add({shown, holding});
    });

    w.simulateSync();
    ASSERT_TRUE(testsupport::runUntil([&] { return w.idle(); }));
    Testbed::instance().emulator().setPrinter([](const QString&) {});

    // Before the first post nothing was shown yet; at every lock request the window showed the
    // wait while the device still held the lock.
    EXPECT_EQ(sightings->all(), (std::vector<Sighting>{{QString(), true}, {kWaiting, true}, {kWaiting, true}, {kWaiting, true}}));
    EXPECT_FALSE(holder->holding());
    EXPECT_EQ(w.text->text(), QStringLiteral("Done."));
    EXPECT_TRUE(w.text->isVisible());
    EXPECT_FALSE(w.syncing());
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kWillStart, kWillStart, kWillStart, kDidStart, kDidFinish}));
    // The simulator gave the lock back: the device can take it again.
    EXPECT_TRUE(device->holdLock(kLockPath, handlink::emu::HoldLockOptions{}));
}

TEST_F(AppTest, SimulateSyncWithoutADeviceReturnsAtOnceAndRunsWhenOneArrives)
{
    Window w;
    apptest::WriteRecorder writes;
    w.simulateSync();
    ASSERT_TRUE(testsupport::runUntil([&] { return w.idle(); }));
    EXPECT_FALSE(w.syncing());
    EXPECT_EQ(writes.entries(), (QStringList{QStringLiteral("linkDevAction=1"), QStringLiteral("appInactive=false"),
                                             QStringLiteral("activeLinkDevActionSyncing=true"),
                                             QStringLiteral("activeLinkDevActionSyncing=false"),
                                             QStringLiteral("appInactive=true")}));
    EXPECT_EQ(w.text->text(), QString()) << "nothing has run yet";
    EXPECT_TRUE(w.text->isVisible());

    // The next device to arrive gets the waiting simulation.
    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Tamber"));
    ASSERT_TRUE(device);
    ASSERT_TRUE(testsupport::runUntil([&] { return w.text->text() == QStringLiteral("Done."); }));
    EXPECT_EQ(device->postedNotifications(), QStringList({kWillStart, kDidStart, kDidFinish}));
    EXPECT_EQ(device->count(QStringLiteral("qfc-unlock")), 1);
    EXPECT_FALSE(w.syncing());
    EXPECT_TRUE(w.idle());
}
