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

Testbed::Testbed()
{
    // The library keeps this host's pairing identity in the configuration folder and finds the
    // daemon through HANDLINK_SOCKET: both point into the temporary folder.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(_root.filePath(QStringLiteral("config"))));
    qputenv("HANDLINK_SOCKET", QFile::encodeName(_root.filePath(QStringLiteral("run/handlinkd.sock"))));
    _emulator = std::make_unique<handlink::emu::Emulator>(_root.filePath(QStringLiteral("run/handlinkd.sock")));
    _emulator->setPrinter([](const QString&) {});
}

Testbed::~Testbed() = default;

void Testbed::start()
{
    QString error;
    if (!_emulator->start(&error))
        ADD_FAILURE() << "emulator did not start: " << error.toStdString();
}

void Testbed::stop()
{
    _emulator->stop();
}

std::shared_ptr<handlink::emu::Device> Testbed::attachNewDevice(const QString& name, const QString& pairing)
{
    const QString folder = _root.filePath(QStringLiteral("devices/device-%1").arg(++_made));
    handlink::emu::MakeDeviceOptions options;
    options.name = name;
    options.identifier = QStringLiteral("0000%1-APPTEST").arg(_made, 4, 10, QLatin1Char('0'));
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
    device->setPairing(pairing);
    const QString identifier = device->identifier();
    if (!testsupport::runUntil([&] { return LinkDev::availableDeviceIdentifiers().contains(identifier); }))
        ADD_FAILURE() << "the registry never listed " << identifier.toStdString();
    return device;
}

void Testbed::detach(const std::shared_ptr<handlink::emu::Device>& device)
{
    if (!device)
        return;
    const QString identifier = device->identifier();
    _emulator->detach(identifier);
    if (!testsupport::runUntil([&] { return !LinkDev::availableDeviceIdentifiers().contains(identifier); }))
        ADD_FAILURE() << "the registry still lists " << identifier.toStdString();
}

void Testbed::detachAll()
{
    for (const QString& identifier : _emulator->attachedIdentifiers())
        detach(_emulator->device(identifier));
}

QString Testbed::freshDefaultsFile()
{
    QDir().mkpath(_root.filePath(QStringLiteral("defaults")));
    const QString path = _root.filePath(QStringLiteral("defaults/vireo-%1.ini").arg(++_defaultsFiles));
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

int ScriptedAlertPresenter::runModal(const Alert& alert)
{
    if (_whileOpen)
        _whileOpen();
    std::lock_guard lock(_mutex);
    _shown.push_back({alert, platform::mainthread::isMainThread()});
    if (_answers.empty())
        return kAlertFirstButtonReturn;
    const int answer = _answers.front();
    _answers.pop_front();
    return answer;
}

void ScriptedAlertPresenter::answer(int button)
{
    std::lock_guard lock(_mutex);
    _answers.push_back(button);
}

std::vector<ScriptedAlertPresenter::Shown> ScriptedAlertPresenter::shown() const
{
    std::lock_guard lock(_mutex);
    return _shown;
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
