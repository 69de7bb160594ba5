// VRAppController: start-up, version text, following the current device, window ordering.
#include "app/VRAppController.h"

#include <QLineEdit>
#include <QProgressBar>
#include <QTabWidget>
#include <QWidget>

#include "app/WindowLevel.h"
#include "platform/AppInfo.h"
#include "platform/Defaults.h"

VRAppController::VRAppController(platform::Defaults& defaults, QObject* parent)
    : QObject(parent), _defaults(defaults)
{
    _defaults.setBool(QStringLiteral("connected"), false);
    _defaults.setBool(QStringLiteral("appInactive"), true);
    _defaults.setBool(QStringLiteral("activeLinkDevActionSyncing"), false);
    _defaults.setBool(QStringLiteral("activeLinkDevActionSyncing"), false);
    _defaults.setBool(QStringLiteral("activeLinkDevActionGetFiles"), false);
    _defaults.setString(QStringLiteral("activeConnectedLinkDevName"), QStringLiteral(""));

    const struct {
        QString key;
        bool value;
    } preferences[] = {
        {QStringLiteral("getFiles.includeArtwork"), true},
        {QStringLiteral("getFiles.includePurchasedContent"), false},
        {QStringLiteral("getFiles.includeRecordings"), false},
        {QStringLiteral("settingsWindowVisible"), false},
    };
    // A stored value that the store cannot read as a flag (a stray text, a list) counts as no
    // value, so the preference gets its default back; anything it reads as a flag is kept.
    for (const auto& preference : preferences) {
        if (!_defaults.holdsFlag(preference.key))
            _defaults.setBool(preference.key, preference.value);
    }

    LinkDev::registerDeviceObserver(this);
}

VRAppController::~VRAppController()
{
    LinkDev::unregisterDeviceObserver(this);
}

void VRAppController::connectOutlets(const Outlets& outlets)
{
    _progressBar = outlets.progressBar;
    _opStatusText = outlets.opStatusText;
    _warningWindow = outlets.warningWindow;
    _tabView = outlets.tabView;
    _tabViewItem2 = outlets.tabViewItem2;
    _checkStatusField = outlets.checkStatusField;
    _debugSetting_SyncDebugCheckbox = outlets.debugSetting_SyncDebugCheckbox;
    _debugSetting_CustomItemKeyField = outlets.debugSetting_CustomItemKeyField;
    _debugSetting_CustomItemValueField = outlets.debugSetting_CustomItemValueField;
    _mainWindow = outlets.mainWindow;
    _settingsWindow = outlets.settingsWindow;
}

void VRAppController::awakeFromNib()
{
    // The busy bar needs no switch to keep moving: Qt animates it from the event loop, and
    // only Check Status blocks that loop, for well under half a second.

    if (_tabView && _tabViewItem2) {
        for (int index = 0; index < _tabView->count(); ++index) {
            QWidget* item = _tabView->widget(index);
            if (item->property("identifier").toString() != u"2")
                continue;
            const QString title = _tabView->tabText(index);
            const bool wasCurrent = _tabView->currentIndex() == index;
            _tabViewItem2->setProperty("identifier", QStringLiteral("2"));
            _tabViewItem2->setAccessibleName(item->accessibleName());
            _tabView->removeTab(index);
            _tabView->insertTab(index, _tabViewItem2, title);
            if (wasCurrent)
                _tabView->setCurrentIndex(index);
            item->deleteLater();
            break;
        }
    }

    if (_warningWindow && _progressBar) {
        QWidget* main = _progressBar->window();
        windowlevel::setLevel(_warningWindow, windowlevel::level(main) + 1, main);
    }

    _updateDebugSettingsUI();
}

QString VRAppController::versionText(const QString& shortVersion, const QString& buildVersion)
{
    return QStringLiteral("Version: %1 (%2)").arg(shortVersion, buildVersion);
}

QString VRAppController::displayBundleVersionNumber() const
{
    const QVariantMap info = platform::appinfo::infoDictionary();
    return versionText(info.value(QStringLiteral("BXBundleShortVersionString")).toString(),
                       info.value(QStringLiteral("BXBundleVersion")).toString());
}

std::shared_ptr<LinkDev> VRAppController::device() const
{
    std::lock_guard lock(_deviceMutex);
    return _device;
}

void VRAppController::handlinkAvailabliltyDidChange()
{
    std::shared_ptr<LinkDev> device = LinkDev::lastAvailableDevice();
    std::shared_ptr<LinkDev> previous;  // let go of outside the lock
    {
        std::lock_guard lock(_deviceMutex);
        previous = std::exchange(_device, device);
    }
    previous.reset();
    _defaults.setBool(QStringLiteral("connected"), device != nullptr);
    _defaults.setString(QStringLiteral("activeConnectedLinkDevName"),
                        device ? device->name() : QStringLiteral("No Device Connected"));
    if (_checkStatusField)
        _checkStatusField->setText(QStringLiteral(""));
    _updateDebugSettingsUI();
}

namespace {

void bringToFront(QWidget* window)
{
    if (!window)
        return;
    if (window->isMinimized())
        window->showNormal();
    else
        window->show();
    window->raise();
    window->activateWindow();
}

}  // namespace

void VRAppController::orderFrontMainWindow()
{
    bringToFront(_mainWindow);
}

void VRAppController::orderFrontSettingsWindow()
{
    bringToFront(_settingsWindow);
}
