// doIt: the delayed start of each command by "linkDevAction", and the return to idle.
#include <QCoreApplication>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTabWidget>
#include <QTimer>

#include "AppTestbed.h"
#include "app/AppInterface.h"
#include "app/MainWindow.h"
#include "app/VRAppController.h"
#include "platform/Defaults.h"
#include "support/TestSupport.h"

using apptest::AppTest;
using apptest::Testbed;
using platform::Defaults;

namespace {

struct Dispatch {
    Defaults& store = Defaults::standard();
    AppInterface interface{store};
    VRAppController& controller = interface.controller();
    QProgressBar* bar = interface.mainWindow().progressBar();
    QLabel* text = interface.mainWindow().opStatusText();

    Dispatch()
    {
        interface.show();
        // A determinate bar and an old text, so doIt's reset shows.
        bar->setRange(0, 1000);
        bar->setValue(700);
        text->setText(QStringLiteral("Done."));
    }
    bool idle() const { return store.boolForKey(QStringLiteral("appInactive")); }
    bool indeterminate() const { return bar->minimum() == 0 && bar->maximum() == 0; }
};

// Runs doIt for the action and checks the busy state it leaves before the delay is over.
void startAndExpectBusy(Dispatch& d, qint64 action)
{
    d.store.setInteger(QStringLiteral("linkDevAction"), action);
    d.controller.doIt();
    EXPECT_FALSE(d.idle());
    EXPECT_TRUE(d.indeterminate());
    EXPECT_EQ(d.text->text(), QString());
    EXPECT_TRUE(d.controller.hasScheduledCommand());
    EXPECT_EQ(d.controller.scheduledCommandDelays(), QList<int>{100}) << "the command waits 0.1 s";
    EXPECT_FALSE(d.interface.mainWindow().runButton()->isEnabled());
}

}  // namespace

TEST_F(AppTest, GetFilesStartsAfterTheDelayAndReturnsToIdle)
{
    Dispatch d;
    apptest::WriteRecorder writes;
    startAndExpectBusy(d, 0);
    EXPECT_FALSE(d.store.boolForKey(QStringLiteral("activeLinkDevActionGetFiles"))) << "nothing runs before the delay";

    ASSERT_TRUE(testsupport::runUntil([&] { return d.idle(); }));
    EXPECT_FALSE(d.controller.hasScheduledCommand());
    EXPECT_FALSE(d.store.boolForKey(QStringLiteral("activeLinkDevActionGetFiles")));
    // The flag goes up when the command runs and down before the window is idle again.
    EXPECT_EQ(writes.entries(), (QStringList{QStringLiteral("linkDevAction=0"), QStringLiteral("appInactive=false"),
                                             QStringLiteral("activeLinkDevActionGetFiles=true"),
                                             QStringLiteral("activeLinkDevActionGetFiles=false"),
                                             QStringLiteral("appInactive=true")}));
}

TEST_F(AppTest, SimulateSyncStartsAfterTheDelayAndReturnsToIdle)
{
    Dispatch d;
    // With a device the simulation runs to its end inside the command (without one it would
    // stay pending beyond this test).
    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Tamber"));
    ASSERT_TRUE(testsupport::runUntil([&] { return d.store.boolForKey(QStringLiteral("connected")); }));
    apptest::WriteRecorder writes;
    d.text->hide();
    startAndExpectBusy(d, 1);
    EXPECT_FALSE(d.store.boolForKey(QStringLiteral("activeLinkDevActionSyncing")));

    ASSERT_TRUE(testsupport::runUntil([&] { return d.idle(); }));
    EXPECT_FALSE(d.store.boolForKey(QStringLiteral("activeLinkDevActionSyncing")));
    EXPECT_EQ(writes.entries(), (QStringList{QStringLiteral("linkDevAction=1"), QStringLiteral("appInactive=false"),
                                             QStringLiteral("activeLinkDevActionSyncing=true"),
                                             QStringLiteral("activeLinkDevActionSyncing=false"),
                                             QStringLiteral("appInactive=true")}));
    EXPECT_TRUE(d.text->isVisible()) << "the status line is shown for the simulator's texts";
    EXPECT_EQ(d.text->text(), QStringLiteral("Done."));
    EXPECT_EQ(device->postCount(QStringLiteral("com.corvid.lumen-linkdev.syncDidFinish")), 1);

    d.controller.updateSyncInfoText(QStringLiteral("waiting to acquire lock...."));
    EXPECT_EQ(d.text->text(), QStringLiteral("waiting to acquire lock...."));
}

TEST_F(AppTest, CheckStatusShowsItsTextAndReturnsToIdle)
{
    Dispatch d;
    apptest::WriteRecorder writes;
    d.text->hide();
    startAndExpectBusy(d, 2);
    EXPECT_EQ(d.text->text(), QString()) << "the text appears only when the check runs";

    ASSERT_TRUE(testsupport::runUntil([&] { return d.idle(); }));
    EXPECT_EQ(d.text->text(), QStringLiteral("Checking Status..."));
    EXPECT_TRUE(d.text->isVisible());
    EXPECT_FALSE(writes.keys().contains(QStringLiteral("activeLinkDevActionGetFiles")));
    EXPECT_FALSE(writes.keys().contains(QStringLiteral("activeLinkDevActionSyncing")));
    // No device object at all: every request counts as acquired.
    EXPECT_EQ(d.interface.mainWindow().checkStatusField()->text(), QStringLiteral("No one is holding the lock file."));
}

