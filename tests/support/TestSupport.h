#pragma once
// Helpers shared by the tests.
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>
#include <functional>

#include "platform/MainThread.h"

namespace testsupport {

// Runs the main thread's event loop until pred() holds; false if it did not within
// timeoutMs (a safety net against hangs, not a timing assertion).
inline bool runUntil(const std::function<bool()>& pred, int timeoutMs = 20000) {
    QDeadlineTimer deadline(timeoutMs);
    while (!pred()) {
        if (deadline.hasExpired()) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        platform::mainthread::drain();
        QThread::yieldCurrentThread();
    }
    return true;
}

}  // namespace testsupport
