#pragma once
// The main window: the attached device's name, the command choice and its Run button, the
// progress bar and status text, the tab view (Check Status answer, options) and the version.
// Its controls follow the defaults store through bindings; the controller writes the rest.
// Main thread only.
#include <QMainWindow>
#include <memory>

#include "app/ProgressIndicator.h"

namespace platform {
class Defaults;
}
namespace Ui {
class MainWindow;
}
class QAction;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTabWidget;

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(platform::Defaults& store, QWidget* parent = nullptr);
    ~MainWindow() override;

    QLabel* deviceNameLabel() const;
    QComboBox* actionComboBox() const;
    QPushButton* runButton() const;
    ProgressIndicator* progressBar() const;
    QLabel* opStatusText() const;
    QTabWidget* tabView() const;
    QLineEdit* checkStatusField() const;
    QLabel* versionLabel() const;
    QAction* quitAction() const;
    QAction* showMainWindowAction() const;
    QAction* showSettingsWindowAction() const;

private:
    std::unique_ptr<Ui::MainWindow> _ui;
};
