#pragma once
// In-process notification centre: post a named notification with a sender and user
// information; observers register by name with an optional sender filter. Delivery is
// synchronous, on the posting thread, in registration order. An observer is removed by
// removeObserver() or implicitly when its QObject is destroyed. Thread-safe.
#include <QObject>
#include <QString>
#include <QVariantMap>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace platform {

struct Notification {
    QString name;
    const void* sender = nullptr;
    QVariantMap userInfo;
};

class NotificationCenter {
public:
    using Handler = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    // sender == nullptr observes every sender. The observer object owns the registration.
    void addObserver(QObject* observer, const QString& name, const void* sender, Handler handler);
    // Removes every registration of the observer (for the name, if one is given).
    void removeObserver(QObject* observer, const QString& name = QString());
    void post(const QString& name, const void* sender, const QVariantMap& userInfo = {});

private:
    struct Entry {
        QObject* observer;
        QString name;
        const void* sender;
        std::shared_ptr<Handler> handler;
        QMetaObject::Connection destroyedConnection;
    };
    std::mutex _mutex;  // guards _entries
    std::vector<Entry> _entries;
};

}  // namespace platform
