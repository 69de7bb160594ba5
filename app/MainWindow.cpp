#include "app/MainWindow.h"

#include "app/ProgressIndicator.h"
#include "platform/Defaults.h"
#include "platform/DefaultsBinding.h"
#include "ui_MainWindow.h"

MainWindow::MainWindow(platform::Defaults& store, QWidget* parent)
    : QMainWindow(parent), _ui(std::make_unique<Ui::MainWindow>())
{
    _ui->setupUi(this);

    // The status line comes and goes; keep its room so the window does not jump.
    QSizePolicy statusPolicy = _ui->opStatusLabel->sizePolicy();
    statusPolicy.setRetainSizeWhenHidden(true);
    _ui->opStatusLabel->setSizePolicy(statusPolicy);

    // The name is empty from start until the first device arrives; say so meanwhile.
    const QString nameKey = QStringLiteral("activeConnectedLinkDevName");
    const QString connectedKey = QStringLiteral("connected");
    auto showName = [this, &store, nameKey, connectedKey] {
        const QString name = store.stringForKey(nameKey);
        const bool none = name.isEmpty() && !store.boolForKey(connectedKey);
        _ui->deviceNameLabel->setText(none ? QStringLiteral("No Device Connected") : name);
    };
    showName();
    connect(&store, &platform::Defaults::valueChanged, this, [showName, nameKey, connectedKey](const QString& key) {
        if (key == nameKey || key == connectedKey)
            showName();
    });
    // The bar moves while a command runs and stands still (empty when indeterminate) at idle.
    auto animateBar = [this, &store] { _ui->progressBar->setAnimating(!store.boolForKey(QStringLiteral("appInactive"))); };
    animateBar();
    connect(&store, &platform::Defaults::valueChanged, this, [animateBar](const QString& key) {
        if (key == u"appInactive")
            animateBar();
    });

    platform::bindCurrentIndex(_ui->actionComboBox, store, QStringLiteral("linkDevAction"));
    platform::bindEnabled(_ui->actionComboBox, store, {QStringLiteral("appInactive")});
    platform::bindEnabled(_ui->runButton, store, {QStringLiteral("appInactive"), QStringLiteral("connected")});
}

MainWindow::~MainWindow() = default;

QLabel* MainWindow::deviceNameLabel() const { return _ui->deviceNameLabel; }
QComboBox* MainWindow::actionComboBox() const { return _ui->actionComboBox; }
QPushButton* MainWindow::runButton() const { return _ui->runButton; }
ProgressIndicator* MainWindow::progressBar() const { return _ui->progressBar; }
QLabel* MainWindow::opStatusText() const { return _ui->opStatusLabel; }
QTabWidget* MainWindow::tabView() const { return _ui->tabView; }
QLineEdit* MainWindow::checkStatusField() const { return _ui->checkStatusField; }
QLabel* MainWindow::versionLabel() const { return _ui->versionLabel; }
QAction* MainWindow::quitAction() const { return _ui->quitAction; }
QAction* MainWindow::showMainWindowAction() const { return _ui->showMainWindowAction; }
QAction* MainWindow::showSettingsWindowAction() const { return _ui->showSettingsWindowAction; }
