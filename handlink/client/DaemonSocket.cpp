#include "handlink/client/DaemonSocket.h"

#include <QFile>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace handlink::client {

QString daemonSocketPath() {
    const QString explicitPath = qEnvironmentVariable("HANDLINK_SOCKET");
    if (!explicitPath.isEmpty()) return explicitPath;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty()) return runtime + QStringLiteral("/handlink/handlinkd.sock");
    return QStringLiteral("/tmp/handlink-%1/handlinkd.sock").arg(::getuid());
}

wire::UniqueFd connectToSocket(const QString& path, QString* error) {
    const QByteArray bytes = QFile::encodeName(path);
    sockaddr_un address{};
    if (bytes.isEmpty() || static_cast<size_t>(bytes.size()) >= sizeof(address.sun_path)) {
        if (error) *error = QStringLiteral("socket path is empty or too long: %1").arg(path);
        return {};
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, bytes.constData(), static_cast<size_t>(bytes.size()));
    wire::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        if (error) *error = QString::fromLocal8Bit(std::strerror(errno));
        return {};
    }
    int result;
    do {
        result = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        if (error) *error = QStringLiteral("cannot reach the daemon at %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return {};
    }
    return fd;
}

wire::UniqueFd connectToDaemon(QString* error) { return connectToSocket(daemonSocketPath(), error); }

}  // namespace handlink::client
