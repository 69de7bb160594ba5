#include "app/WarningPanel.h"

#include <QPointer>
#include <QPushButton>
#include <QStyle>

#include "app/WindowLevel.h"
#include "ui_WarningPanel.h"

WarningPanel::WarningPanel(QWidget* parent) : QDialog(parent), _ui(std::make_unique<Ui::WarningPanel>())
{
    _ui->setupUi(this);
    const int side = style()->pixelMetric(QStyle::PM_MessageBoxIconSize, nullptr, this);
    _ui->iconLabel->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxWarning, nullptr, this).pixmap(side, side));
}

WarningPanel::~WarningPanel() = default;

QList<QPushButton*> WarningPanel::setAlert(const Alert& alert)
{
    qDeleteAll(_buttons);
    _buttons.clear();
    _ui->messageLabel->setText(alert.messageText);
    _ui->informativeLabel->setText(alert.informativeText);
    _ui->informativeLabel->setVisible(!alert.informativeText.isEmpty());

    const QStringList titles = alert.buttons.isEmpty() ? QStringList{tr("OK")} : alert.buttons;
    for (int index = 0; index < titles.size(); ++index) {
        auto* button = new QPushButton(titles[index], this);
        button->setObjectName(QStringLiteral("alertButton%1").arg(index));
        button->setAccessibleName(titles[index]);
        button->setAccessibleDescription(tr("Answers the alert with %1").arg(titles[index]));
        button->setDefault(index == 0);
        button->setAutoDefault(index == 0);
        // The first button is the default and sits rightmost; the others line up to its left.
        _ui->buttonRow->insertWidget(1, button);
        connect(button, &QPushButton::clicked, this, [this, index] {
            _answer = index;
            accept();
        });
        _buttons << button;
    }
    return _buttons;
}

int WarningPanel::runModal(const Alert& alert)
{
    // An alert that comes while this one waits (a job's question during the sync-debug
    // question) gets a panel of its own above it, so the open alert keeps its text, its
    // buttons and its answer.
    if (_running)
        return runModalAbove(alert);
    setAlert(alert);
    _answer = alert.escapeAnswer;  // what closing the panel without a button answers
    _running = true;
    exec();
    _running = false;
    return _answer;
}

int WarningPanel::runModalAbove(const Alert& alert)
{
    const QPointer<WarningPanel> above = new WarningPanel(parentWidget());
    windowlevel::setLevel(above, windowlevel::level(this), parentWidget());
    const int answer = above->runModal(alert);
    delete above.data();  // unless its parent went away meanwhile
    return answer;
}
