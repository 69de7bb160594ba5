#pragma once
// The emulator's server: the listening Unix socket, one thread per connection, the attached
// devices, event listeners, notification watchers and service tickets. Emulator (in-process)
// and handlinkd run the same server.
//
// Thread-safe. Connection threads run until their peer closes, the device detaches or stop();
// each closes its descriptor as it ends, and the accept loop joins it.
// Lock order: _devicesMutex before _connectionsMutex; neither is held while a connection
// thread blocks on its socket.
#include "handlink/emulator/DeviceState.h"
#include "handlink/wire/Frame.h"
#include "handlink/wire/UniqueFd.h"

#include <QCborMap>
#include <QString>
#include <QStringList>
#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>
#include <sys/types.h>

namespace handlink::emu {

class Server {
public:
    explicit Server(const QString& socketPath);
    ~Server();  // stops
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Makes the socket's folder (0700) when it is missing; an existing folder must belong to
    // this user and be writable by nobody else (it is left as it is). Refuses a path where a
    // server already answers, replaces a stale socket file, and starts accepting.
    bool start(QString* error);
    // Closes the listening socket and every connection, detaches every device (without
    // detach events: the listeners' connections close, which clients report as message 3)
    // and joins every thread.
    void stop();
    bool running() const { return _running.load(); }
    QString socketPath() const { return _socketPath; }

    std::shared_ptr<DeviceState> attach(const QString& folder, QString* error);
    bool detach(const QString& identifier);
    std::shared_ptr<DeviceState> device(const QString& identifier) const;
    std::vector<std::shared_ptr<DeviceState>> devices() const;  // in order of attachment

    void setPrinter(std::function<void(const QString&)> printer);
    void print(const QString& line) const;
    // Which user may connect (SO_PEERCRED); the server's own user by default.
    void setAllowedUid(uid_t uid) { _allowedUid.store(uid); }

    // ---- used by the connection handlers ----
    const std::atomic<bool>& stopping() const { return _stopping; }
    // A one-time ticket for a service connection to the device. A ticket is dropped when it is
    // redeemed, when its device detaches, or once it is older than the ticket lifetime.
    QString issueTicket(const std::shared_ptr<DeviceState>& device, const QString& service);
    // Takes the ticket out of the table; false when it is unknown (wrong, used before, dropped
    // at a detach or expired).
    bool redeemTicket(const QString& ticket, std::shared_ptr<DeviceState>* device, QString* service);
    // How long an unredeemed ticket stays valid (60 s unless changed; tests shorten it).
    void setTicketLifetime(std::chrono::milliseconds lifetime);
    size_t ticketCount() const;  // tickets not yet redeemed, dropped or expired (for tests)
    // Adds an event listener: answers the "events" request with the devices attached now and
    // from then on sends every attach and detach to fd. Returns a token for removal.
    int addEventListener(int fd);
    void removeEventListener(int token);
    // Adds a watcher of posted notifications (all devices, or the one named) and answers the
    // "watch" request with status 0.
    int addWatcher(int fd, const QString& identifier);
    void removeWatcher(int token);

private:
    struct Connection {
        wire::UniqueFd fd;  // closed by the connection's thread as it ends (under _connectionsMutex)
        std::thread thread;
        std::atomic<bool> done{false};  // the thread has ended its work; the accept loop joins it
    };
    struct Listener {
        int token;
        int fd;
        QString identifier;  // watchers only: empty for all devices
    };

    void acceptLoop();
    void serve(Connection* connection);
    void reapFinished();
    void sendToListeners(std::vector<Listener>& listeners, const QCborMap& frame);  // _devicesMutex held
    void deliverPost(const QString& identifier, const QString& name);
    void forgetDeviceLocked(DeviceState& device);  // _devicesMutex held

    const QString _socketPath;
    std::atomic<bool> _running{false};
    std::atomic<bool> _stopping{false};
    std::atomic<uid_t> _allowedUid;
    wire::UniqueFd _listenFd;
    wire::UniqueFd _wakeRead, _wakeWrite;  // wakes the accept loop: at stop, and to join ended connections
    std::thread _acceptThread;

    mutable std::mutex _devicesMutex;  // guards _devices, _eventListeners, _watchers, _tickets, _ticketLifetime, _nextToken, _nextAttachment
    std::vector<std::shared_ptr<DeviceState>> _devices;
    std::vector<Listener> _eventListeners;
    std::vector<Listener> _watchers;
    struct Ticket {
        QString ticket;
        std::weak_ptr<DeviceState> device;
        QString service;
        std::chrono::steady_clock::time_point issued;
    };
    void dropExpiredTicketsLocked();  // _devicesMutex held
    std::vector<Ticket> _tickets;
    std::chrono::milliseconds _ticketLifetime{60000};
    std::map<QString, int> _postListenerTokens;  // device identifier -> its post listener
    int _nextToken = 1;
    qint64 _nextAttachment = 1;

    mutable std::mutex _connectionsMutex;  // guards _connections and the descriptors in it
    std::list<Connection> _connections;

    mutable std::mutex _printerMutex;  // guards _printer
    std::function<void(const QString&)> _printer;
};

// The connection handlers (one file each). Each runs on the connection's thread with the
// first request already read, answers it, and serves the connection until it ends.
void serveLockdown(Server& server, int fd, const QCborMap& first);
void serveService(Server& server, int fd, const QCborMap& first);
void serveControl(Server& server, int fd, const QCborMap& first);
void serveEvents(Server& server, int fd, const QCborMap& first);

// Answers an error (status and a message for people) where a frame can still be sent.
void replyError(int fd, int32_t status, const QString& message);
void replyStatus(int fd, int32_t status);
// After a frame could not be read: answers the matching error when one can be sent.
void replyBadFrame(int fd, wire::ReadResult result);

}  // namespace handlink::emu
