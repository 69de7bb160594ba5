// Start-up: the default writes of init, bad defaults files, the awake step, the version text,
// window ordering and the controls' bindings.
#include <QComboBox>
#include <QCheckBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSettings>
#include <QTabBar>
#include <QTabWidget>

#include "AppTestbed.h"
#include "app/AppInterface.h"
#include "app/GetFilesOptionsView.h"
#include "app/MainWindow.h"
#include "app/SettingsWindow.h"
#include "app/VRAppController.h"
#include "app/WarningPanel.h"
#include "app/WindowLevel.h"
#include "platform/AppInfo.h"
#include "platform/Defaults.h"
#include "support/TestSupport.h"

using apptest::AppTest;
using platform::Defaults;

namespace {

const QStringList kStateWrites = {
    QStringLiteral("connected"),
    QStringLiteral("appInactive"),
    QStringLiteral("activeLinkDevActionSyncing"),
    QStringLiteral("activeLinkDevActionSyncing"),
    QStringLiteral("activeLinkDevActionGetFiles"),
    QStringLiteral("activeConnectedLinkDevName"),
};

void writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(content);
}

void expectStartState(const Defaults& store)
{
    EXPECT_TRUE(store.hasValue(QStringLiteral("connected")));
    EXPECT_FALSE(store.boolForKey(QStringLiteral("connected")));
    EXPECT_TRUE(store.boolForKey(QStringLiteral("appInactive")));
    EXPECT_TRUE(store.hasValue(QStringLiteral("activeLinkDevActionSyncing")));
    EXPECT_FALSE(store.boolForKey(QStringLiteral("activeLinkDevActionSyncing")));
    EXPECT_TRUE(store.hasValue(QStringLiteral("activeLinkDevActionGetFiles")));
    EXPECT_FALSE(store.boolForKey(QStringLiteral("activeLinkDevActionGetFiles")));
    EXPECT_TRUE(store.hasValue(QStringLiteral("activeConnectedLinkDevName")));
    EXPECT_EQ(store.stringForKey(QStringLiteral("activeConnectedLinkDevName")), QString());
}

}  // namespace

TEST_F(AppTest, EmptyStoreGetsStateAndPreferenceDefaultsInOrder)
{
    Defaults& store = Defaults::standard();
    apptest::WriteRecorder writes;
    VRAppController controller(store);

    expectStartState(store);
    EXPECT_TRUE(store.boolForKey(QStringLiteral("getFiles.includeArtwork")));
    for (const char* key : {"getFiles.includePurchasedContent", "getFiles.includeRecordings", "settingsWindowVisible"}) {
        EXPECT_TRUE(store.hasValue(QString::fromLatin1(key))) << key;
        EXPECT_FALSE(store.boolForKey(QString::fromLatin1(key))) << key;
    }
    const QStringList preferenceWrites = {QStringLiteral("getFiles.includeArtwork"),
                                          QStringLiteral("getFiles.includePurchasedContent"),
                                          QStringLiteral("getFiles.includeRecordings"),
                                          QStringLiteral("settingsWindowVisible")};
    EXPECT_EQ(writes.keys(), kStateWrites + preferenceWrites);
    EXPECT_EQ(controller.device(), nullptr);
}

TEST_F(AppTest, StoredPreferencesAreKeptWhileStateIsReset)
{
    {
        QSettings stored(defaultsPath, QSettings::IniFormat);
        stored.setValue(QStringLiteral("getFiles.includeArtwork"), false);
        stored.setValue(QStringLiteral("getFiles.includeRecordings"), true);
        stored.setValue(QStringLiteral("settingsWindowVisible"), true);
        stored.setValue(QStringLiteral("connected"), true);
        stored.setValue(QStringLiteral("appInactive"), false);
        stored.setValue(QStringLiteral("activeLinkDevActionSyncing"), true);
        stored.setValue(QStringLiteral("activeLinkDevActionGetFiles"), true);
        stored.setValue(QStringLiteral("activeConnectedLinkDevName"), QStringLiteral("Old Tamber"));
    }
    Defaults::setStandardFile(defaultsPath);
    Defaults& store = Defaults::standard();
    apptest::WriteRecorder writes;
    VRAppController controller(store);

    expectStartState(store);
    EXPECT_FALSE(store.boolForKey(QStringLiteral("getFiles.includeArtwork")));
    EXPECT_TRUE(store.boolForKey(QStringLiteral("getFiles.includeRecordings")));
    EXPECT_TRUE(store.boolForKey(QStringLiteral("settingsWindowVisible")));
    EXPECT_FALSE(store.boolForKey(QStringLiteral("getFiles.includePurchasedContent")));
    EXPECT_EQ(writes.keys(), kStateWrites + QStringList(QStringLiteral("getFiles.includePurchasedContent")))
        << "only the absent preference is written";
}

