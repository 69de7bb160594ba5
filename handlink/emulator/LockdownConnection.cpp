// The lockdown connection of one client to one device: connect -> (pair) -> start session ->
// values / start service -> stop session -> disconnect. Connect and session nest by count on
// the connection; every request is counted by the device and may be struck by a fault.
#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/Operations.h"
#include "handlink/emulator/RequestTable.h"
#include "handlink/emulator/Server.h"
#include "handlink/wire/Values.h"

namespace handlink::emu {

namespace {

const QStringList kServices = {QStringLiteral("com.corvid.qfc"), QStringLiteral("com.corvid.mobile.notification_proxy")};

class Lockdown {
public:
    Lockdown(Server& server, int fd, std::shared_ptr<DeviceState> device, QString host)
        : _server(server), _fd(fd), _device(std::move(device)), _host(std::move(host)) {}

    // Serves requests until the last disconnect, a bad request or a closed connection.
    void run() {
        while (_connectDepth > 0) {
            QCborMap request;
            const wire::ReadResult result = wire::readFrame(_fd, &request);
            if (result != wire::ReadResult::Ok) {
                replyBadFrame(_fd, result);
                return;
            }
            if (!handle(request)) return;
        }
    }

private:
    using Handler = bool (Lockdown::*)(const QCborMap&, QCborMap*);
    struct Request {
        const char* op;
        Handler handler;
        bool needsSession;
        const char* matchField;  // the request field a fault's --match compares with
        req::Field fields[req::kMaxFields];
    };

    // Answers one request; false ends the connection. A request with a missing or ill-typed
    // field is answered kHLDInvalidArgumentError before the device counts it.
    bool handle(const QCborMap& request) {
        using req::need;
        using req::may;
        using req::Type;
        static const Request table[] = {
            {"connect", &Lockdown::connect, false, "key", {}},
            {"disconnect", &Lockdown::disconnect, false, "key", {}},
            {"is-paired", &Lockdown::isPaired, false, "key", {}},
            {"pair", &Lockdown::pair, false, "key", {}},
            {"start-session", &Lockdown::startSession, false, "key", {}},
            {"stop-session", &Lockdown::stopSession, true, "key", {}},
            {"get-value", &Lockdown::getValue, true, "key", {may("domain", Type::Text), may("key", Type::Text)}},
            {"set-value", &Lockdown::setValue, true, "key",
             {may("domain", Type::Text), need("key", Type::Text), may("value", Type::Value)}},
            {"start-service", &Lockdown::startService, true, "service", {need("service", Type::Text)}},
        };
        const Request* entry = req::findRow(table, request);
        if (!entry) {
            replyError(_fd, kHLDUnknownPacketError, QStringLiteral("unknown lockdown request \"%1\"").arg(req::opName(request)));
            return false;
        }
        if (const QString why = req::checkFields(request, entry->fields); !why.isEmpty()) {
            replyError(_fd, kHLDInvalidArgumentError, why);
            return true;
        }
        const QString op = QLatin1String(entry->op);
        const QString match = request.value(QLatin1String(entry->matchField)).toString();
        QCborMap answer;
        int32_t status = kHLDSuccess;
        if (auto fault = _device->receive(op, match)) {
            status = *fault;
        } else if (entry->needsSession && _sessionDepth == 0) {
            status = kHLDSessionInactiveError;
        } else {
            const bool keepGoing = (this->*entry->handler)(request, &answer);
            if (!keepGoing) return false;
            status = wire::statusOf(answer);
        }
        if (status == kHLDNotConnectedError && _device->isDetached()) return false;
        answer.insert(QStringLiteral("status"), status);
        return wire::writeFrame(_fd, answer) && _connectDepth > 0;
    }

    static bool ok(QCborMap* answer) {
        answer->insert(QStringLiteral("status"), kHLDSuccess);
        return true;
    }
    static bool fail(QCborMap* answer, int32_t status) {
        answer->insert(QStringLiteral("status"), status);
        return true;
    }

    bool connect(const QCborMap&, QCborMap* answer) {
        ++_connectDepth;
        return ok(answer);
    }
    bool disconnect(const QCborMap&, QCborMap* answer) {
        --_connectDepth;  // the loop ends after this answer when it reaches 0
        return ok(answer);
    }
    bool isPaired(const QCborMap&, QCborMap* answer) {
        answer->insert(QStringLiteral("paired"), _device->isPaired(_host));
        return ok(answer);
    }
    bool pair(const QCborMap&, QCborMap* answer) { return fail(answer, _device->pair(_host)); }
    bool startSession(const QCborMap&, QCborMap* answer) {
        if (!_device->isPaired(_host)) return fail(answer, kHLDInvalidHostIDError);
        ++_sessionDepth;
        return ok(answer);
    }
    bool stopSession(const QCborMap&, QCborMap* answer) {
        --_sessionDepth;
        return ok(answer);
    }
    bool getValue(const QCborMap& request, QCborMap* answer) {
        const QString domain = request.value(QStringLiteral("domain")).toString();
        const QString key = request.value(QStringLiteral("key")).toString();
        // No key (or an empty one): the whole domain as a dictionary.
        const QVariant value = key.isEmpty() ? QVariant(_device->values(domain)) : _device->value(domain, key);
        wire::insertValue(answer, QStringLiteral("value"), value);  // no value: no field
        return ok(answer);
    }
    bool setValue(const QCborMap& request, QCborMap* answer) {
        const QString domain = request.value(QStringLiteral("domain")).toString();
        const QString key = request.value(QStringLiteral("key")).toString();
        const QVariant value = wire::valueField(request, QStringLiteral("value"));  // invalid when absent
        return fail(answer, _device->setValue(domain, key, value));
    }
    bool startService(const QCborMap& request, QCborMap* answer) {
        const QString service = request.value(QStringLiteral("service")).toString();
        if (!kServices.contains(service)) return fail(answer, kHLDInvalidServiceError);
        answer->insert(QStringLiteral("ticket"), _server.issueTicket(_device, service));
        return ok(answer);
    }

    Server& _server;
    const int _fd;
    const std::shared_ptr<DeviceState> _device;
    const QString _host;
    int _connectDepth = 1;
    int _sessionDepth = 0;
};

}  // namespace

// The first request ("connect" with the device, its attachment and the host) was checked
// against the table of connection kinds (Server.cpp).
void serveLockdown(Server& server, int fd, const QCborMap& first) {
    const QString identifier = first.value(QStringLiteral("device")).toString();
    const int64_t attachment = first.value(QStringLiteral("attachment")).toInteger();
    const QString host = first.value(QStringLiteral("host")).toString();
    std::shared_ptr<DeviceState> device = server.device(identifier);
    if (!device || (attachment != 0 && attachment != device->attachment())) {
        replyError(fd, kHLDNotConnectedError, QStringLiteral("no device %1 is attached").arg(identifier));
        return;
    }
    if (auto fault = device->receive(ops::kConnect)) {
        replyStatus(fd, *fault);
        return;
    }
    const int token = device->registerConnection(fd);
    if (token < 0) {
        replyStatus(fd, kHLDNotConnectedError);
        return;
    }
    replyStatus(fd, kHLDSuccess);
    Lockdown(server, fd, device, host).run();
    device->unregisterConnection(token);
}

}  // namespace handlink::emu
