// The control connection (handlinkctl and tests in other processes): attach, detach, list,
// faults, delays, pairing, values, counters, lock holders and notification watching. Every
// request names its device by identifier; errors carry a message for people in "error".
#include "handlink/HandlinkStatus.h"
#include "handlink/emulator/Operations.h"
#include "handlink/emulator/RequestTable.h"
#include "handlink/emulator/Server.h"
#include "handlink/wire/Values.h"

#ifdef VIREO_HANDLINK_HAVE_LOCK_HOLDERS
#include "handlink/emulator/qfc/LockHolders.h"
#endif

#include <QCborArray>

namespace handlink::emu {

namespace {

class Control {
public:
    Control(Server& server, int fd) : _server(server), _fd(fd) {}

    void run() {
        for (;;) {
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
    // A handler fills the answer (status included); false ends the connection afterwards.
    using Handler = bool (Control::*)(const QCborMap&, QCborMap*);
    struct Request {
        const char* op;
        Handler handler;
        bool needsDevice;  // names an attached device by "id"
        req::Field fields[req::kMaxFields];
    };

    bool handle(const QCborMap& request) {
        using req::need;
        using req::may;
        using req::Type;
        using req::kCountMax;
        static const Request table[] = {
            {"list", &Control::list, false, {}},
            {"attach", &Control::attach, false, {need("folder", Type::Text)}},
            {"detach", &Control::detach, false, {need("id", Type::Text)}},
            {"fail", &Control::fail, true,
             {need("id", Type::Text), need("operation", Type::Text), need("status", Type::Integer, req::kStatusMin, req::kStatusMax),
              may("times", Type::Integer, 1, kCountMax), may("after", Type::Integer, 0, kCountMax), may("match", Type::Text)}},
            {"clear-faults", &Control::clearFaults, true, {need("id", Type::Text)}},
            {"delay", &Control::delay, true,
             {need("id", Type::Text), need("operation", Type::Text), need("milliseconds", Type::Integer, 0, kCountMax),
              may("times", Type::Integer, 1, kCountMax)}},
            {"pairing", &Control::pairing, true, {need("id", Type::Text), need("mode", Type::Text)}},
            {"values", &Control::values, true, {need("id", Type::Text), may("domain", Type::Text)}},
            {"stats", &Control::stats, true, {need("id", Type::Text)}},
            {"reset-counters", &Control::resetCounters, true, {need("id", Type::Text)}},
            {"hold-lock", &Control::holdLock, true,
             {need("id", Type::Text), need("path", Type::Text), may("exclusive", Type::Bool), may("yieldOn", Type::Text),
              may("afterRequests", Type::Integer, 1, kCountMax), may("afterMs", Type::Integer, 0, kCountMax),
              may("seconds", Type::Integer, 0, kCountMax), may("wait", Type::Bool)}},
            {"watch", &Control::watch, false, {may("id", Type::Text)}},
        };
        const Request* entry = req::findRow(table, request);
        if (!entry) {
            replyError(_fd, kHLDUnknownPacketError, QStringLiteral("unknown control request \"%1\"").arg(req::opName(request)));
            return false;
        }
        QCborMap answer;
        bool keepGoing = true;
        if (const QString why = req::checkFields(request, entry->fields); !why.isEmpty()) {
            error(&answer, kHLDInvalidArgumentError, why);
        } else if (entry->needsDevice && !findDevice(request, &answer)) {
            // answer holds the error
        } else {
            keepGoing = (this->*entry->handler)(request, &answer);
        }
        if (!answer.isEmpty() && !wire::writeFrame(_fd, answer)) return false;
        return keepGoing;
    }

    static bool error(QCborMap* answer, int32_t status, const QString& message) {
        answer->insert(QStringLiteral("status"), status);
        answer->insert(QStringLiteral("error"), message);
        return true;
    }
    static bool ok(QCborMap* answer) {
        answer->insert(QStringLiteral("status"), kHLDSuccess);
        return true;
    }
    static QString text(const QCborMap& request, const char* field) { return request.value(QLatin1String(field)).toString(); }
    // A field the table checked: absent fields read as the default.
    static qint64 integer(const QCborMap& request, const char* field, qint64 otherwise) {
        return request.value(QLatin1String(field)).toInteger(otherwise);
    }

    bool findDevice(const QCborMap& request, QCborMap* answer) {
        const QString identifier = text(request, "id");
        _device = _server.device(identifier);
        if (!_device) error(answer, kHLDNotFoundError, QStringLiteral("no device %1 is attached").arg(identifier));
        return _device != nullptr;
    }

    bool checkOperation(const QString& operation, QCborMap* answer) {
        if (ops::isKnown(operation)) return true;
        error(answer, kHLDInvalidArgumentError,
              QStringLiteral("unknown operation \"%1\"; known: %2").arg(operation, ops::all().join(QLatin1Char(' '))));
        return false;
    }

    bool list(const QCborMap&, QCborMap* answer) {
        QCborArray devices;
        for (const auto& device : _server.devices()) {
            QCborMap entry;
            entry.insert(QStringLiteral("id"), device->identifier());
            entry.insert(QStringLiteral("name"), device->name());
            entry.insert(QStringLiteral("attachment"), device->attachment());
            entry.insert(QStringLiteral("folder"), device->folder());
            devices.append(entry);
        }
        answer->insert(QStringLiteral("devices"), devices);
        return ok(answer);
    }

    bool attach(const QCborMap& request, QCborMap* answer) {
        QString message;
        auto device = _server.attach(text(request, "folder"), &message);
        if (!device) return error(answer, kHLDInvalidArgumentError, message);
        answer->insert(QStringLiteral("id"), device->identifier());
        answer->insert(QStringLiteral("name"), device->name());
        return ok(answer);
    }

    bool detach(const QCborMap& request, QCborMap* answer) {
        const QString identifier = text(request, "id");
        if (!_server.detach(identifier))
            return error(answer, kHLDNotFoundError, QStringLiteral("no device %1 is attached").arg(identifier));
        return ok(answer);
    }

    bool fail(const QCborMap& request, QCborMap* answer) {
        Fault fault;
        fault.operation = text(request, "operation");
        if (!checkOperation(fault.operation, answer)) return true;
        fault.status = static_cast<int32_t>(integer(request, "status", 0));
        fault.times = static_cast<int>(integer(request, "times", 1));
        fault.after = static_cast<int>(integer(request, "after", 0));
        fault.match = text(request, "match");
        _device->addFault(fault);
        return ok(answer);
    }

    bool clearFaults(const QCborMap&, QCborMap* answer) {
        _device->clearFaults();
        return ok(answer);
    }

    bool delay(const QCborMap& request, QCborMap* answer) {
        const QString operation = text(request, "operation");
        if (!checkOperation(operation, answer)) return true;
        _device->delay(operation, static_cast<int>(integer(request, "milliseconds", 0)), static_cast<int>(integer(request, "times", 1)));
        return ok(answer);
    }

    bool pairing(const QCborMap& request, QCborMap* answer) {
        const QString mode = text(request, "mode");
        if (mode != QLatin1String("accept") && mode != QLatin1String("refuse") && mode != QLatin1String("forget"))
            return error(answer, kHLDInvalidArgumentError, QStringLiteral("pairing is accept, refuse or forget, not \"%1\"").arg(mode));
        _device->setPairing(mode);
        return ok(answer);
    }

    bool values(const QCborMap& request, QCborMap* answer) {
        answer->insert(QStringLiteral("values"), wire::toCbor(_device->values(text(request, "domain"))));
        return ok(answer);
    }

    bool stats(const QCborMap&, QCborMap* answer) {
        QCborMap counts, posts;
        for (const auto& [operation, n] : _device->counts()) counts.insert(operation, n);
        for (const auto& [name, n] : _device->postCounts()) posts.insert(name, n);
        answer->insert(QStringLiteral("counts"), counts);
        answer->insert(QStringLiteral("posts"), posts);
        return ok(answer);
    }

    bool resetCounters(const QCborMap&, QCborMap* answer) {
        _device->resetCounters();
        return ok(answer);
    }

    bool holdLock(const QCborMap& request, QCborMap* answer) {
        HoldLockOptions options;
        options.exclusive = request.value(QStringLiteral("exclusive")).toBool(true);
        options.yieldOn = text(request, "yieldOn");
        options.afterRequests = static_cast<int>(integer(request, "afterRequests", 1));
        options.afterMs = static_cast<int>(integer(request, "afterMs", 0));
        options.seconds = static_cast<int>(integer(request, "seconds", 0));
        QString message;
#ifdef VIREO_HANDLINK_HAVE_LOCK_HOLDERS
        // "wait": held for as long as this connection lasts (handlinkctl hold-lock).
        if (request.value(QStringLiteral("wait")).toBool()) {
            int32_t status = kQFCUndefinedError;
            if (holdLockForConnection(_fd, _device, text(request, "path"), options, &message, &status)) return false;
            return error(answer, status, message);
        }
        if (!_device->holdLockForControl(text(request, "path"), options, &message)) {
            // No failure of the holder itself: it was made, but the device detached meanwhile.
            const int32_t status = lastLockHolderFailure();
            return error(answer, status ? status : kQFCNotConnectedError, message);
        }
#else
        if (!_device->holdLockForControl(text(request, "path"), options, &message))
            return error(answer, kQFCUndefinedError, message);
#endif
        return ok(answer);
    }

    // Turns the connection into a stream of "posted" events until the client closes it.
    bool watch(const QCborMap& request, QCborMap*) {
        const QString identifier = text(request, "id");
        if (!identifier.isEmpty() && !_server.device(identifier)) {
            replyError(_fd, kHLDNotFoundError, QStringLiteral("no device %1 is attached").arg(identifier));
            return false;
        }
        const int token = _server.addWatcher(_fd, identifier);  // answers status 0
        QCborMap ignored;
        while (wire::readFrame(_fd, &ignored) == wire::ReadResult::Ok) {
        }
        _server.removeWatcher(token);
        return false;
    }

    Server& _server;
    const int _fd;
    std::shared_ptr<DeviceState> _device;
};

}  // namespace

void serveControl(Server& server, int fd, const QCborMap&) {
    replyStatus(fd, kHLDSuccess);
    Control(server, fd).run();
}

}  // namespace handlink::emu
