#pragma once
// A device-event subscription: an event-listener connection to the daemon, read through the
// subscribing thread's Qt event loop (QSocketNotifier), re-opened with a short back-off
// (QTimer) whenever the daemon is missing or goes away.
//
// Thread affinity: the subscribing thread, entirely; callbacks run there.
#include "handlink/Handlink.h"
#include "handlink/wire/Frame.h"
#include "handlink/wire/UniqueFd.h"

#include <QObject>
#include <QTimer>
#include <memory>
#include <vector>

class QSocketNotifier;

namespace handlink::client {

class Subscription : public QObject {
public:
    Subscription(HLDeviceNotificationCallback callback, void* context);
    ~Subscription() override;

    // Stops delivering and releases the devices; the object is deleted later by its thread.
    void end();
    bool inCallback() const { return _callbackDepth > 0; }

private:
    void tryConnect();
    void scheduleRetry();
    void onReadable();
    void readAvailable();
    void processBuffer();
    // Handles one event frame; false when the subscription ended inside the callback.
    bool handle(const QCborMap& frame);
    bool attached(const QString& identifier, int64_t attachment);
    bool detached(const QString& identifier, int64_t attachment);
    // The daemon went away: every device it had gets message 3, then a reconnect is scheduled.
    void lost();
    // Calls the callback; false when the subscription ended inside it.
    bool deliver(HLDeviceRef device, uint32_t message);
    void closeConnection();

    HLDeviceNotificationCallback _callback;
    void* _context;
    wire::UniqueFd _fd;
    QSocketNotifier* _notifier = nullptr;
    QTimer _retryTimer;
    int _backoffMs;
    wire::FrameBuffer _buffer;
    bool _eof = false;
    bool _processing = false;
    bool _ended = false;
    int _callbackDepth = 0;
    std::vector<HLDeviceRef> _devices;  // attached now, in order of arrival; one reference each
};

}  // namespace handlink::client
