#pragma once
// The main-thread dispatcher: the one way for workers to hand work to the main thread.
//
// The queue is guarded by a std::mutex and Qt carries only a capture-free wake-up event,
// so the hand-over is visible to ThreadSanitizer (Qt's own queued calls are not).
// Needs a Q(Core)Application; the main thread is the thread that created it.
#include <functional>

namespace platform::mainthread {

bool isMainThread();
// Runs fn on the main thread later; returns at once.
void post(std::function<void()> fn);
// Runs fn on the main thread and waits until it has run. On the main thread itself fn runs
// at once (a blocking hand-over to oneself would deadlock). An exception thrown by fn is
// re-thrown in the caller.
void postAndWait(std::function<void()> fn);
// Runs whatever is queued now (main thread only). Tests use it instead of spinning.
void drain();

}  // namespace platform::mainthread
