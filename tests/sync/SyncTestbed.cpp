#include "SyncTestbed.h"

#include <QFile>

#include "platform/MainThread.h"
#include "support/TestSupport.h"

namespace synctest {

namespace {

Testbed* g_testbed = nullptr;

class Observer : public LinkDevObserver {
public:
    void handlinkAvailabliltyDidChange() override {}
};

class Environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        g_testbed = new Testbed;
        // The first registration subscribes the registry; made here, on the main thread.
        LinkDev::registerDeviceObserver(&_observer);
    }
    void TearDown() override
    {
        LinkDev::unregisterDeviceObserver(&_observer);
        Testbed::destroyInstance();
    }

private:
    Observer _observer;
};

const bool g_installed = (::testing::AddGlobalTestEnvironment(new Environment), true);

QString lastIdentifier()
{
    std::shared_ptr<LinkDev> last = LinkDev::lastAvailableDevice();
    return last ? HLDeviceCopyDeviceIdentifier(last->deviceRef()) : QString();
}

}  // namespace

Testbed& Testbed::instance()
{
    (void)g_installed;
    return *g_testbed;
}

void Testbed::destroyInstance()
{
    delete g_testbed;
    g_testbed = nullptr;
}

Testbed::Testbed()
{
    // The library keeps this host's identity in the configuration folder and finds the daemon
    // through HANDLINK_SOCKET: both point into this process's temporary folder.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(_root.filePath(QStringLiteral("config"))));
    const QString socket = _root.filePath(QStringLiteral("run/handlinkd.sock"));
    qputenv("HANDLINK_SOCKET", QFile::encodeName(socket));
    _emulator = std::make_unique<handlink::emu::Emulator>(socket);
    _emulator->setPrinter([](const QString&) {});
    QString error;
    if (!_emulator->start(&error)) ADD_FAILURE() << "emulator did not start: " << error.toStdString();
}

Testbed::~Testbed()
{
    _emulator->stop();
}

std::shared_ptr<handlink::emu::Device> Testbed::attachNewDevice()
{
    const QString folder = _root.filePath(QStringLiteral("devices/device-%1").arg(++_made));
    handlink::emu::MakeDeviceOptions options;
    options.identifier = QStringLiteral("0000%1-SYNCTEST").arg(_made, 4, 10, QLatin1Char('0'));
    QString error;
    if (!handlink::emu::makeDevice(folder, options, &error)) {
        ADD_FAILURE() << "makeDevice: " << error.toStdString();
        return nullptr;
    }
    std::shared_ptr<handlink::emu::Device> device = _emulator->attach(folder, &error);
    if (!device) {
        ADD_FAILURE() << "attach: " << error.toStdString();
        return nullptr;
    }
    const QString identifier = device->identifier();
    if (!waitFor([&] { return lastIdentifier() == identifier; }))
        ADD_FAILURE() << "the registry never listed " << identifier.toStdString();
    return device;
}

void Testbed::detach(const std::shared_ptr<handlink::emu::Device>& device)
{
    if (!device) return;
    _emulator->detach(device->identifier());
    if (!waitFor([] { return !LinkDev::lastAvailableDevice(); }))
        ADD_FAILURE() << "the registry still lists a device";
}

std::shared_ptr<LinkDev> Testbed::linkDevFor(const QString& identifier)
{
    std::shared_ptr<LinkDev> last = LinkDev::lastAvailableDevice();
    if (last && HLDeviceCopyDeviceIdentifier(last->deviceRef()) == identifier) return last;
    return nullptr;
}

void DeviceTest::SetUp()
{
    device = Testbed::instance().attachNewDevice();
    ASSERT_TRUE(device);
    dev = Testbed::linkDevFor(device->identifier());
    ASSERT_TRUE(dev);
}

void DeviceTest::TearDown()
{
    dev.reset();
    Testbed::instance().detach(device);
}

QString DeviceTest::mediaPath(const QString& relative) const
{
    return device->mediaRoot() + QLatin1Char('/') + relative;
}

bool DeviceTest::syncLockIsFree() const
{
    handlink::emu::HoldLockOptions options;
    options.exclusive = true;
    return device->holdLock(kLockPath, options) != nullptr;
}

void StatusRecorder::syncSimulatorStatusUpdate(SyncSimulator* simulator, int32_t status, const QString& text)
{
    std::lock_guard guard(_mutex);
    _updates.push_back({status, text, platform::mainthread::isMainThread()});
    _lastSimulator = simulator;
}

std::vector<StatusRecorder::Update> StatusRecorder::updates() const
{
    std::lock_guard guard(_mutex);
    return _updates;
}

QStringList StatusRecorder::summary() const
{
    QStringList lines;
    for (const Update& update : updates()) lines << QStringLiteral("%1:%2").arg(QString::number(update.status), update.text);
    return lines;
}

SyncSimulator* StatusRecorder::lastSimulator() const
{
    std::lock_guard guard(_mutex);
    return _lastSimulator;
}

bool waitFor(const std::function<bool()>& pred)
{
    return testsupport::runUntil(pred, 60000);
}

}  // namespace synctest
