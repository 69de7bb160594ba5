#include "app/MainWindow.h"

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

    platform::bindText(_ui->deviceNameLabel, store, QStringLiteral("activeConnectedLinkDevName"));
    platform::bindCurrentIndex(_ui->actionComboBox, store, QStringLiteral("linkDevAction"));
    platform::bindEnabled(_ui->actionComboBox, store, {QStringLiteral("appInactive")});
    platform::bindEnabled(_ui->runButton, store, {QStringLiteral("appInactive"), QStringLiteral("connected")});
}

MainWindow::~MainWindow() = default;

QLabel* MainWindow::deviceNameLabel() const { return _ui->deviceNameLabel; }
QComboBox* MainWindow::actionComboBox() const { return _ui->actionComboBox; }
QPushButton* MainWindow::runButton() const { return _ui->runButton; }
QProgressBar* MainWindow::progressBar() const { return _ui->progressBar; }
QLabel* MainWindow::opStatusText() const { return _ui->opStatusLabel; }
QTabWidget* MainWindow::tabView() const { return _ui->tabView; }
QLineEdit* MainWindow::checkStatusField() const { return _ui->checkStatusField; }
QLabel* MainWindow::versionLabel() const { return _ui->versionLabel; }
QAction* MainWindow::quitAction() const { return _ui->quitAction; }
QAction* MainWindow::showMainWindowAction() const { return _ui->showMainWindowAction; }
QAction* MainWindow::showSettingsWindowAction() const { return _ui->showSettingsWindowAction; }
