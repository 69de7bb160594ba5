#include "app/AlertPresenter.h"

Alert Alert::fromError(const platform::Error& error)
{
    Alert alert;
    alert.messageText = error.localizedDescription().isEmpty() ? error.description() : error.localizedDescription();
    return alert;
}
