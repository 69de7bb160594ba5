#pragma once
// Modal alerts. Every alert of the program goes through one AlertPresenter (the application's
// warning panel), so tests can answer alerts without a modal loop. Subsystems that ask the user
// something build an Alert and hand it to the presenter their host gives them. Main thread only.
#include <QString>
#include <QStringList>

#include "platform/ErrorRecord.h"

// Answers of runModal: the index of the button pressed, first button 0.
enum : int {
    kAlertFirstButtonReturn = 0,
    kAlertSecondButtonReturn = 1,
    // A question's default button is its first, the alternate its second.
    kAlertDefaultReturn = kAlertFirstButtonReturn,
    kAlertAlternateReturn = kAlertSecondButtonReturn,
};

struct Alert {
    QString messageText;      // the headline
    QString informativeText;  // optional detail, shown under the headline
    QStringList buttons;      // in order, first is the default; none means one "OK" button
    // What closing the alert without a button answers (the Escape key, the window's close
    // box), and what it answers when there is nobody to ask. A question whose default button
    // is destructive names its harmless button here.
    int escapeAnswer = kAlertFirstButtonReturn;

    // An alert whose message is the error's localized description (or its full description
    // when it has none of its own).
    static Alert fromError(const platform::Error& error);
    // A question with a default and an alternate button; dismissing it answers the alternate.
    static Alert question(const QString& messageText, const QString& informativeText, const QString& defaultButton,
                          const QString& alternateButton);
};

class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    // Shows the alert, waits for the user and returns the index of the chosen button, or
    // alert.escapeAnswer when the alert is dismissed without one.
    virtual int runModal(const Alert& alert) = 0;
};
