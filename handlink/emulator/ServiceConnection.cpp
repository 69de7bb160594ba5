// Service connections: a client redeems the one-time ticket from its lockdown StartService on a
// new connection, which then speaks the service's own protocol until either side closes it or
// the device detaches. The notification proxy is here; the file conduit has its own folder.
#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/Operations.h"
#include "handlink/emulator/RequestTable.h"
#include "handlink/emulator/Server.h"

#ifdef VIREO_HANDLINK_HAVE_FILE_CONDUIT
#include "handlink/emulator/qfc/FileConduitService.h"
#endif

namespace handlink::emu {

namespace {

const QString kNotificationProxy = QStringLiteral("com.corvid.mobile.notification_proxy");
const QString kFileConduit = QStringLiteral("com.corvid.qfc");

// The notification proxy: "post" {name} and "shutdown". A post that a fault strikes is
// answered with its status and delivered to nobody. After a shutdown the device closes.
// A handler answers the request; false ends the connection.
using ProxyHandler = bool (*)(int fd, DeviceState& device, const QCborMap& request);

bool postNotification(int fd, DeviceState& device, const QCborMap& request) {
    const QString name = request.value(QStringLiteral("name")).toString();
    if (name.isEmpty()) {
        replyError(fd, kHLDInvalidArgumentError, QStringLiteral("a post needs a notification name"));
        return true;
    }
    if (auto fault = device.receive(ops::kPostNotification, name)) {
        replyStatus(fd, *fault);
        return true;
    }
    device.recordPost(name);
    replyStatus(fd, kHLDSuccess);
    return true;
}

bool shutdownProxy(int fd, DeviceState& device, const QCborMap&) {
    if (auto fault = device.receive(ops::kShutdownNotifications)) {
        replyStatus(fd, *fault);
        return true;
    }
    replyStatus(fd, kHLDSuccess);
    return false;
}

struct ProxyRequest {
    const char* op;
    ProxyHandler handler;
    req::Field fields[req::kMaxFields];
};

const ProxyRequest kProxyRequests[] = {
    {"post", &postNotification, {req::need("name", req::Type::Text), req::may("userInfo", req::Type::Map)}},
    {"shutdown", &shutdownProxy, {}},
};

void serveNotificationProxy(int fd, DeviceState& device) {
    for (;;) {
        QCborMap request;
        const wire::ReadResult result = wire::readFrame(fd, &request);
        if (result != wire::ReadResult::Ok) {
            replyBadFrame(fd, result);
            return;
        }
        const ProxyRequest* entry = req::findRow(kProxyRequests, request);
        if (!entry) {
            replyError(fd, kHLDUnknownPacketError,
                       QStringLiteral("unknown notification proxy request \"%1\"").arg(req::opName(request)));
            return;
        }
        if (const QString why = req::checkFields(request, entry->fields); !why.isEmpty()) {
            replyError(fd, kHLDInvalidArgumentError, why);
            continue;
        }
        if (!entry->handler(fd, device, request)) return;
    }
}

}  // namespace

void serveService(Server& server, int fd, const QCborMap& first) {
    std::shared_ptr<DeviceState> device;
    QString service;
    // The first request ("service" with its ticket) was checked against the table of
    // connection kinds (Server.cpp).
    if (!server.redeemTicket(first.value(QStringLiteral("ticket")).toString(), &device, &service)) {
        replyError(fd, kHLDInvalidCheckinError, QStringLiteral("unknown, used or expired service ticket"));
        return;
    }
    if (!device || device->isDetached()) {
        replyError(fd, kHLDNotConnectedError, QStringLiteral("the device is detached"));
        return;
    }
#ifndef VIREO_HANDLINK_HAVE_FILE_CONDUIT
    if (service == kFileConduit) {
        replyError(fd, kHLDInvalidServiceError, QStringLiteral("this build has no file conduit"));
        return;
    }
#endif
    const int token = device->registerConnection(fd);
    if (token < 0) {
        replyStatus(fd, kHLDNotConnectedError);
        return;
    }
    QCborMap answer;
    answer.insert(QStringLiteral("status"), kHLDSuccess);
    answer.insert(QStringLiteral("service"), service);
    if (wire::writeFrame(fd, answer)) {
        if (service == kNotificationProxy) serveNotificationProxy(fd, *device);
#ifdef VIREO_HANDLINK_HAVE_FILE_CONDUIT
        else if (service == kFileConduit)
            serveFileConduit(fd, device, server.stopping());
#endif
    }
    device->unregisterConnection(token);
}

}  // namespace handlink::emu
