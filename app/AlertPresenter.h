#pragma once
// Modal alerts. The controller shows every alert through one AlertPresenter, so tests can
// answer alerts without a modal loop. Main thread only.
#include <QString>
#include <QStringList>

#include "platform/ErrorRecord.h"

struct Alert {
    QString messageText;      // the headline
    QString informativeText;  // optional detail
    QStringList buttons;      // in order, first is the default; none means one "OK" button

    // An alert whose message is the error's localized description (or its full description
    // when it has none of its own).
    static Alert fromError(const platform::Error& error);
};

// Answers of runModal: the index of the button pressed, first button 0.
enum : int {
    kAlertFirstButtonReturn = 0,
    kAlertSecondButtonReturn = 1,
};

class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    // Shows the alert, waits for the user and returns the index of the chosen button.
    // Dismissing the alert without a button answers the first button.
    virtual int runModal(const Alert& alert) = 0;
};
