#pragma once
// The debug settings window: the sync-debug checkbox and the custom key and value fields of
// the media software's domain. The controller's debug-settings map drives these controls.
// Main thread only.
#include <QWidget>
#include <memory>

namespace Ui {
class SettingsWindow;
}
class QCheckBox;
class QLineEdit;

class SettingsWindow : public QWidget {
    Q_OBJECT
public:
    explicit SettingsWindow(QWidget* parent = nullptr);
    ~SettingsWindow() override;

    QCheckBox* syncDebugCheckbox() const;
    QLineEdit* customItemKeyField() const;
    QLineEdit* customItemValueField() const;

private:
    std::unique_ptr<Ui::SettingsWindow> _ui;
};