TEST_F(AppTest, GarbledDefaultsFileFallsBackToDefaults)
{
    static const char garbled[] = "\x00\xff\xfe[[[getFiles.includeArtwork\n=\x01\x02\n\xc3(\n[General\nappInactive";
    writeFile(defaultsPath, QByteArray(garbled, sizeof garbled - 1));
    Defaults::setStandardFile(defaultsPath);
    AppInterface interface(Defaults::standard());
    expectStartState(Defaults::standard());
    EXPECT_TRUE(Defaults::standard().boolForKey(QStringLiteral("getFiles.includeArtwork")));
    EXPECT_FALSE(interface.mainWindow().runButton()->isEnabled());
}

TEST_F(AppTest, WrongTypedValuesFallBackToDefaults)
{
    writeFile(defaultsPath, "[General]\n"
                            "getFiles.includeArtwork=banana\n"
                            "getFiles.includeRecordings=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\tgarbage)\n"
                            "settingsWindowVisible=1, 2, 3\n"
                            "linkDevAction=several\n"
                            "syncSim.duration=fast\n"
                            "getFiles.splat=yes\n");
    Defaults::setStandardFile(defaultsPath);
    Defaults& store = Defaults::standard();
    AppInterface interface(store);
    interface.show();

    EXPECT_TRUE(store.boolForKey(QStringLiteral("getFiles.includeArtwork")));
    EXPECT_FALSE(store.boolForKey(QStringLiteral("getFiles.includeRecordings")));
    EXPECT_FALSE(store.boolForKey(QStringLiteral("settingsWindowVisible")));
    EXPECT_FALSE(interface.settingsWindow().isVisible());
    EXPECT_TRUE(store.boolForKey(QStringLiteral("getFiles.splat"))) << "a readable flag is kept";
    EXPECT_EQ(interface.mainWindow().actionComboBox()->currentIndex(), 0);
    auto* spin = interface.optionsView().findChild<QDoubleSpinBox*>(QStringLiteral("syncDurationSpinBox"));
    ASSERT_NE(spin, nullptr);
    EXPECT_EQ(spin->value(), 0.0);
}

TEST_F(AppTest, PreferenceKeptWhenTheStoreReadsItAsAFlag)
{
    // An empty value and "no" read as false, so they are the user's choice and stay; a text
    // the store cannot read as a flag gets the default back.
    writeFile(defaultsPath, "[General]\n"
                            "getFiles.includeArtwork=\n"
                            "getFiles.includePurchasedContent=maybe\n"
                            "getFiles.includeRecordings=YES\n"
                            "settingsWindowVisible=no\n");
    Defaults::setStandardFile(defaultsPath);
    Defaults& store = Defaults::standard();
    apptest::WriteRecorder writes;
    VRAppController controller(store);

    EXPECT_EQ(writes.keys(), kStateWrites + QStringList(QStringLiteral("getFiles.includePurchasedContent")));
    EXPECT_TRUE(store.hasValue(QStringLiteral("getFiles.includeArtwork")));
    EXPECT_FALSE(store.boolForKey(QStringLiteral("getFiles.includeArtwork"))) << "not replaced by its default, true";
    EXPECT_FALSE(store.boolForKey(QStringLiteral("getFiles.includePurchasedContent")));
    EXPECT_TRUE(store.boolForKey(QStringLiteral("getFiles.includeRecordings")));
    EXPECT_FALSE(store.boolForKey(QStringLiteral("settingsWindowVisible")));
    EXPECT_EQ(store.objectForKey(QStringLiteral("settingsWindowVisible")).toString(), QStringLiteral("no"));
}

TEST_F(AppTest, DefaultsPathThatIsAFolderDoesNotStopTheStart)
{
    ASSERT_TRUE(QDir().mkpath(defaultsPath));
    Defaults::setStandardFile(defaultsPath);
    AppInterface interface(Defaults::standard());
    interface.show();
    EXPECT_TRUE(interface.mainWindow().isVisible());
    EXPECT_FALSE(interface.mainWindow().runButton()->isEnabled());
}

