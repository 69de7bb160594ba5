#include "handlink/client/Subscription.h"

#include "handlink/client/DaemonSocket.h"
#include "handlink/client/DeviceRef.h"

#include <QCborArray>
#include <QSocketNotifier>
#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace handlink::client {

namespace {
constexpr int kFirstBackoffMs = 50;
constexpr int kLongestBackoffMs = 500;
constexpr int kHelloTimeoutSeconds = 5;
}  // namespace

Subscription::Subscription(HLDeviceNotificationCallback callback, void* context)
    : _callback(callback), _context(context), _backoffMs(kFirstBackoffMs) {
    _retryTimer.setSingleShot(true);
    QObject::connect(&_retryTimer, &QTimer::timeout, this, &Subscription::tryConnect);
    // Devices present now are reported from the event loop, never during the subscribe call.
    _retryTimer.start(0);
}

Subscription::~Subscription() { end(); }

void Subscription::end() {
    if (_ended) return;
    _ended = true;
    _retryTimer.stop();
    closeConnection();
    for (HLDeviceRef device : _devices) HLDeviceRelease(device);
    _devices.clear();
}

void Subscription::closeConnection() {
    delete _notifier;
    _notifier = nullptr;
    _fd.reset();
    _buffer = wire::FrameBuffer();
    _eof = false;
}

void Subscription::scheduleRetry() {
    if (_ended) return;
    _retryTimer.start(_backoffMs);
    _backoffMs = std::min(_backoffMs * 2, kLongestBackoffMs);
}

void Subscription::tryConnect() {
    if (_ended || _fd) return;
    wire::UniqueFd fd = connectToDaemon();
    if (!fd) {
        scheduleRetry();
        return;
    }
    // The daemon answers at once; a daemon that hangs is treated as missing.
    timeval timeout{kHelloTimeoutSeconds, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    QCborMap hello;
    hello.insert(QStringLiteral("op"), QStringLiteral("events"));
    QCborMap answer;
    if (!wire::exchange(fd.get(), hello, &answer) || wire::statusOf(answer) != kHLDSuccess) {
        scheduleRetry();
        return;
    }
    timeval none{0, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none);
    ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
    _backoffMs = kFirstBackoffMs;
    _fd = std::move(fd);
    _notifier = new QSocketNotifier(_fd.get(), QSocketNotifier::Read, this);
    QObject::connect(_notifier, &QSocketNotifier::activated, this, &Subscription::onReadable);

    // Callbacks may run nested event loops; while the list is reported, frames that arrive
    // are only buffered, so they follow the list in order.
    _processing = true;
    const QCborArray devices = answer.value(QStringLiteral("devices")).toArray();
    for (const QCborValue& entry : devices) {
        const QCborMap device = entry.toMap();
        if (!attached(device.value(QStringLiteral("id")).toString(), device.value(QStringLiteral("attachment")).toInteger()))
            return;
    }
    _processing = false;
    processBuffer();
}

void Subscription::readAvailable() {
    char chunk[4096];
    for (;;) {
        const ssize_t n = ::read(_fd.get(), chunk, sizeof chunk);
        if (n > 0) {
            _buffer.append(chunk, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        _eof = true;  // end of stream or a hard error: the daemon is gone
        if (_notifier) _notifier->setEnabled(false);
        return;
    }
}

void Subscription::onReadable() {
    if (_ended || !_fd) return;
    readAvailable();
    // A callback that runs a nested event loop may bring us here again; the outer call goes
    // on with whatever the inner one buffered, so events keep their order.
    if (!_processing) processBuffer();
}

void Subscription::processBuffer() {
    _processing = true;
    for (;;) {
        QCborMap frame;
        const wire::ReadResult result = _buffer.next(&frame);
        if (result == wire::ReadResult::Closed) break;  // no complete frame buffered
        if (result != wire::ReadResult::Ok) {
            _eof = true;  // a stream we cannot follow: start over
            break;
        }
        if (!handle(frame)) return;  // ended inside a callback
    }
    _processing = false;
    if (_eof) lost();
}

bool Subscription::handle(const QCborMap& frame) {
    const QString event = frame.value(QStringLiteral("event")).toString();
    const QString identifier = frame.value(QStringLiteral("id")).toString();
    const int64_t attachment = frame.value(QStringLiteral("attachment")).toInteger();
    if (event == QLatin1String("attached")) return attached(identifier, attachment);
    if (event == QLatin1String("detached")) return detached(identifier, attachment);
    return true;  // events of later protocol versions are ignored
}

bool Subscription::attached(const QString& identifier, int64_t attachment) {
    for (HLDeviceRef device : _devices)
        if (device->identifier == identifier && device->attachment == attachment) return true;
    HLDeviceRef device = makeDeviceRef(identifier, attachment);
    _devices.push_back(device);
    return deliver(device, kHLDNotificationConnected);
}

bool Subscription::detached(const QString& identifier, int64_t attachment) {
    for (auto it = _devices.begin(); it != _devices.end(); ++it) {
        HLDeviceRef device = *it;
        if (device->identifier != identifier || device->attachment != attachment) continue;
        _devices.erase(it);
        device->gone.store(true);  // before the callback, which may still call the device
        const bool alive = deliver(device, kHLDNotificationDisconnected);
        HLDeviceRelease(device);
        return alive;
    }
    return true;
}

void Subscription::lost() {
    closeConnection();
    std::vector<HLDeviceRef> gone;
    gone.swap(_devices);
    for (HLDeviceRef device : gone) device->gone.store(true);  // their daemon is gone with them
    for (size_t i = 0; i < gone.size(); ++i) {
        const bool alive = deliver(gone[i], kHLDNotificationUnsubscribed);
        HLDeviceRelease(gone[i]);
        if (!alive) {
            for (size_t j = i + 1; j < gone.size(); ++j) HLDeviceRelease(gone[j]);
            return;
        }
    }
    _backoffMs = kFirstBackoffMs;
    scheduleRetry();
}

bool Subscription::deliver(HLDeviceRef device, uint32_t message) {
    if (_ended) return false;
    HLDeviceNotificationInfo info{device, message};
    // Keep the reference valid for the whole callback, even if it ends the subscription.
    HLDeviceRetain(device);
    ++_callbackDepth;
    _callback(&info, _context);
    --_callbackDepth;
    HLDeviceRelease(device);
    return !_ended;
}

}  // namespace handlink::client

// ---- public entry points ----

HLDStatus HLDeviceNotificationSubscribe(HLDeviceNotificationCallback callback, uint32_t, uint32_t, void* context,
                                        HLDeviceNotificationRef* outHandle) {
    if (!callback) return kHLDInvalidArgumentError;
    auto* subscription = new handlink::client::Subscription(callback, context);
    if (outHandle) *outHandle = reinterpret_cast<HLDeviceNotificationRef>(subscription);
    return kHLDSuccess;
}

HLDStatus HLDeviceNotificationUnsubscribe(HLDeviceNotificationRef handle) {
    if (!handle) return kHLDInvalidArgumentError;
    auto* subscription = reinterpret_cast<handlink::client::Subscription*>(handle);
    subscription->end();
    // Inside one of its own callbacks the object is still on the stack: delete it later.
    if (subscription->inCallback())
        subscription->deleteLater();
    else
        delete subscription;
    return kHLDSuccess;
}
