#include "platform/NotificationCenter.h"

#include <algorithm>

namespace platform {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* center = new NotificationCenter;  // lives for the process
    return *center;
}

void NotificationCenter::addObserver(QObject* observer, const QString& name, const void* sender, Handler handler) {
    Entry entry{observer, name, sender, std::make_shared<Handler>(std::move(handler)), {}};
    entry.destroyedConnection = QObject::connect(observer, &QObject::destroyed, [this, observer] {
        removeObserver(observer);
    });
    std::lock_guard lock(_mutex);
    _entries.push_back(std::move(entry));
}

void NotificationCenter::removeObserver(QObject* observer, const QString& name) {
    std::vector<QMetaObject::Connection> toDisconnect;
    {
        std::lock_guard lock(_mutex);
        auto gone = [&](const Entry& e) { return e.observer == observer && (name.isNull() || e.name == name); };
        for (const Entry& e : _entries)
            if (gone(e)) toDisconnect.push_back(e.destroyedConnection);
        _entries.erase(std::remove_if(_entries.begin(), _entries.end(), gone), _entries.end());
    }
    for (auto& c : toDisconnect) QObject::disconnect(c);
}

void NotificationCenter::post(const QString& name, const void* sender, const QVariantMap& userInfo) {
    // Handlers run outside the lock (they may add or remove observers); one removed while
    // this post is under way is skipped.
    std::vector<std::shared_ptr<Handler>> handlers;
    {
        std::lock_guard lock(_mutex);
        for (const Entry& e : _entries)
            if (e.name == name && (!e.sender || e.sender == sender)) handlers.push_back(e.handler);
    }
    const Notification note{name, sender, userInfo};
    for (const auto& handler : handlers) {
        bool stillRegistered = false;
        {
            std::lock_guard lock(_mutex);
            stillRegistered = std::any_of(_entries.begin(), _entries.end(),
                                          [&](const Entry& e) { return e.handler == handler; });
        }
        if (stillRegistered) (*handler)(note);
    }
}

}  // namespace platform
