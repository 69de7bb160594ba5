#include "AppTestbed.h"

#include <QDir>
#include <QFile>
#include <chrono>

#include "device/LinkDev.h"
#include "platform/Defaults.h"
#include "platform/MainThread.h"
#include "support/TestSupport.h"

namespace apptest {

namespace {

Testbed* g_testbed = nullptr;

class Environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        g_testbed = new Testbed;
        g_testbed->start();
    }
    void TearDown() override
    {
        g_testbed->stop();
        delete g_testbed;
        g_testbed = nullptr;
    }
};

}  // namespace

void installEnvironment()
{
    ::testing::AddGlobalTestEnvironment(new Environment);
}

Testbed& Testbed::instance()
{
    return *g_testbed;
}

std::shared_ptr<handlink::emu::Device> Testbed::attachNewDevice(const QString& name, const QString& pairing)
{
    handlink::emu::MakeDeviceOptions options;
    options.name = name;
    return EmulatorTestbed::attachNewDevice(options, [&](handlink::emu::Device& device) { device.setPairing(pairing); });
}

void Testbed::detachAll()
{
    for (const QString& identifier : emulator().attachedIdentifiers())
        detach(emulator().device(identifier));
}

QString Testbed::freshDefaultsFile()
{
    QDir().mkpath(root() + QStringLiteral("/defaults"));
    const QString path = root() + QStringLiteral("/defaults/vireo-%1.ini").arg(++_defaultsFiles);
    platform::Defaults::setStandardFile(path);
    return path;
}

void AppTest::SetUp()
{
    Testbed::instance().detachAll();
    defaultsPath = Testbed::instance().freshDefaultsFile();
}

void AppTest::TearDown()
{
    Testbed::instance().detachAll();
    platform::mainthread::drain();
}

WriteRecorder::WriteRecorder()
{
    _connection = QObject::connect(&platform::Defaults::standard(), &platform::Defaults::valueChanged,
                                   [this](const QString& key) {
                                       _keys << key;
                                       _entries << key + u'=' + platform::Defaults::standard().objectForKey(key).toString();
                                   });
}

WriteRecorder::~WriteRecorder()
{
    QObject::disconnect(_connection);
}

Worker::Worker() : _thread([this] { loop(); }) {}

Worker::~Worker()
{
    {
        std::lock_guard lock(_mutex);
        _quit = true;
    }
    _wake.notify_all();
    _thread.join();
}

void Worker::start(std::function<void()> step)
{
    {
        std::lock_guard lock(_mutex);
        _step = std::move(step);
        _busy = true;
    }
    _wake.notify_all();
}

bool Worker::finished() const
{
    std::lock_guard lock(_mutex);
    return !_busy;
}

bool Worker::waitWithoutEventLoop(int timeoutMs)
{
    std::unique_lock lock(_mutex);
    return _stepEnded.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return !_busy; });
}

bool Worker::run(std::function<void()> step)
{
    start(std::move(step));
    return testsupport::runUntil([this] { return finished(); });
}

void Worker::loop()
{
    std::unique_lock lock(_mutex);
    for (;;) {
        _wake.wait(lock, [this] { return _quit || _step; });
        if (_quit)
            return;
        std::function<void()> step = std::move(_step);
        _step = nullptr;
        lock.unlock();
        step();
        lock.lock();
        _busy = false;
        _stepEnded.notify_all();
    }
}

}  // namespace apptest
