// Screenshots of the windows as a user sees them, with and without a device. The pictures go
// to the build folder (screenshots/) for people to look at; the test checks what they show.
#include <QDir>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QCheckBox>
#include <QPushButton>

#include "AppTestbed.h"
#include "app/AppInterface.h"
#include "app/MainWindow.h"
#include "app/SettingsWindow.h"
#include "app/VRAppController.h"
#include "app/WarningPanel.h"
#include "settings/VRLMSyncDebugDeviceSetting.h"
#include "platform/Defaults.h"
#include "status/HLTaskStatus.h"
#include "support/TestSupport.h"

using apptest::AppTest;
using apptest::Testbed;
using platform::Defaults;

namespace {

QString screenshotPath(const QString& name)
{
    const QString folder = QStringLiteral(VIREO_SCREENSHOT_DIR);
    QDir().mkpath(folder);
    return QDir(folder).filePath(name);
}

// Saves the window's picture and returns it.
QImage saveShot(QWidget& window, const QString& name)
{
    const QImage image = window.grab().toImage();
    EXPECT_FALSE(image.isNull());
    EXPECT_TRUE(image.save(screenshotPath(name))) << name.toStdString();
    return image;
}

// True when the picture is more than one flat colour (something was drawn).
bool hasContent(const QImage& image)
{
    const QRgb first = image.pixel(0, 0);
    for (int y = 0; y < image.height(); y += 3)
        for (int x = 0; x < image.width(); x += 3)
            if (image.pixel(x, y) != first)
                return true;
    return false;
}

}  // namespace

TEST_F(AppTest, ScreenshotsWithAndWithoutDevice)
{
    Defaults& store = Defaults::standard();
    AppInterface interface(store);
    interface.show();
    MainWindow& main = interface.mainWindow();
    ASSERT_TRUE(testsupport::runUntil([&] { return main.isVisible(); }));

    EXPECT_EQ(main.deviceNameLabel()->text(), QStringLiteral("No Device Connected"));
    EXPECT_TRUE(hasContent(saveShot(main, QStringLiteral("main-window-no-device.png"))));

    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Tamber of Test"));
    ASSERT_TRUE(testsupport::runUntil([&] { return main.deviceNameLabel()->text() == u"Tamber of Test"; }));
    EXPECT_TRUE(main.runButton()->isEnabled());
    const QImage withDevice = saveShot(main, QStringLiteral("main-window-device.png"));
    EXPECT_TRUE(hasContent(withDevice));
    EXPECT_EQ(withDevice.size(), main.size() * main.devicePixelRatio());

    // After a Check Status run.
    store.setInteger(QStringLiteral("linkDevAction"), 2);
    interface.controller().doIt();
    ASSERT_TRUE(testsupport::runUntil([&] { return store.boolForKey(QStringLiteral("appInactive")); }));
    EXPECT_EQ(main.checkStatusField()->text(), QStringLiteral("No one is holding the lock file."));
    saveShot(main, QStringLiteral("main-window-check-status.png"));

    // Busy, in the transfer pass, driven the way a job drives it.
    store.setBool(QStringLiteral("appInactive"), false);
    HLTaskStatus status(&interface.controller());
    status.willBeginSubtask(QString(), 5000);
    status.setTaskPhase(kHLTaskPhaseTransfer);
    status.willBeginSubtask(QString::fromUtf8("Uploading iTunes_Control/iTunes/MediaLibrary.sqlitedb\u2026"), 5000);
    status.incrementBytesTransfered(2100);
    EXPECT_EQ(main.progressBar()->value(), 420);
    EXPECT_FALSE(main.runButton()->isEnabled());
    saveShot(main, QStringLiteral("main-window-busy.png"));
    store.setBool(QStringLiteral("appInactive"), true);

    // The smallest the window goes.
    main.resize(main.minimumSize());
    testsupport::runUntil([&] { return main.size() == main.minimumSize(); }, 2000);
    saveShot(main, QStringLiteral("main-window-smallest.png"));
    EXPECT_GE(main.deviceNameLabel()->width(), main.deviceNameLabel()->sizeHint().width()) << "the name is not cut";

    // A long status line is cut at the window's edge; it never widens the window.
    const int widthBefore = main.minimumSizeHint().width();
    main.opStatusText()->setText(QStringLiteral("Uploading ") + QString(400, u'x'));
    EXPECT_EQ(main.minimumSizeHint().width(), widthBefore);

    // The options tab, and the window made larger: the layout stretches, nothing overlaps.
    main.tabView()->setCurrentIndex(1);
    main.resize(760, 560);
    testsupport::runUntil([&] { return main.size() == QSize(760, 560); }, 2000);
    saveShot(main, QStringLiteral("main-window-options-large.png"));
    const QRect runBox = main.runButton()->geometry();
    EXPECT_LE(runBox.right(), main.centralWidget()->width()) << "the Run button stays inside the window";

    interface.controller().orderFrontSettingsWindow();
    EXPECT_TRUE(hasContent(saveShot(interface.settingsWindow(), QStringLiteral("settings-window.png"))));

    WarningPanel& panel = interface.warningPanel();
    Alert alert;
    alert.messageText = QStringLiteral("HLDError: 'QFCFileRefRead()', hld_error = -402653173 (kHLDNotConnectedError).");
    alert.buttons = {QStringLiteral("Stop"), QStringLiteral("Continue Anyways")};
    panel.setAlert(alert);
    panel.show();
    EXPECT_TRUE(hasContent(saveShot(panel, QStringLiteral("warning-panel.png"))));
    panel.hide();
}

TEST_F(AppTest, SettingsWindowScreenshotsWithAndWithoutDevice)
{
    AppInterface interface(Defaults::standard());
    interface.show();
    interface.controller().orderFrontSettingsWindow();
    SettingsWindow& window = interface.settingsWindow();
    ASSERT_TRUE(testsupport::runUntil([&] { return window.isVisible(); }));

    EXPECT_FALSE(window.syncDebugCheckbox()->isEnabled());
    EXPECT_EQ(window.syncDebugCheckbox()->checkState(), Qt::PartiallyChecked);
    EXPECT_TRUE(hasContent(saveShot(window, QStringLiteral("settings-window-no-device.png"))));

    window.customItemKeyField()->setText(QStringLiteral("syncDebug.enabled_v2"));
    auto device = Testbed::instance().attachNewDevice(QStringLiteral("Tamber of Test"));
    ASSERT_TRUE(testsupport::runUntil([&] { return window.syncDebugCheckbox()->isEnabled(); }));
    EXPECT_EQ(window.syncDebugCheckbox()->checkState(), Qt::Unchecked);
    EXPECT_EQ(window.customItemValueField()->text(), QStringLiteral("0"));
    EXPECT_TRUE(hasContent(saveShot(window, QStringLiteral("settings-window-device.png"))));

    WarningPanel& panel = interface.warningPanel();
    panel.setAlert(VRLMSyncDebugDeviceSetting::deleteSyncDataQuestion());
    panel.show();
    EXPECT_TRUE(hasContent(saveShot(panel, QStringLiteral("warning-panel-sync-debug.png"))));
    panel.hide();
}
