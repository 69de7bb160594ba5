#include "EmulatorTestbed.h"

#include <QFile>

#include "support/TestSupport.h"

namespace testsupport {

namespace {

bool registryLists(const QString& identifier)
{
    return LinkDev::availableDeviceIdentifiers().contains(identifier);
}

}  // namespace

EmulatorTestbed::EmulatorTestbed(const QString& identifierTag)
    : listed(registryLists), gone([](const QString& identifier) { return !registryLists(identifier); }),
      _identifierTag(identifierTag)
{
    // The library keeps this host's identity in the configuration folder and finds the daemon
    // through HANDLINK_SOCKET: both point into the temporary folder.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(_root.filePath(QStringLiteral("config"))));
    const QString socket = _root.filePath(QStringLiteral("run/handlinkd.sock"));
    qputenv("HANDLINK_SOCKET", QFile::encodeName(socket));
    _emulator = std::make_unique<handlink::emu::Emulator>(socket);
    _emulator->setPrinter([](const QString&) {});
}

EmulatorTestbed::~EmulatorTestbed() = default;

void EmulatorTestbed::start()
{
    QString error;
    if (!_emulator->start(&error)) ADD_FAILURE() << "emulator did not start: " << error.toStdString();
}

void EmulatorTestbed::stop()
{
    _emulator->stop();
}

QString EmulatorTestbed::makeDeviceFolder(handlink::emu::MakeDeviceOptions options)
{
    const QString folder = _root.filePath(QStringLiteral("devices/device-%1").arg(++_made));
    if (options.identifier.isEmpty())
        options.identifier = QStringLiteral("0000%1-").arg(_made, 4, 10, QLatin1Char('0')) + _identifierTag;
    QString error;
    if (!handlink::emu::makeDevice(folder, options, &error)) {
        ADD_FAILURE() << "makeDevice: " << error.toStdString();
        return QString();
    }
    return folder;
}

std::shared_ptr<handlink::emu::Device> EmulatorTestbed::attachNewDevice(const handlink::emu::MakeDeviceOptions& options,
                                                                        const std::function<void(handlink::emu::Device&)>& prepare)
{
    const QString folder = makeDeviceFolder(options);
    if (folder.isEmpty()) return nullptr;
    return attachFolder(folder, prepare);
}

std::shared_ptr<handlink::emu::Device> EmulatorTestbed::attachFolder(const QString& folder,
                                                                     const std::function<void(handlink::emu::Device&)>& prepare)
{
    QString error;
    std::shared_ptr<handlink::emu::Device> device = _emulator->attach(folder, &error);
    if (!device) {
        ADD_FAILURE() << "attach: " << error.toStdString();
        return nullptr;
    }
    if (prepare) prepare(*device);
    const QString identifier = device->identifier();
    if (!runUntil([&] { return listed(identifier); }, waitMs))
        ADD_FAILURE() << "the registry never listed " << identifier.toStdString();
    return device;
}

void EmulatorTestbed::detach(const std::shared_ptr<handlink::emu::Device>& device)
{
    if (!device) return;
    const QString identifier = device->identifier();
    _emulator->detach(identifier);
    if (!runUntil([&] { return gone(identifier); }, waitMs))
        ADD_FAILURE() << "the registry still lists " << identifier.toStdString();
}

std::shared_ptr<LinkDev> EmulatorTestbed::linkDevFor(const QString& identifier)
{
    for (const std::shared_ptr<LinkDev>& device : {LinkDev::lastAvailableDevice(), LinkDev::firstAvailableDevice()})
        if (device && HLDeviceCopyDeviceIdentifier(device->deviceRef()) == identifier) return device;
    return nullptr;
}

}  // namespace testsupport
