#include "platform/MainThread.h"

#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <deque>
#include <future>
#include <mutex>

namespace platform::mainthread {

namespace {

const QEvent::Type kWakeEvent = static_cast<QEvent::Type>(QEvent::registerEventType());

std::mutex g_mutex;  // guards g_queue
std::deque<std::function<void()>> g_queue;

// Lives on the main thread; a wake-up event makes it run the queue.
class Receiver : public QObject {
protected:
    bool event(QEvent* e) override {
        if (e->type() != kWakeEvent) return QObject::event(e);
        drain();
        return true;
    }
};

QObject* receiver() {
    static std::once_flag once;
    static Receiver* instance = nullptr;
    std::call_once(once, [] {
        instance = new Receiver;  // lives for the process
        if (QCoreApplication* app = QCoreApplication::instance()) instance->moveToThread(app->thread());
    });
    return instance;
}

void enqueue(std::function<void()> fn) {
    {
        std::lock_guard lock(g_mutex);
        g_queue.push_back(std::move(fn));
    }
    QCoreApplication::postEvent(receiver(), new QEvent(kWakeEvent));
}

}  // namespace

bool isMainThread() {
    QCoreApplication* app = QCoreApplication::instance();
    return !app || QThread::currentThread() == app->thread();
}

void post(std::function<void()> fn) {
    enqueue(std::move(fn));
}

void postAndWait(std::function<void()> fn) {
    if (isMainThread()) {
        fn();
        return;
    }
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    enqueue([fn = std::move(fn), done] {
        try {
            fn();
            done->set_value();
        } catch (...) {
            done->set_exception(std::current_exception());
        }
    });
    finished.get();
}

void drain() {
    for (;;) {
        std::function<void()> next;
        {
            std::lock_guard lock(g_mutex);
            if (g_queue.empty()) return;
            next = std::move(g_queue.front());
            g_queue.pop_front();
        }
        next();
    }
}

}  // namespace platform::mainthread
