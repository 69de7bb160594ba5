#pragma once
// An alert presenter that answers from a script instead of a modal loop, and records every
// alert with the thread it ran on.
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/AlertPresenter.h"

namespace testsupport {

class ScriptedAlertPresenter : public AlertPresenter {
public:
    // Answers the next queued button, or the alert's escapeAnswer (as if it were closed) when
    // the queue is empty.
    int runModal(const Alert& alert) override;
    void answer(int button);
    // Runs inside runModal, while the alert is open (main thread), before it is answered.
    void whileOpen(std::function<void()> look) { _whileOpen = std::move(look); }

    struct Shown {
        Alert alert;
        bool onMainThread;
    };
    std::vector<Shown> shown() const;

private:
    mutable std::mutex _mutex;  // guards both fields (written on the main thread, read by tests)
    std::deque<int> _answers;
    std::vector<Shown> _shown;
    std::function<void()> _whileOpen;  // set before the alerts run
};

}  // namespace testsupport
