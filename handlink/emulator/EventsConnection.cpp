// Event listeners: the answer to "events" lists the devices attached now; from then on the
// server pushes one frame per attach and detach (Server::attach/detach). The client sends
// nothing more; its closing the connection ends it.
#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/Server.h"

namespace handlink::emu {

void serveEvents(Server& server, int fd, const QCborMap&) {
    const int token = server.addEventListener(fd);
    QCborMap request;
    const wire::ReadResult result = wire::readFrame(fd, &request);
    server.removeEventListener(token);
    if (result == wire::ReadResult::Ok)
        replyError(fd, kHLDUnknownPacketError, QStringLiteral("an event listener sends no requests"));
    else
        replyBadFrame(fd, result);
}

}  // namespace handlink::emu
