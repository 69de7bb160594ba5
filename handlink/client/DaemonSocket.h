#pragma once
// Where the daemon listens, and opening a connection to it.
#include "handlink/wire/UniqueFd.h"

#include <QString>

namespace handlink::client {

// $HANDLINK_SOCKET, else $XDG_RUNTIME_DIR/handlink/handlinkd.sock, else
// /tmp/handlink-$UID/handlinkd.sock. Read afresh on every call.
QString daemonSocketPath();
// A connected stream socket to the daemon (close-on-exec), or an invalid fd with *error set.
wire::UniqueFd connectToDaemon(QString* error = nullptr);
// Same, to an explicit path.
wire::UniqueFd connectToSocket(const QString& path, QString* error = nullptr);

}  // namespace handlink::client
