#include "SyncTestbed.h"

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

Testbed::Testbed() : EmulatorTestbed(QStringLiteral("SYNCTEST"))
{
    listed = [](const QString& identifier) { return lastIdentifier() == identifier; };
    gone = [](const QString&) { return !LinkDev::lastAvailableDevice(); };
    waitMs = 60000;
    start();
}

Testbed::~Testbed()
{
    stop();
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
