#include "ScriptedAlertPresenter.h"

#include "platform/MainThread.h"

namespace testsupport {

int ScriptedAlertPresenter::runModal(const Alert& alert)
{
    if (_whileOpen)
        _whileOpen();
    std::lock_guard lock(_mutex);
    _shown.push_back({alert, platform::mainthread::isMainThread()});
    if (_answers.empty())
        return alert.escapeAnswer;
    const int answer = _answers.front();
    _answers.pop_front();
    return answer;
}

void ScriptedAlertPresenter::answer(int button)
{
    std::lock_guard lock(_mutex);
    _answers.push_back(button);
}

std::vector<ScriptedAlertPresenter::Shown> ScriptedAlertPresenter::shown() const
{
    std::lock_guard lock(_mutex);
    return _shown;
}

}  // namespace testsupport
