// The in-process emulator: a thin face over the server that handlinkd runs.
#include "handlink/emulator/Emulator.h"

#include "handlink/emulator/Server.h"

namespace handlink::emu {

struct Emulator::Impl {
    explicit Impl(const QString& path) : server(path) {}
    Server server;
};

Emulator::Emulator(const QString& socketPath) : _impl(std::make_unique<Impl>(socketPath)) {}

Emulator::~Emulator() { stop(); }

bool Emulator::start(QString* error) { return _impl->server.start(error); }

void Emulator::stop() { _impl->server.stop(); }

QString Emulator::socketPath() const { return _impl->server.socketPath(); }

std::shared_ptr<Device> Emulator::attach(const QString& deviceFolder, QString* error) {
    return _impl->server.attach(deviceFolder, error);
}

bool Emulator::detach(const QString& identifier) { return _impl->server.detach(identifier); }

std::shared_ptr<Device> Emulator::device(const QString& identifier) const { return _impl->server.device(identifier); }

QStringList Emulator::attachedIdentifiers() const {
    QStringList identifiers;
    for (const auto& device : _impl->server.devices()) identifiers << device->identifier();
    return identifiers;
}

void Emulator::setPrinter(std::function<void(const QString& line)> printer) { _impl->server.setPrinter(std::move(printer)); }

void Emulator::setAllowedUid(uint32_t uid) { _impl->server.setAllowedUid(uid); }

void Emulator::setTicketLifetime(int milliseconds) { _impl->server.setTicketLifetime(std::chrono::milliseconds(milliseconds)); }

int Emulator::pendingTicketCount() const { return static_cast<int>(_impl->server.ticketCount()); }

}  // namespace handlink::emu
