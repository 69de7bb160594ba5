#include "DeviceTestbed.h"

#include <QDeadlineTimer>
#include <QFile>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

#include "support/TestSupport.h"

namespace devicetest {

namespace {

Testbed* g_testbed = nullptr;

class Environment : public ::testing::Environment {
public:
    explicit Environment(bool registerObserver) : _registerObserver(registerObserver) {}
    void SetUp() override
    {
        g_testbed = new Testbed;
        g_testbed->start();
        if (_registerObserver) LinkDev::registerDeviceObserver(&_observer);
    }
    void TearDown() override
    {
        LinkDev::unregisterDeviceObserver(&_observer);
        g_testbed->stop();
        delete g_testbed;
        g_testbed = nullptr;
    }

private:
    bool _registerObserver;
    CountingObserver _observer;
};

}  // namespace

void installEnvironment(bool registerObserver)
{
    ::testing::AddGlobalTestEnvironment(new Environment(registerObserver));
}

Testbed& Testbed::instance()
{
    return *g_testbed;
}

Testbed::Testbed()
{
    // The library keeps this host's identity in the user's configuration folder and finds
    // the daemon through HANDLINK_SOCKET: both point into the temporary folder.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(_root.filePath(QStringLiteral("config"))));
    qputenv("HANDLINK_SOCKET", QFile::encodeName(_root.filePath(QStringLiteral("run/handlinkd.sock"))));
    _emulator = std::make_unique<handlink::emu::Emulator>(_root.filePath(QStringLiteral("run/handlinkd.sock")));
    _emulator->setPrinter([](const QString&) {});
}

Testbed::~Testbed() = default;

void Testbed::start()
{
    QString error;
    if (!_emulator->start(&error)) ADD_FAILURE() << "emulator did not start: " << error.toStdString();
}

void Testbed::stop()
{
    _emulator->stop();
}

std::shared_ptr<handlink::emu::Device> Testbed::attachNewDevice(const QString& name)
{
    const QString folder = _root.filePath(QStringLiteral("devices/device-%1").arg(++_made));
    handlink::emu::MakeDeviceOptions options;
    options.name = name;
    options.identifier = QStringLiteral("0000%1-TESTDEVICE").arg(_made, 4, 10, QLatin1Char('0'));
    QString error;
    if (!handlink::emu::makeDevice(folder, options, &error)) {
        ADD_FAILURE() << "makeDevice: " << error.toStdString();
        return nullptr;
    }
    return attachFolder(folder);
}

std::shared_ptr<handlink::emu::Device> Testbed::attachFolder(const QString& folder)
{
    QString error;
    std::shared_ptr<handlink::emu::Device> device = _emulator->attach(folder, &error);
    if (!device) {
        ADD_FAILURE() << "attach: " << error.toStdString();
        return nullptr;
    }
    const QString identifier = device->identifier();
    if (!testsupport::runUntil([&] { return LinkDev::availableDeviceIdentifiers().contains(identifier); }))
        ADD_FAILURE() << "the registry never listed " << identifier.toStdString();
    return device;
}

void Testbed::detach(const std::shared_ptr<handlink::emu::Device>& device)
{
    if (!device) return;
    const QString identifier = device->identifier();
    _emulator->detach(identifier);
    if (!testsupport::runUntil([&] { return !LinkDev::availableDeviceIdentifiers().contains(identifier); }))
        ADD_FAILURE() << "the registry still lists " << identifier.toStdString();
}

bool waitForCount(const handlink::emu::Device& device, const QString& operation, int n, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (device.count(operation) < n) {
        if (deadline.hasExpired()) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::shared_ptr<LinkDev> Testbed::linkDevFor(const QString& identifier)
{
    // The registry hands out the first and the last device; tests keep at most two attached.
    for (const std::shared_ptr<LinkDev>& device : {LinkDev::lastAvailableDevice(), LinkDev::firstAvailableDevice()})
        if (device && HLDeviceCopyDeviceIdentifier(device->deviceRef()) == identifier) return device;
    return nullptr;
}

}  // namespace devicetest
