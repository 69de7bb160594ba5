#include "handlink/emulator/Server.h"

#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/RequestTable.h"
#include "handlink/wire/Frame.h"

#include <QCborArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace handlink::emu {

namespace {

bool makeAddress(const QString& path, sockaddr_un* address, QString* error) {
    const QByteArray bytes = QFile::encodeName(path);
    if (bytes.isEmpty() || static_cast<size_t>(bytes.size()) >= sizeof(address->sun_path)) {
        if (error) *error = QStringLiteral("socket path is empty or too long: %1").arg(path);
        return false;
    }
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, bytes.constData(), static_cast<size_t>(bytes.size()));
    return true;
}

// True when a server answers on the path already.
bool someoneListens(const sockaddr_un& address) {
    wire::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) return false;
    return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// Sends a whole frame without blocking; a listener that cannot take it at once is too slow
// (or gone) and is shut down, so a stuck client never stalls an attach or a post.
void sendOrDrop(int fd, const QCborMap& frame) {
    const QByteArray bytes = wire::encodeFrame(frame);
    ssize_t n;
    do {
        n = ::send(fd, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n != bytes.size()) ::shutdown(fd, SHUT_RDWR);
}

// The socket's folder. One the daemon makes is made 0700. An existing one is used as it is, but
// only when it belongs to this user and nobody else may write to it: anyone who can write to the
// folder can replace the socket with one of their own.
bool prepareSocketFolder(const QString& folder, QString* error) {
    const QByteArray path = QFile::encodeName(folder);
    struct stat info {};
    if (::stat(path.constData(), &info) != 0) {
        if (errno != ENOENT) {
            if (error) *error = QStringLiteral("cannot use the socket folder %1: %2").arg(folder, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        QDir().mkpath(QFileInfo(folder).absolutePath());
        if (::mkdir(path.constData(), 0700) == 0) {
            if (::chmod(path.constData(), 0700) == 0) return true;  // whatever the umask took away
        } else if (errno != EEXIST) {
            if (error) *error = QStringLiteral("cannot make the socket folder %1: %2").arg(folder, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
        // Made by someone else in the meantime: check it like any existing folder.
        if (::stat(path.constData(), &info) != 0) {
            if (error) *error = QStringLiteral("cannot use the socket folder %1: %2").arg(folder, QString::fromLocal8Bit(std::strerror(errno)));
            return false;
        }
    }
    if (!S_ISDIR(info.st_mode)) {
        if (error) *error = QStringLiteral("the socket folder %1 is not a folder").arg(folder);
        return false;
    }
    if (info.st_uid != ::geteuid()) {
        if (error)
            *error = QStringLiteral("refusing the socket folder %1: it belongs to another user (uid %2); "
                                    "name a socket in a folder of your own")
                         .arg(folder, QString::number(info.st_uid));
        return false;
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        if (error)
            *error = QStringLiteral("refusing the socket folder %1: others may write to it (mode %2); "
                                    "name a socket in a folder only you can write to")
                         .arg(folder, QString::number(info.st_mode & 07777, 8).rightJustified(4, QLatin1Char('0')));
        return false;
    }
    return true;
}

}  // namespace

void replyError(int fd, int32_t status, const QString& message) {
    QCborMap answer;
    answer.insert(QStringLiteral("status"), status);
    if (!message.isEmpty()) answer.insert(QStringLiteral("error"), message);
    wire::writeFrame(fd, answer);
}

void replyStatus(int fd, int32_t status) { replyError(fd, status, QString()); }

void replyBadFrame(int fd, wire::ReadResult result) {
    if (result == wire::ReadResult::Closed || result == wire::ReadResult::Ok) return;
    replyError(fd, kHLDBadHeaderError, QString::fromLatin1(wire::describe(result)));
}

Server::Server(const QString& socketPath) : _socketPath(socketPath), _allowedUid(::getuid()) {}

Server::~Server() { stop(); }

bool Server::start(QString* error) {
    if (_running.load()) return true;
    sockaddr_un address;
    if (!makeAddress(_socketPath, &address, error)) return false;
    if (!prepareSocketFolder(QFileInfo(_socketPath).absolutePath(), error)) return false;
    if (someoneListens(address)) {
        if (error) *error = QStringLiteral("a daemon is already listening on %1").arg(_socketPath);
        return false;
    }
    ::unlink(address.sun_path);  // a stale socket of a daemon that died

    wire::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd || ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd.get(), 64) != 0) {
        if (error) *error = QStringLiteral("cannot listen on %1: %2").arg(_socketPath, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (error) *error = QStringLiteral("cannot make a pipe: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    _wakeRead.reset(pipeFds[0]);
    _wakeWrite.reset(pipeFds[1]);
    _listenFd = std::move(fd);
    _stopping.store(false);
    _running.store(true);
    _acceptThread = std::thread([this] { acceptLoop(); });
    return true;
}

void Server::stop() {
    if (!_running.exchange(false)) return;
    _stopping.store(true);
    const char wake = 'x';
    (void)!::write(_wakeWrite.get(), &wake, 1);
    if (_acceptThread.joinable()) _acceptThread.join();
    ::unlink(QFile::encodeName(_socketPath).constData());
    _listenFd.reset();

    std::vector<std::shared_ptr<DeviceState>> devices;
    {
        std::lock_guard lock(_devicesMutex);
        devices.swap(_devices);
        for (auto& device : devices) forgetDeviceLocked(*device);
        _tickets.clear();
    }
    for (auto& device : devices) device->detach();
    {
        std::lock_guard lock(_connectionsMutex);
        for (Connection& connection : _connections)
            if (connection.fd) ::shutdown(connection.fd.get(), SHUT_RDWR);
    }
    // Connection threads take _connectionsMutex only for a moment as they end, so joining
    // outside it is safe; no new connection can appear, as the accept loop has ended.
    for (Connection& connection : _connections)
        if (connection.thread.joinable()) connection.thread.join();
    {
        std::lock_guard lock(_connectionsMutex);
        _connections.clear();
    }
    {
        std::lock_guard lock(_devicesMutex);
        _eventListeners.clear();
        _watchers.clear();
    }
    _wakeRead.reset();
    _wakeWrite.reset();
}

void Server::acceptLoop() {
    // While the process is out of descriptors (or memory), accept4 fails with the connection
    // still pending, and the listening socket stays readable: polling it again at once would
    // spin. The loop then waits a moment on the wake pipe alone before it tries again.
    constexpr int kPauseMs = 100;
    bool paused = false;
    bool reported = false;  // one line per stretch of failures
    while (!_stopping.load()) {
        pollfd fds[2] = {{_wakeRead.get(), POLLIN, 0}, {paused ? -1 : _listenFd.get(), POLLIN, 0}};
        if (::poll(fds, 2, paused ? kPauseMs : -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[0].revents) {
            // Woken by stop() or by a connection that ended: join the threads that are done.
            char drained[64];
            while (::read(_wakeRead.get(), drained, sizeof drained) > 0) {
            }
            if (_stopping.load()) break;
            reapFinished();
            continue;
        }
        if (paused) {
            paused = false;
            continue;
        }
        if (!(fds[1].revents & POLLIN)) continue;
        wire::UniqueFd fd(::accept4(_listenFd.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!fd) {
            const int failure = errno;
            if (failure == EMFILE || failure == ENFILE || failure == ENOBUFS || failure == ENOMEM) {
                if (!reported)
                    print(QStringLiteral("cannot accept connections: %1 (trying again shortly)")
                              .arg(QString::fromLocal8Bit(std::strerror(failure))));
                reported = true;
                paused = true;
                reapFinished();  // finished connections give their descriptors back
            }
            continue;
        }
        reported = false;
        ucred credentials{};
        socklen_t length = sizeof credentials;
        if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0 ||
            credentials.uid != _allowedUid.load()) {
            replyError(fd.get(), kHLDPermissionError, QStringLiteral("connections from another user are refused"));
            continue;
        }
        QString failure;
        {
            std::lock_guard lock(_connectionsMutex);
            Connection& connection = _connections.emplace_back();
            connection.fd = std::move(fd);
            try {
                connection.thread = std::thread([this, &connection] { serve(&connection); });
            } catch (const std::system_error& e) {
                // No thread for it (a thread or memory limit): close this connection only.
                failure = QString::fromLocal8Bit(e.what());
                _connections.pop_back();
            }
        }
        if (!failure.isEmpty())
            print(QStringLiteral("cannot start a thread for a new connection: %1 (closed it)").arg(failure));
    }
}

void Server::reapFinished() {
    std::list<Connection> finished;
    {
        std::lock_guard lock(_connectionsMutex);
        for (auto it = _connections.begin(); it != _connections.end();) {
            auto next = std::next(it);
            if (it->done.load()) finished.splice(finished.end(), _connections, it);
            it = next;
        }
    }
    for (Connection& connection : finished)
        if (connection.thread.joinable()) connection.thread.join();
}

namespace {

// The connection kinds, by their first request: its fields and the handler that serves the
// connection from then on (each kind has a table of its own further requests).
struct Kind {
    const char* op;
    void (*serve)(Server&, int, const QCborMap&);
    req::Field fields[req::kMaxFields];
};

const Kind kKinds[] = {
    {"connect", &serveLockdown,
     {req::need("device", req::Type::Text), req::may("attachment", req::Type::Integer, 0), req::may("host", req::Type::Text)}},
    {"service", &serveService, {req::need("ticket", req::Type::Text)}},
    {"control", &serveControl, {}},
    {"events", &serveEvents, {}},
};

}  // namespace

void Server::serve(Connection* connection) {
    const int fd = connection->fd.get();
    QCborMap first;
    const wire::ReadResult result = wire::readFrame(fd, &first);
    if (result != wire::ReadResult::Ok) {
        replyBadFrame(fd, result);
    } else if (const Kind* kind = req::findRow(kKinds, first); !kind) {
        replyError(fd, kHLDUnknownPacketError,
                   QStringLiteral("the first request must be connect, service, control or events, not \"%1\"")
                       .arg(req::opName(first)));
    } else if (const QString why = req::checkFields(first, kind->fields); !why.isEmpty()) {
        replyError(fd, kHLDInvalidArgumentError, why);
    } else {
        kind->serve(*this, fd, first);
    }
    // The descriptor goes at once (under the lock, so stop() never shuts down a number that
    // was reused meanwhile); the accept loop is woken to join the thread.
    {
        std::lock_guard lock(_connectionsMutex);
        connection->fd.reset();
        connection->done.store(true);
    }
    const char reap = 'r';
    (void)!::write(_wakeWrite.get(), &reap, 1);
}

// ---- devices ----

std::shared_ptr<DeviceState> Server::attach(const QString& folder, QString* error) {
    std::shared_ptr<DeviceState> device = DeviceState::load(folder, error);
    if (!device) return nullptr;
    {
        std::lock_guard lock(_devicesMutex);
        for (const auto& other : _devices) {
            if (other->identifier() == device->identifier()) {
                if (error) *error = QStringLiteral("device %1 is attached already").arg(device->identifier());
                return nullptr;
            }
        }
        device->setAttachment(_nextAttachment++);
        device->setPrinter([this](const QString& line) { print(line); });
        const QString identifier = device->identifier();
        _postListenerTokens[identifier] =
            device->addPostListener([this, identifier](const QString& name) { deliverPost(identifier, name); });
        _devices.push_back(device);
        QCborMap event;
        event.insert(QStringLiteral("event"), QStringLiteral("attached"));
        event.insert(QStringLiteral("id"), identifier);
        event.insert(QStringLiteral("name"), device->name());
        event.insert(QStringLiteral("attachment"), device->attachment());
        sendToListeners(_eventListeners, event);
    }
    print(QStringLiteral("attached %1 \"%2\" (%3)").arg(device->identifier(), device->name(), device->folder()));
    return device;
}

bool Server::detach(const QString& identifier) {
    std::shared_ptr<DeviceState> device;
    {
        std::lock_guard lock(_devicesMutex);
        for (auto it = _devices.begin(); it != _devices.end(); ++it) {
            if ((*it)->identifier() == identifier) {
                device = *it;
                _devices.erase(it);
                break;
            }
        }
        if (!device) return false;
        forgetDeviceLocked(*device);
        QCborMap event;
        event.insert(QStringLiteral("event"), QStringLiteral("detached"));
        event.insert(QStringLiteral("id"), identifier);
        event.insert(QStringLiteral("attachment"), device->attachment());
        sendToListeners(_eventListeners, event);
    }
    device->detach();
    print(QStringLiteral("detached %1").arg(identifier));
    return true;
}

void Server::forgetDeviceLocked(DeviceState& device) {
    // Its tickets can no longer be redeemed: a service needs the device attached.
    std::erase_if(_tickets, [&device](const Ticket& t) {
        const auto owner = t.device.lock();
        return !owner || owner.get() == &device;
    });
    // The device object may outlive the server (tests keep it): cut its ties to the server.
    auto it = _postListenerTokens.find(device.identifier());
    if (it != _postListenerTokens.end()) {
        device.removePostListener(it->second);
        _postListenerTokens.erase(it);
    }
    device.setPrinter(nullptr);
}

std::shared_ptr<DeviceState> Server::device(const QString& identifier) const {
    std::lock_guard lock(_devicesMutex);
    for (const auto& device : _devices)
        if (device->identifier() == identifier) return device;
    return nullptr;
}

std::vector<std::shared_ptr<DeviceState>> Server::devices() const {
    std::lock_guard lock(_devicesMutex);
    return _devices;
}

void Server::setPrinter(std::function<void(const QString&)> printer) {
    std::lock_guard lock(_printerMutex);
    _printer = std::move(printer);
}

void Server::print(const QString& line) const {
    std::lock_guard lock(_printerMutex);
    if (_printer) _printer(line);
}

// ---- tickets ----

void Server::setTicketLifetime(std::chrono::milliseconds lifetime) {
    std::lock_guard lock(_devicesMutex);
    _ticketLifetime = lifetime;
}

void Server::dropExpiredTicketsLocked() {
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(_tickets, [&](const Ticket& t) { return now - t.issued >= _ticketLifetime || t.device.expired(); });
}

QString Server::issueTicket(const std::shared_ptr<DeviceState>& device, const QString& service) {
    quint32 words[4];
    QRandomGenerator::system()->fillRange(words);
    QString ticket;
    for (quint32 word : words) ticket += QStringLiteral("%1").arg(word, 8, 16, QLatin1Char('0'));
    std::lock_guard lock(_devicesMutex);
    dropExpiredTicketsLocked();  // so tickets nobody redeems do not pile up
    _tickets.push_back(Ticket{ticket, device, service, std::chrono::steady_clock::now()});
    return ticket;
}

bool Server::redeemTicket(const QString& ticket, std::shared_ptr<DeviceState>* device, QString* service) {
    std::lock_guard lock(_devicesMutex);
    dropExpiredTicketsLocked();
    for (auto it = _tickets.begin(); it != _tickets.end(); ++it) {
        if (it->ticket == ticket) {
            *device = it->device.lock();
            *service = it->service;
            _tickets.erase(it);
            return true;
        }
    }
    return false;
}

size_t Server::ticketCount() const {
    std::lock_guard lock(_devicesMutex);
    return _tickets.size();
}

// ---- listeners and watchers ----

int Server::addEventListener(int fd) {
    std::lock_guard lock(_devicesMutex);
    QCborArray devices;
    for (const auto& device : _devices) {
        QCborMap entry;
        entry.insert(QStringLiteral("id"), device->identifier());
        entry.insert(QStringLiteral("name"), device->name());
        entry.insert(QStringLiteral("attachment"), device->attachment());
        devices.append(entry);
    }
    QCborMap answer;
    answer.insert(QStringLiteral("status"), kHLDSuccess);
    answer.insert(QStringLiteral("devices"), devices);
    const int token = _nextToken++;
    _eventListeners.push_back(Listener{token, fd, QString()});
    // Sent under the lock, so no attach or detach can slip in between the list and the events.
    sendOrDrop(fd, answer);
    return token;
}

void Server::removeEventListener(int token) {
    std::lock_guard lock(_devicesMutex);
    std::erase_if(_eventListeners, [token](const Listener& l) { return l.token == token; });
}

int Server::addWatcher(int fd, const QString& identifier) {
    std::lock_guard lock(_devicesMutex);
    const int token = _nextToken++;
    _watchers.push_back(Listener{token, fd, identifier});
    QCborMap answer;
    answer.insert(QStringLiteral("status"), kHLDSuccess);
    sendOrDrop(fd, answer);  // under the lock: no post can overtake the answer
    return token;
}

void Server::removeWatcher(int token) {
    std::lock_guard lock(_devicesMutex);
    std::erase_if(_watchers, [token](const Listener& l) { return l.token == token; });
}

void Server::sendToListeners(std::vector<Listener>& listeners, const QCborMap& frame) {
    for (const Listener& listener : listeners) sendOrDrop(listener.fd, frame);
}

void Server::deliverPost(const QString& identifier, const QString& name) {
    QCborMap event;
    event.insert(QStringLiteral("event"), QStringLiteral("posted"));
    event.insert(QStringLiteral("id"), identifier);
    event.insert(QStringLiteral("name"), name);
    std::lock_guard lock(_devicesMutex);
    for (const Listener& watcher : _watchers)
        if (watcher.identifier.isEmpty() || watcher.identifier == identifier) sendOrDrop(watcher.fd, event);
}

}  // namespace handlink::emu