TEST_F(AppTest, VersionTextNamesShortVersionAndBuild)
{
    EXPECT_EQ(VRAppController::versionText(QStringLiteral("1.0"), QStringLiteral("42")), QStringLiteral("Version: 1.0 (42)"));
    // Texts with a '%' are filled in one pass.
    EXPECT_EQ(VRAppController::versionText(QStringLiteral("%2"), QStringLiteral("%1")), QStringLiteral("Version: %2 (%1)"));

    AppInterface interface(Defaults::standard());
    const QString expected = VRAppController::versionText(platform::appinfo::shortVersion(), platform::appinfo::buildVersion());
    EXPECT_EQ(interface.controller().displayBundleVersionNumber(), expected);
    EXPECT_EQ(interface.mainWindow().versionLabel()->text(), expected);
    EXPECT_TRUE(expected.startsWith(QStringLiteral("Version: 1.0 (")));
}

TEST_F(AppTest, AwakePutsOptionsIntoTabTwoAndFloatsWarningPanel)
{
    AppInterface interface(Defaults::standard());
    QTabWidget* tabs = interface.mainWindow().tabView();
    int found = -1;
    for (int i = 0; i < tabs->count(); ++i)
        if (tabs->widget(i)->property("identifier").toString() == u"2")
            found = i;
    ASSERT_GE(found, 0);
    EXPECT_EQ(tabs->widget(found), &interface.optionsView());
    EXPECT_EQ(tabs->tabText(found), QStringLiteral("Options"));
    EXPECT_EQ(tabs->count(), 2) << "the placeholder is replaced, not kept beside";
    EXPECT_NE(interface.optionsView().findChild<QCheckBox*>(QStringLiteral("includeArtworkCheckBox")), nullptr);

    EXPECT_EQ(windowlevel::level(&interface.warningPanel()), windowlevel::level(&interface.mainWindow()) + 1);
    EXPECT_EQ(interface.warningPanel().parentWidget(), &interface.mainWindow());
}

TEST_F(AppTest, WarningPanelLevelFollowsWhateverLevelTheMainWindowHad)
{
    MainWindow main(Defaults::standard());
    main.setProperty("windowLevel", 5);
    WarningPanel panel;
    VRAppController controller(Defaults::standard());
    VRAppController::Outlets outlets;
    outlets.progressBar = main.progressBar();
    outlets.warningWindow = &panel;
    outlets.mainWindow = &main;
    controller.connectOutlets(outlets);
    controller.awakeFromNib();
    EXPECT_EQ(windowlevel::level(&panel), 6);
    EXPECT_EQ(panel.parentWidget(), &main);
    EXPECT_TRUE(panel.windowFlags().testFlag(Qt::WindowStaysOnTopHint)) << "level 6 floats";
    panel.setParent(nullptr);  // destroyed by this scope, not by the main window
}

TEST_F(AppTest, WindowMenuBringsEitherWindowToTheFront)
{
    Defaults& store = Defaults::standard();
    AppInterface interface(store);
    interface.show();
    EXPECT_TRUE(interface.mainWindow().isVisible());
    EXPECT_FALSE(interface.settingsWindow().isVisible());

    interface.mainWindow().showSettingsWindowAction()->trigger();
    EXPECT_TRUE(interface.settingsWindow().isVisible());
    EXPECT_TRUE(store.boolForKey(QStringLiteral("settingsWindowVisible")));

    interface.settingsWindow().close();
    EXPECT_FALSE(interface.settingsWindow().isVisible());
    EXPECT_FALSE(store.boolForKey(QStringLiteral("settingsWindowVisible")));

    interface.mainWindow().showMinimized();
    interface.mainWindow().showMainWindowAction()->trigger();
    EXPECT_TRUE(interface.mainWindow().isVisible());
    EXPECT_FALSE(interface.mainWindow().isMinimized());

    store.setBool(QStringLiteral("settingsWindowVisible"), true);
    EXPECT_TRUE(interface.settingsWindow().isVisible());
    EXPECT_FALSE(interface.settingsWindow().testAttribute(Qt::WA_QuitOnClose));
}

