#include "DeviceTestbed.h"

#include <QDeadlineTimer>
#include <chrono>
#include <gtest/gtest.h>
#include <thread>

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

bool waitForCount(const handlink::emu::Device& device, const QString& operation, int n, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (device.count(operation) < n) {
        if (deadline.hasExpired()) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace devicetest
