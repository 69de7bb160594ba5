#include "platform/AlertPresenter.h"

Alert Alert::fromError(const platform::Error& error)
{
    Alert alert;
    alert.messageText = error.localizedDescription().isEmpty() ? error.description() : error.localizedDescription();
    return alert;
}

Alert Alert::question(const QString& messageText, const QString& informativeText, const QString& defaultButton,
                      const QString& alternateButton)
{
    Alert alert;
    alert.messageText = messageText;
    alert.informativeText = informativeText;
    alert.buttons = {defaultButton, alternateButton};
    alert.escapeAnswer = kAlertAlternateReturn;
    return alert;
}