TEST_F(AppTest, EachPressSchedulesItsOwnCommand)
{
    Dispatch d;
    apptest::WriteRecorder writes;
    QLineEdit* answer = d.interface.mainWindow().checkStatusField();
    QObject::connect(answer, &QLineEdit::textChanged, answer, [&](const QString& text) { writes.mark(QStringLiteral("answer=") + text); });

    // doIt does not look at what is already waiting: Check Status, then Get Files.
    d.store.setInteger(QStringLiteral("linkDevAction"), 2);
    d.controller.doIt();
    d.store.setInteger(QStringLiteral("linkDevAction"), 0);
    d.controller.doIt();
    EXPECT_EQ(d.controller.scheduledCommandDelays(), (QList<int>{100, 100})) << "one delayed start per press";
    EXPECT_EQ(d.text->text(), QString()) << "neither runs before the main loop turns";
    EXPECT_TRUE(answer->text().isEmpty());
    EXPECT_FALSE(d.store.boolForKey(QStringLiteral("activeLinkDevActionGetFiles")));

    ASSERT_TRUE(testsupport::runUntil(
        [&] { return writes.entries().contains(QStringLiteral("activeLinkDevActionGetFiles=false")); }));
    ASSERT_TRUE(testsupport::runUntil([&] { return d.idle(); }));
    EXPECT_FALSE(d.controller.hasScheduledCommand());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(d.controller.findChildren<QTimer*>().size(), 0) << "fired timers are cleaned up";
    EXPECT_EQ(writes.entries(),
              (QStringList{QStringLiteral("linkDevAction=2"), QStringLiteral("appInactive=false"),
                           QStringLiteral("linkDevAction=0"), QStringLiteral("appInactive=false"),
                           // Check Status first, to its end...
                           QStringLiteral("answer=No one is holding the lock file."), QStringLiteral("appInactive=true"),
                           // ...then Get Files.
                           QStringLiteral("activeLinkDevActionGetFiles=true"),
                           QStringLiteral("activeLinkDevActionGetFiles=false"), QStringLiteral("appInactive=true")}));
}

TEST_F(AppTest, UnknownActionsReturnToIdleAtOnce)
{
    for (const qint64 action : {qint64(3), qint64(-1), qint64(1) << 40}) {
        Dispatch d;
        d.store.setInteger(QStringLiteral("linkDevAction"), action);
        apptest::WriteRecorder writes;
        d.controller.doIt();
        EXPECT_TRUE(d.idle()) << action;
        EXPECT_TRUE(d.indeterminate()) << action;
        EXPECT_EQ(d.text->text(), QString()) << action;
        EXPECT_FALSE(d.controller.hasScheduledCommand()) << "nothing is scheduled for " << action;
        EXPECT_EQ(writes.entries(), (QStringList{QStringLiteral("appInactive=false"), QStringLiteral("appInactive=true")}))
            << action;
        EXPECT_EQ(Defaults::standard().objectForKey(QStringLiteral("linkDevAction")).toLongLong(), action)
            << "the choice itself is left alone";
    }
}

TEST_F(AppTest, RunButtonChecksWhoHoldsTheSyncLock)
{
    Dispatch d;
    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Tamber"));
    ASSERT_TRUE(testsupport::runUntil([&] { return d.store.boolForKey(QStringLiteral("connected")); }));
    QPushButton* run = d.interface.mainWindow().runButton();
    QLineEdit* answer = d.interface.mainWindow().checkStatusField();
    ASSERT_TRUE(run->isEnabled());
    d.store.setInteger(QStringLiteral("linkDevAction"), 2);

    QTabWidget* tabs = d.interface.mainWindow().tabView();
    auto check = [&] {
        tabs->setCurrentIndex(1);
        run->click();
        EXPECT_FALSE(run->isEnabled());
        EXPECT_TRUE(d.controller.hasScheduledCommand());
        EXPECT_TRUE(testsupport::runUntil([&] { return d.idle(); }));
        EXPECT_TRUE(run->isEnabled());
        EXPECT_EQ(d.text->text(), QStringLiteral("Checking Status..."));
        EXPECT_TRUE(tabs->currentWidget()->isAncestorOf(answer)) << "the answer's tab comes forward";
        return answer->text();
    };
    EXPECT_EQ(check(), QStringLiteral("No one is holding the lock file."));

    handlink::emu::HoldLockOptions shared;
    shared.exclusive = false;
    auto holder = device->holdLock(QStringLiteral("com.corvid.lumen.lock_sync"), shared);
    ASSERT_TRUE(holder);
    EXPECT_EQ(check(), QStringLiteral("Zephyr is likely holding the lock file."));
    holder->release();

    handlink::emu::HoldLockOptions exclusive;
    holder = device->holdLock(QStringLiteral("com.corvid.lumen.lock_sync"), exclusive);
    ASSERT_TRUE(holder);
    EXPECT_EQ(check(), QStringLiteral("Lumen is likely holding the lock file."));
    holder->release();
}
