#pragma once
// The warning panel: the window in which the application's alerts appear, floating just above
// the main window. It is the application's AlertPresenter. Main thread only.
#include <QDialog>
#include <memory>

#include "platform/AlertPresenter.h"

namespace Ui {
class WarningPanel;
}
class QPushButton;

class WarningPanel : public QDialog, public AlertPresenter {
    Q_OBJECT
public:
    explicit WarningPanel(QWidget* parent = nullptr);
    ~WarningPanel() override;

    // Fills the panel with the alert, runs it modally and answers the chosen button's index.
    // Asked again while an alert is open, it runs the new one in a second panel above.
    int runModal(const Alert& alert) override;
    // Fills the panel without running it (for screenshots); returns the buttons, first first.
    QList<QPushButton*> setAlert(const Alert& alert);

private:
    int runModalAbove(const Alert& alert);

    std::unique_ptr<Ui::WarningPanel> _ui;
    QList<QPushButton*> _buttons;
    int _answer = kAlertFirstButtonReturn;
    bool _running = false;  // runModal waits for this panel's answer
};