TEST_F(AppTest, ControlsFollowTheirKeys)
{
    Defaults& store = Defaults::standard();
    AppInterface interface(store);
    MainWindow& main = interface.mainWindow();
    QPushButton* run = main.runButton();

    EXPECT_FALSE(run->isEnabled()) << "no device";
    EXPECT_FALSE(main.progressBar()->isAnimating()) << "an idle window does not look busy";
    store.setBool(QStringLiteral("connected"), true);
    EXPECT_TRUE(run->isEnabled());
    store.setBool(QStringLiteral("appInactive"), false);
    EXPECT_FALSE(run->isEnabled()) << "busy";
    EXPECT_TRUE(main.progressBar()->isAnimating());
    EXPECT_FALSE(main.actionComboBox()->isEnabled());
    store.setBool(QStringLiteral("appInactive"), true);
    EXPECT_TRUE(run->isEnabled());
    EXPECT_TRUE(main.actionComboBox()->isEnabled());

    main.actionComboBox()->setCurrentIndex(2);
    EXPECT_EQ(store.integerForKey(QStringLiteral("linkDevAction")), 2);
    store.setInteger(QStringLiteral("linkDevAction"), 1);
    EXPECT_EQ(main.actionComboBox()->currentIndex(), 1);
    EXPECT_EQ(main.actionComboBox()->itemText(0), QStringLiteral("Get Files"));
    EXPECT_EQ(main.actionComboBox()->itemText(1), QStringLiteral("Simulate Sync"));
    EXPECT_EQ(main.actionComboBox()->itemText(2), QStringLiteral("Check Status"));

    store.setString(QStringLiteral("activeConnectedLinkDevName"), QStringLiteral("Shown Name"));
    EXPECT_EQ(main.deviceNameLabel()->text(), QStringLiteral("Shown Name"));

    // Each option writes its own key; the include choices step aside for "splat".
    const struct {
        const char* box;
        const char* key;
    } options[] = {
        {"includeArtworkCheckBox", "getFiles.includeArtwork"},
        {"includePurchasedContentCheckBox", "getFiles.includePurchasedContent"},
        {"includeRecordingsCheckBox", "getFiles.includeRecordings"},
        {"splatCheckBox", "getFiles.splat"},
        {"keepFolderCheckBox", "keepFolder"},
    };
    for (const auto& option : options) {
        auto* box = interface.optionsView().findChild<QCheckBox*>(QString::fromLatin1(option.box));
        ASSERT_NE(box, nullptr) << option.box;
        const bool before = store.boolForKey(QString::fromLatin1(option.key));
        EXPECT_EQ(box->isChecked(), before) << option.box;
        box->click();
        EXPECT_EQ(store.boolForKey(QString::fromLatin1(option.key)), !before) << option.key;
        EXPECT_FALSE(box->accessibleName().isEmpty());
    }
    auto* artwork = interface.optionsView().findChild<QCheckBox*>(QStringLiteral("includeArtworkCheckBox"));
    auto* keep = interface.optionsView().findChild<QCheckBox*>(QStringLiteral("keepFolderCheckBox"));
    store.setBool(QStringLiteral("getFiles.splat"), true);
    EXPECT_FALSE(artwork->isEnabled());
    EXPECT_TRUE(keep->isEnabled());
    store.setBool(QStringLiteral("getFiles.splat"), false);
    EXPECT_TRUE(artwork->isEnabled());
    store.setBool(QStringLiteral("appInactive"), false);
    EXPECT_FALSE(keep->isEnabled());

    auto* spin = interface.optionsView().findChild<QDoubleSpinBox*>(QStringLiteral("syncDurationSpinBox"));
    spin->setValue(12.5);
    EXPECT_FLOAT_EQ(store.floatForKey(QStringLiteral("syncSim.duration")), 12.5f);
}

TEST_F(AppTest, EveryControlCarriesNameAndAccessibleTexts)
{
    AppInterface interface(Defaults::standard());
    const QList<QWidget*> roots = {&interface.mainWindow(), &interface.settingsWindow(), &interface.warningPanel()};
    int checked = 0;
    for (QWidget* root : roots) {
        QList<QWidget*> widgets = root->findChildren<QWidget*>();
        widgets << root;
        for (QWidget* widget : widgets) {
            // Controls and labels; Qt's own inner parts (viewports, scroll bars, the tab
            // bar) carry no name of ours.
            if (!qobject_cast<QAbstractButton*>(widget) && !qobject_cast<QComboBox*>(widget)
                && !qobject_cast<QLineEdit*>(widget) && !qobject_cast<QProgressBar*>(widget)
                && !qobject_cast<QLabel*>(widget) && !qobject_cast<QAbstractSpinBox*>(widget))
                continue;
            if (widget->objectName().isEmpty() || widget->objectName().startsWith(u"qt_")
                || qobject_cast<QTabBar*>(widget->parentWidget()))
                continue;
            ++checked;
            EXPECT_FALSE(widget->accessibleName().isEmpty()) << widget->objectName().toStdString();
            EXPECT_FALSE(widget->accessibleDescription().isEmpty()) << widget->objectName().toStdString();
        }
    }
    EXPECT_GE(checked, 20);
    // No control of ours is nameless.
    for (QWidget* widget : interface.mainWindow().findChildren<QAbstractButton*>()) {
        if (widget->parentWidget() && !widget->parentWidget()->objectName().startsWith(u"qt_")
            && !qobject_cast<QTabBar*>(widget->parentWidget())) {
            EXPECT_FALSE(widget->objectName().isEmpty()) << widget->metaObject()->className();
        }
    }
}
