#include "app/SettingsWindow.h"

#include "ui_SettingsWindow.h"

SettingsWindow::SettingsWindow(QWidget* parent)
    : QWidget(parent, Qt::Window), _ui(std::make_unique<Ui::SettingsWindow>())
{
    _ui->setupUi(this);
    // Closing it only hides it; the main window alone ends the application.
    setAttribute(Qt::WA_QuitOnClose, false);
}

SettingsWindow::~SettingsWindow() = default;

QCheckBox* SettingsWindow::syncDebugCheckbox() const { return _ui->syncDebugCheckBox; }
QLineEdit* SettingsWindow::customItemKeyField() const { return _ui->customKeyField; }
QLineEdit* SettingsWindow::customItemValueField() const { return _ui->customValueField; }
