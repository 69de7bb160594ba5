#include "app/AppInterface.h"

#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QPushButton>

#include "app/GetFilesOptionsView.h"
#include "app/MainWindow.h"
#include "app/SettingsWindow.h"
#include "app/VRAppController.h"
#include "app/WarningPanel.h"
#include "platform/DefaultsBinding.h"

AppInterface::AppInterface(platform::Defaults& store) : _store(store)
{
    _controller = std::make_unique<VRAppController>(store);

    _mainWindow = std::make_unique<MainWindow>(store);
    _settingsWindow = std::make_unique<SettingsWindow>();
    _optionsView = new GetFilesOptionsView(store, _mainWindow.get());
    _optionsView->hide();
    _warningPanel = new WarningPanel(_mainWindow.get());
    _mainWindow->versionLabel()->setText(_controller->displayBundleVersionNumber());

    VRAppController::Outlets outlets;
    outlets.progressBar = _mainWindow->progressBar();
    outlets.opStatusText = _mainWindow->opStatusText();
    outlets.warningWindow = _warningPanel;
    outlets.tabView = _mainWindow->tabView();
    outlets.tabViewItem2 = _optionsView;
    outlets.checkStatusField = _mainWindow->checkStatusField();
    outlets.debugSetting_SyncDebugCheckbox = _settingsWindow->syncDebugCheckbox();
    outlets.debugSetting_CustomItemKeyField = _settingsWindow->customItemKeyField();
    outlets.debugSetting_CustomItemValueField = _settingsWindow->customItemValueField();
    outlets.mainWindow = _mainWindow.get();
    outlets.settingsWindow = _settingsWindow.get();
    _controller->connectOutlets(outlets);
    _controller->setAlertPresenter(_warningPanel);

    VRAppController* controller = _controller.get();
    QObject::connect(_mainWindow->runButton(), &QPushButton::clicked, controller, [controller] { controller->doIt(); });
    QObject::connect(_mainWindow->showMainWindowAction(), &QAction::triggered, controller,
                     [controller] { controller->orderFrontMainWindow(); });
    QObject::connect(_mainWindow->showSettingsWindowAction(), &QAction::triggered, controller,
                     [controller] { controller->orderFrontSettingsWindow(); });
    QObject::connect(_mainWindow->quitAction(), &QAction::triggered, qApp, &QCoreApplication::quit,
                     Qt::QueuedConnection);

    _controller->awakeFromNib();
}

AppInterface::~AppInterface()
{
    _controller.reset();
}

void AppInterface::show()
{
    _mainWindow->show();
    platform::bindVisible(_settingsWindow.get(), _store, QStringLiteral("settingsWindowVisible"));
}
